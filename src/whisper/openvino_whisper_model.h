#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "genai/generation_config.h"
#include "genai/pipelines.h"

namespace velmora {

// The object behind a Whisper handle.
class OpenVinoWhisperModel {
public:
    OpenVinoWhisperModel(std::string modelPath, int32_t deviceType);

    std::vector<std::string> query(const std::vector<float>& samples, const genai::WhisperGenerationConfig& settings);

    std::unique_ptr<genai::WhisperPipeline> pipeline;
    genai::WhisperGenerationConfig config;
    // Raised from any thread by CancelModel; read by the running streamer.
    std::atomic<bool> cancelRequested{false};
};

}  // namespace velmora

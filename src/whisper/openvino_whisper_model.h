#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "genai/pipelines.h"
#include "whisper_settings.h"

namespace velmora::whisper {

// The object behind a Whisper handle.
class OpenVinoWhisperModel {
public:
    OpenVinoWhisperModel(std::string modelPath, int32_t deviceType);

    // Throws ov::AssertFailure when the runtime rejects the settings.
    void validate() const;
    // Reads the samples during the call only.
    std::vector<std::string> query(const float* samples, std::size_t count);

    std::unique_ptr<genai::WhisperPipeline> pipeline;
    GenerationConfig config;
    // Raised from any thread by CancelModel; read by the running streamer.
    std::atomic<bool> cancelRequested{false};
};

}  // namespace velmora::whisper

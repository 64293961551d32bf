#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "genai/generation_config.h"
#include "genai/pipelines.h"

namespace velmora {

// The object behind an LLM handle.
class OpenVinoLlmModel {
public:
    OpenVinoLlmModel(std::string modelPath, int32_t deviceType, int32_t contextLength);

    std::vector<std::string> query(const std::vector<std::string>& prompts, const genai::GenerationConfig& settings);
    void stream(std::vector<std::string> inputs, genai::GenerationConfig settings,
                std::function<bool(std::string)> streamer);
    std::vector<int64_t> tokenize(std::string text);

    std::unique_ptr<genai::LLMPipeline> pipeline;
    genai::GenerationConfig config;
    // Raised from any thread by CancelModel; read by the running streamer.
    std::atomic<bool> cancelRequested{false};
};

}  // namespace velmora

#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "genai/pipelines.h"
#include "llm_settings.h"

namespace velmora::llm {

// The object behind an LLM handle.
class OpenVinoLlmModel {
public:
    OpenVinoLlmModel(std::string modelPath, int32_t deviceType, int32_t contextLength);

    // Throws ov::AssertFailure when the runtime rejects the settings.
    void validate() const;
    std::vector<std::string> query(const std::string& prompt);
    void stream(const std::string& prompt, std::function<bool(std::string)> streamer);
    std::vector<int64_t> tokenize(const std::string& text) { return pipeline->tokenize(text); }

    std::unique_ptr<genai::LLMPipeline> pipeline;
    GenerationConfig config;
    // Raised from any thread by CancelModel; read by the running streamer.
    std::atomic<bool> cancelRequested{false};
};

}  // namespace velmora::llm

// The runtime's pipelines, shaped as the rest of the library uses them. Every
// call may throw ov::AssertFailure (the runtime's assertion, text unchanged)
// or another std::exception carrying the runtime's text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <openvino/core/any.hpp>

#include "runtime_config.h"

namespace velmora::genai {

// Sees each generated piece; true asks the pipeline to stop generating.
using Streamer = std::function<bool(std::string)>;

class LLMPipeline {
public:
    LLMPipeline(const std::filesystem::path& models_path, const std::string& device, const ov::AnyMap& properties);
    // The texts generated for the prompts.
    std::vector<std::string> generate(const std::vector<std::string>& prompts, const RuntimeConfig& config,
                                      const Streamer& streamer);
    // Fills the members of `config` from the model's own settings.
    void read_generation_config(RuntimeConfig& config) const;
    // The ids of the text, through the model's tokenizer.
    std::vector<int64_t> tokenize(const std::string& text);

private:
    const RuntimeObject& StreamDecoder();

    std::shared_ptr<RuntimeObject> object_;
    std::filesystem::path models_path_;
    std::shared_ptr<RuntimeObject> stream_decoder_;
    bool decodes_ = false;  // the streaming tokenizer was seen to decode
};

class WhisperPipeline {
public:
    WhisperPipeline(const std::filesystem::path& models_path, const std::string& device, const ov::AnyMap& properties);
    // The samples are read during the call only, as one float32 array.
    std::vector<std::string> generate(const float* samples, std::size_t count, const RuntimeConfig& config,
                                      const Streamer& streamer);
    void read_generation_config(RuntimeConfig& config) const;

private:
    std::shared_ptr<RuntimeObject> object_;
};

}  // namespace velmora::genai

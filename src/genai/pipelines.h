// The runtime's pipelines and tokenizer, shaped as the rest of the library
// uses them. Every call may throw ov::AssertFailure (the runtime's assertion,
// text unchanged) or another std::exception carrying the runtime's text.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <openvino/core/any.hpp>
#include <openvino/runtime/tensor.hpp>

#include "generation_config.h"

namespace velmora::genai {

// True asks the pipeline to stop generating.
using StreamerVariant = std::variant<std::monostate, std::function<bool(std::string)>>;
using StringInputs = std::variant<std::string, std::vector<std::string>>;
using OptionalGenerationConfig = std::optional<GenerationConfig>;

struct DecodedResults {
    std::vector<std::string> texts;
    std::vector<float> scores;
};

struct WhisperDecodedResults {
    std::vector<std::string> texts;
    std::vector<float> scores;
};

struct TokenizedInputs {
    ov::Tensor input_ids;
    ov::Tensor attention_mask;
};

class Tokenizer {
public:
    explicit Tokenizer(std::shared_ptr<RuntimeObject> object);
    TokenizedInputs encode(const std::vector<std::string>& texts, const ov::AnyMap& options);

private:
    std::shared_ptr<RuntimeObject> object_;
};

class LLMPipeline {
public:
    LLMPipeline(const std::filesystem::path& models_path, const std::string& device, const ov::AnyMap& properties);
    DecodedResults generate(const StringInputs& inputs, const OptionalGenerationConfig& generation_config,
                            const StreamerVariant& streamer);
    GenerationConfig get_generation_config() const;
    Tokenizer get_tokenizer();

private:
    void EnsureDetokenizer();

    std::shared_ptr<RuntimeObject> object_;
    bool decodes_ = false;  // the tokenizer was seen to decode
};

class WhisperPipeline {
public:
    WhisperPipeline(const std::filesystem::path& models_path, const std::string& device, const ov::AnyMap& properties);
    // Samples go to the runtime as one float32 array.
    WhisperDecodedResults generate(const std::vector<float>& raw_speech,
                                   const std::optional<WhisperGenerationConfig>& generation_config,
                                   const StreamerVariant& streamer);
    WhisperGenerationConfig get_generation_config() const;

private:
    std::shared_ptr<RuntimeObject> object_;
};

}  // namespace velmora::genai

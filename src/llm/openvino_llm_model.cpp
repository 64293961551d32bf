#include "openvino_llm_model.h"

#include <filesystem>

#include "pipeline/device.h"
#include "pipeline/properties.h"

namespace velmora {

OpenVinoLlmModel::OpenVinoLlmModel(std::string modelPath, int32_t deviceType, int32_t contextLength) {
    const std::filesystem::path directory(modelPath);
    const ov::AnyMap properties = BuildPipelineProperties(directory, directory, false, contextLength, deviceType);
    const std::string device = DeviceName(deviceType);
    pipeline = std::make_unique<genai::LLMPipeline>(directory, device, properties);
    config = pipeline->get_generation_config();
    // Prompts go to the model as the host wrote them.
    config.apply_chat_template = false;
    config.max_new_tokens = static_cast<std::size_t>(contextLength);
}

std::vector<std::string> OpenVinoLlmModel::query(const std::vector<std::string>& prompts,
                                                 const genai::GenerationConfig& settings) {
    cancelRequested.store(false, std::memory_order_relaxed);
    std::function<bool(std::string)> cancelled = [this](std::string) {
        return cancelRequested.load(std::memory_order_relaxed);
    };
    return pipeline->generate(prompts, settings, cancelled).texts;
}

void OpenVinoLlmModel::stream(std::vector<std::string> inputs, genai::GenerationConfig settings,
                              std::function<bool(std::string)> streamer) {
    cancelRequested.store(false, std::memory_order_relaxed);
    // Once a cancel is seen, no further piece reaches the host.
    std::function<bool(std::string)> cancelAware = [streamer, this](std::string piece) {
        if (cancelRequested.load(std::memory_order_relaxed)) return true;
        return streamer(std::move(piece));
    };
    pipeline->generate(genai::StringInputs(std::move(inputs)), std::move(settings), cancelAware);
}

std::vector<int64_t> OpenVinoLlmModel::tokenize(std::string text) {
    genai::TokenizedInputs tokens = pipeline->get_tokenizer().encode({std::move(text)}, ov::AnyMap{});
    const int64_t* ids = tokens.input_ids.data<int64_t>();
    return std::vector<int64_t>(ids, ids + tokens.input_ids.get_size());
}

}  // namespace velmora

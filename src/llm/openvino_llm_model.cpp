#include "openvino_llm_model.h"

#include <filesystem>

#include "core/device.h"
#include "core/properties.h"

namespace velmora::llm {

OpenVinoLlmModel::OpenVinoLlmModel(std::string modelPath, int32_t deviceType, int32_t contextLength) {
    const std::filesystem::path directory(modelPath);
    const ov::AnyMap properties = BuildPipelineProperties(directory, directory, false, contextLength, deviceType);
    const std::string device = DeviceName(deviceType);
    pipeline = std::make_unique<genai::LLMPipeline>(directory, device, properties);
    genai::RuntimeConfig own = genai::ToRuntime(config, kSettings, kRuntimeClass);
    pipeline->read_generation_config(own);
    config = genai::FromRuntime(own, kSettings);
    // Prompts go to the model as the host wrote them.
    config.apply_chat_template = false;
    config.max_new_tokens = static_cast<std::size_t>(contextLength);
}

void OpenVinoLlmModel::validate() const {
    genai::Validate(genai::ToRuntime(config, kSettings, kRuntimeClass));
}

std::vector<std::string> OpenVinoLlmModel::query(const std::string& prompt) {
    cancelRequested.store(false, std::memory_order_relaxed);
    const genai::Streamer cancelled = [this](std::string) { return cancelRequested.load(std::memory_order_relaxed); };
    return pipeline->generate({prompt}, genai::ToRuntime(config, kSettings, kRuntimeClass), cancelled);
}

void OpenVinoLlmModel::stream(const std::string& prompt, std::function<bool(std::string)> streamer) {
    cancelRequested.store(false, std::memory_order_relaxed);
    // Once a cancel is seen, no further piece reaches the host.
    const genai::Streamer cancelAware = [streamer, this](std::string piece) {
        if (cancelRequested.load(std::memory_order_relaxed)) return true;
        return streamer(std::move(piece));
    };
    pipeline->generate({prompt}, genai::ToRuntime(config, kSettings, kRuntimeClass), cancelAware);
}

}  // namespace velmora::llm

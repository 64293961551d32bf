#include "openvino_whisper_model.h"

#include <filesystem>

#include "core/device.h"

namespace velmora::whisper {

// The device is judged before anything is loaded; the directory is left for
// the runtime to judge, with no properties for any device.
OpenVinoWhisperModel::OpenVinoWhisperModel(std::string modelPath, int32_t deviceType) {
    const std::string device = DeviceName(deviceType);
    const std::filesystem::path directory(modelPath);
    pipeline = std::make_unique<genai::WhisperPipeline>(directory, device, ov::AnyMap{});
    genai::RuntimeConfig own = genai::ToRuntime(config, kSettings, kRuntimeClass);
    pipeline->read_generation_config(own);
    config = genai::FromRuntime(own, kSettings);
}

void OpenVinoWhisperModel::validate() const {
    genai::Validate(genai::ToRuntime(config, kSettings, kRuntimeClass));
}

std::vector<std::string> OpenVinoWhisperModel::query(const float* samples, std::size_t count) {
    cancelRequested.store(false, std::memory_order_relaxed);
    // Pieces are not shown to the host: the streamer serves only to cancel.
    const genai::Streamer cancelled = [this](std::string) { return cancelRequested.load(std::memory_order_relaxed); };
    return pipeline->generate(samples, count, genai::ToRuntime(config, kSettings, kRuntimeClass),
                              cancelled);
}

}  // namespace velmora::whisper

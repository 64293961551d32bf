#include "openvino_whisper_model.h"

#include <filesystem>

#include "pipeline/device.h"

namespace velmora {

// The device is judged before anything is loaded; the directory is left for
// the runtime to judge, with no properties for any device.
OpenVinoWhisperModel::OpenVinoWhisperModel(std::string modelPath, int32_t deviceType) {
    const std::string device = DeviceName(deviceType);
    const std::filesystem::path directory(modelPath);
    pipeline = std::make_unique<genai::WhisperPipeline>(directory, device, ov::AnyMap{});
    config = pipeline->get_generation_config();
}

std::vector<std::string> OpenVinoWhisperModel::query(const std::vector<float>& samples,
                                                     const genai::WhisperGenerationConfig& settings) {
    cancelRequested.store(false, std::memory_order_relaxed);
    // Pieces are not shown to the host: the streamer serves only to cancel.
    std::function<bool(std::string)> cancelled = [this](std::string) {
        return cancelRequested.load(std::memory_order_relaxed);
    };
    return pipeline->generate(std::vector<float>(samples), settings, cancelled).texts;
}

}  // namespace velmora

// InitModel and QueryModel of the Whisper table.
#include <stdexcept>
#include <string>
#include <vector>

#include "core/buffers.h"
#include "core/init.h"
#include "core/reporting.h"
#include "openvino_whisper_model.h"
#include "whisper_slots.h"

namespace velmora::whisper {

int32_t InitModel(const char* modelPath, DeviceType device, void** outHandle, const HostCallbacks* callbacks) {
    return InitHandle(Family::Whisper, callbacks, "Initializing OpenVINO Whisper model...", outHandle,
                      [&] { return std::make_unique<OpenVinoWhisperModel>(std::string(modelPath), device); });
}

int32_t QueryModel(void* handle, const float* samples, int32_t sampleCount, char** outText) {
    return RunSlot(Family::Whisper, handle, NullHandle("querying model"), [&] {
        auto* model = static_cast<OpenVinoWhisperModel*>(handle);
        Stage([&] { model->validate(); }, {STATUS_FAILED, "Failed to validate config: "}, {STATUS_FAILED, ""});
        // Hosts match this text byte for byte.
        if (sampleCount < 0) throw std::length_error("vector too long");
        const std::vector<std::string> texts = model->query(samples, static_cast<size_t>(sampleCount));
        // A transcription that yields no text at all reads as the empty text.
        *outText = NewText(texts.empty() ? std::string() : texts.front());
        return STATUS_OK;
    });
}

}  // namespace velmora::whisper

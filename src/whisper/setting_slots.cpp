// SetConfigProperty and GetConfigProperty of the Whisper table.
#include <string>

#include "core/buffers.h"
#include "core/reporting.h"
#include "core/setting_text.h"
#include "openvino_whisper_model.h"
#include "whisper_slots.h"

namespace velmora::whisper {

// Nothing is validated here: the next transcription validates what was stored.
int32_t SetConfigProperty(void* handle, const char* name, const char* value) {
    return RunSlot(Family::Whisper, handle, "Model handle is null when setting config property", [&] {
        return SetByName(kSettings, static_cast<OpenVinoWhisperModel*>(handle)->config, name,
                                 value);
    });
}

int32_t GetConfigProperty(void* handle, const char* name, char** outValue) {
    return RunSlot(Family::Whisper, handle, "Model handle is null when getting config property", [&] {
        return GetByName(kSettings, static_cast<const OpenVinoWhisperModel*>(handle)->config,
                                 name, [&](const std::string& text) { *outValue = NewText(text); });
    });
}

}  // namespace velmora::whisper

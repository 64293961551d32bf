// SetConfigProperty and GetConfigProperty of the LLM table.
#include <string>

#include "core/buffers.h"
#include "core/reporting.h"
#include "core/setting_text.h"
#include "llm_slots.h"
#include "openvino_llm_model.h"

namespace velmora::llm {

// Nothing is validated here: the next generation validates what was stored.
int32_t SetConfigProperty(void* handle, const char* name, const char* value) {
    return RunSlot(Family::Llm, handle, "Model handle is null when setting config property", [&] {
        return SetByName(kSettings, static_cast<OpenVinoLlmModel*>(handle)->config, name, value);
    });
}

int32_t GetConfigProperty(void* handle, const char* name, char** outValue) {
    return RunSlot(Family::Llm, handle, "Model handle is null when getting config property", [&] {
        return GetByName(kSettings, static_cast<const OpenVinoLlmModel*>(handle)->config, name,
                         [&](const std::string& text) { *outValue = NewText(text); });
    });
}

}  // namespace velmora::llm

// InitModel and QueryModel of the LLM table.
#include <memory>
#include <string>
#include <vector>

#include "core/buffers.h"
#include "core/init.h"
#include "core/reporting.h"
#include "llm_slots.h"
#include "openvino_llm_model.h"

namespace velmora::llm {

int32_t InitModel(const char* modelPath, DeviceType device, int32_t contextLength, void** outHandle,
                  const HostCallbacks* callbacks) {
    return InitHandle(Family::Llm, callbacks, "Initializing OpenVINO LLM model...", outHandle,
                      [&] { return std::make_unique<OpenVinoLlmModel>(std::string(modelPath), device, contextLength); });
}

int32_t QueryModel(void* handle, const char* prompt, char** outText) {
    return RunSlot(Family::Llm, handle, NullHandle("querying model"), [&] {
        auto* model = static_cast<OpenVinoLlmModel*>(handle);
        Stage([&] { model->validate(); }, {STATUS_CONFIG_ASSERTION, "Failed to validate config: "},
              {STATUS_CONFIG_ERROR, "Failure during config validation: "});
        char* text = Stage(
            [&] {
                const std::vector<std::string> texts = model->query(std::string(prompt));
                // A generation that yields no text at all reads as the empty text.
                return NewText(texts.empty() ? std::string() : texts.front());
            },
            {STATUS_QUERY_ASSERTION, "An OpenVINO assertion occurred while querying the model: "},
            {STATUS_QUERY_ERROR, "An unknown error occurred while querying the model: "});
        *outText = text;
        return STATUS_OK;
    });
}

}  // namespace velmora::llm

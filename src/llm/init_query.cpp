// InitModel, DestroyModel and QueryModel of the LLM table.
#include <memory>
#include <string>
#include <vector>

#include "api/buffers.h"
#include "api/init.h"
#include "api/reporting.h"
#include "llm_slots.h"
#include "openvino_llm_model.h"

namespace velmora::llm {

int32_t InitModel(const char* modelPath, DeviceType device, int32_t contextLength, void** outHandle,
                  const HostCallbacks* callbacks) {
    return InitHandle(Family::Llm, callbacks, "Initializing OpenVINO LLM model...", outHandle,
                      [&] { return std::make_unique<OpenVinoLlmModel>(std::string(modelPath), device, contextLength); });
}

int32_t DestroyModel(void* handle) {
    delete static_cast<OpenVinoLlmModel*>(handle);
    return 0;
}

int32_t QueryModel(void* handle, const char* prompt, char** outText) {
    return RunSlot(Family::Llm, handle, "Model handle is null when querying model", "", [&] {
        auto* model = static_cast<OpenVinoLlmModel*>(handle);
        Stage([&] { model->config.validate(); }, {2, "Failed to validate config: "},
              {3, "Failure during config validation: "});
        char* text = Stage(
            [&] {
                const std::vector<std::string> texts = model->query({std::string(prompt)}, model->config);
                // A generation that yields no text at all reads as the empty text.
                return NewText(texts.empty() ? std::string() : texts.front());
            },
            {4, "An OpenVINO assertion occurred while querying the model: "},
            {5, "An unknown error occurred while querying the model: "});
        *outText = text;
        return 0;
    });
}

}  // namespace velmora::llm

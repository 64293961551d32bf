// Tokenize of the LLM table.
#include <string>
#include <vector>

#include "core/buffers.h"
#include "core/reporting.h"
#include "llm_slots.h"
#include "openvino_llm_model.h"

namespace velmora::llm {

// The array is allocated even for zero ids, so the host always has a pointer to release.
int32_t Tokenize(void* handle, const char* text, int64_t** outIds, size_t* outCount) {
    return RunSlot(Family::Llm, handle, NullHandle("tokenizing"), [&] {
        const std::vector<int64_t> ids = static_cast<OpenVinoLlmModel*>(handle)->tokenize(std::string(text));
        *outIds = NewTokenArray(ids);
        *outCount = ids.size();
        return STATUS_OK;
    });
}

}  // namespace velmora::llm

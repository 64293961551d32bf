// Tokenize of the LLM table.
// Not available in this build yet: each reports that plainly and fails.
#include "api/pending.h"
#include "llm_slots.h"

namespace velmora::llm {
namespace {
int32_t Pending(void* handle, const char* nullMessage, const char* slot) {
    return ReportPending(Family::Llm, handle, nullMessage, slot);
}
}  // namespace

int32_t Tokenize(void* handle, const char*, int64_t**, size_t*) {
    return Pending(handle, "Model handle is null when tokenizing", "Tokenize");
}

}  // namespace velmora::llm

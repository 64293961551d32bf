// StreamModel and CancelModel of the LLM table.
// Not available in this build yet: each reports that plainly and fails.
#include "api/pending.h"
#include "llm_slots.h"

namespace velmora::llm {
namespace {
int32_t Pending(void* handle, const char* nullMessage, const char* slot) {
    return ReportPending(Family::Llm, handle, nullMessage, slot);
}
}  // namespace

int32_t StreamModel(void* handle, char*, TextCallback) {
    return Pending(handle, "Model handle is null when streaming model", "StreamModel");
}
int32_t CancelModel(void* handle) { return Pending(handle, "Model handle is null when canceling", "CancelModel"); }

}  // namespace velmora::llm

// The stop-string and stop-token slots of the LLM table.
// Not available in this build yet: each reports that plainly and fails.
#include "api/pending.h"
#include "llm_slots.h"

namespace velmora::llm {
namespace {
int32_t Pending(void* handle, const char* nullMessage, const char* slot) {
    return ReportPending(Family::Llm, handle, nullMessage, slot);
}
}  // namespace

int32_t SetStopStrings(void* handle, const char**, size_t) {
    return Pending(handle, "Model handle is null when setting stop strings", "SetStopStrings");
}
int32_t GetStopStrings(void* handle, char***, size_t*) {
    return Pending(handle, "Model handle is null when getting stop strings", "GetStopStrings");
}
int32_t SetStopTokens(void* handle, const int64_t*, size_t) {
    return Pending(handle, "Model handle is null when setting stop tokens", "SetStopTokens");
}
int32_t GetStopTokens(void* handle, int64_t**, size_t*) {
    return Pending(handle, "Model handle is null when getting stop tokens", "GetStopTokens");
}

}  // namespace velmora::llm

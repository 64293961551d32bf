// SetConfigProperty and GetConfigProperty of the LLM table.
// Not available in this build yet: each reports that plainly and fails.
#include "api/pending.h"
#include "llm_slots.h"

namespace velmora::llm {
namespace {
int32_t Pending(void* handle, const char* nullMessage, const char* slot) {
    return ReportPending(Family::Llm, handle, nullMessage, slot);
}
}  // namespace

int32_t SetConfigProperty(void* handle, const char*, const char*) {
    return Pending(handle, "Model handle is null when setting config property", "SetConfigProperty");
}
int32_t GetConfigProperty(void* handle, const char*, char**) {
    return Pending(handle, "Model handle is null when getting config property", "GetConfigProperty");
}

}  // namespace velmora::llm

// CompileModel of the LLM table.
// Not available in this build yet: each reports that plainly and fails.
#include "api/pending.h"
#include "llm_slots.h"

namespace velmora::llm {
namespace {
int32_t Pending(void* handle, const char* nullMessage, const char* slot) {
    return ReportPending(Family::Llm, handle, nullMessage, slot);
}
}  // namespace

int32_t CompileModel(const char*, DeviceType, int32_t) { return Pending(nullptr, nullptr, "CompileModel"); }

}  // namespace velmora::llm

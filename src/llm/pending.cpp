// LLM slots that are not available in this build yet: each reports that
// plainly and fails, so a host never mistakes them for working ones.
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
int32_t SetConfigProperty(void* handle, const char*, const char*) {
    return Pending(handle, "Model handle is null when setting config property", "SetConfigProperty");
}
int32_t GetConfigProperty(void* handle, const char*, char**) {
    return Pending(handle, "Model handle is null when getting config property", "GetConfigProperty");
}
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
int32_t Tokenize(void* handle, const char*, int64_t**, size_t*) {
    return Pending(handle, "Model handle is null when tokenizing", "Tokenize");
}
int32_t CancelModel(void* handle) { return Pending(handle, "Model handle is null when canceling", "CancelModel"); }
int32_t CompileModel(const char*, DeviceType, int32_t) { return Pending(nullptr, nullptr, "CompileModel"); }

}  // namespace velmora::llm

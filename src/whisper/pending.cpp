// Whisper slots that are not available in this build yet: each reports that
// plainly and fails, so a host never mistakes them for working ones.
#include "api/pending.h"
#include "whisper_slots.h"

namespace velmora::whisper {
namespace {
int32_t Pending(void* handle, const char* nullMessage, const char* slot) {
    return ReportPending(Family::Whisper, handle, nullMessage, slot);
}
}  // namespace

// Takes the callbacks like every InitModel, so the refusal reaches this host.
int32_t InitModel(const char*, DeviceType, void**, const HostCallbacks* callbacks) {
    if (callbacks == nullptr || callbacks->error == nullptr) return 1;
    StoreCallbacks(Family::Whisper, *callbacks);
    Log(Family::Whisper, "Initializing OpenVINO Whisper model...");
    return Pending(nullptr, nullptr, "Whisper InitModel");
}
// No handle can exist yet, so there is nothing to destroy.
int32_t DestroyModel(void*) { return 0; }
int32_t QueryModel(void* handle, const float*, int32_t, char**) {
    return Pending(handle, "Model handle is null when querying model", "QueryModel");
}
int32_t SetConfigProperty(void* handle, const char*, const char*) {
    return Pending(handle, "Model handle is null when setting config property", "SetConfigProperty");
}
int32_t GetConfigProperty(void* handle, const char*, char**) {
    return Pending(handle, "Model handle is null when getting config property", "GetConfigProperty");
}
int32_t GetLangToId(void* handle, LangIdPair**, size_t*) {
    return Pending(handle, "Model handle is null when getting lang_to_id", "GetLangToId");
}
int32_t SetLangToId(void* handle, const LangIdPair*, size_t) {
    return Pending(handle, "Model handle is null when setting lang_to_id", "SetLangToId");
}
int32_t GetBeginSuppressTokens(void* handle, int64_t**, size_t*) {
    return Pending(handle, "Model handle is null when getting begin_suppress_tokens", "GetBeginSuppressTokens");
}
int32_t SetBeginSuppressTokens(void* handle, const int64_t*, size_t) {
    return Pending(handle, "Model handle is null when setting begin_suppress_tokens", "SetBeginSuppressTokens");
}
int32_t GetSuppressTokens(void* handle, int64_t**, size_t*) {
    return Pending(handle, "Model handle is null when getting suppress_tokens", "GetSuppressTokens");
}
int32_t SetSuppressTokens(void* handle, const int64_t*, size_t) {
    return Pending(handle, "Model handle is null when setting suppress_tokens", "SetSuppressTokens");
}
int32_t CancelModel(void* handle) { return Pending(handle, "Model handle is null when canceling", "CancelModel"); }

}  // namespace velmora::whisper

// Whisper settings by name are not available in this build yet: each slot
// reports that plainly and fails.
#include "api/pending.h"
#include "whisper_slots.h"

namespace velmora::whisper {

int32_t SetConfigProperty(void* handle, const char*, const char*) {
    return ReportPending(Family::Whisper, handle, "Model handle is null when setting config property",
                         "SetConfigProperty");
}
int32_t GetConfigProperty(void* handle, const char*, char**) {
    return ReportPending(Family::Whisper, handle, "Model handle is null when getting config property",
                         "GetConfigProperty");
}

}  // namespace velmora::whisper

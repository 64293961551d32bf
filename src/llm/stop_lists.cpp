// The stop-string and stop-token slots of the LLM table.
#include <memory>
#include <set>
#include <string>

#include "core/buffers.h"
#include "core/reporting.h"
#include "llm_slots.h"
#include "openvino_llm_model.h"

namespace velmora::llm {
namespace {

GenerationConfig& ConfigOf(void* handle) { return static_cast<OpenVinoLlmModel*>(handle)->config; }

// Releases a partly built string array when building it fails.
struct StringArray {
    char** strings;
    size_t count;
    ~StringArray() {
        if (strings != nullptr) FreeStringArray(strings, count);
    }
};

}  // namespace

int32_t SetStopStrings(void* handle, const char** strings, size_t count) {
    return RunSlot(Family::Llm, handle, NullHandle("setting stop strings"), [&] {
        // Built aside, so a failed copy leaves the old list in place.
        std::set<std::string> stops;
        for (size_t i = 0; i < count; ++i) stops.insert(std::string(strings[i]));
        ConfigOf(handle).stop_strings.swap(stops);
        return STATUS_OK;
    });
}

int32_t GetStopStrings(void* handle, char*** outStrings, size_t* outCount) {
    return RunSlot(Family::Llm, handle, NullHandle("getting stop strings"), [&] {
        const std::set<std::string>& stops = ConfigOf(handle).stop_strings;
        if (!stops.empty()) {
            StringArray copy{new char*[stops.size()](), stops.size()};
            size_t i = 0;
            for (const std::string& stop : stops) copy.strings[i++] = NewText(stop);
            *outStrings = copy.strings;
            copy.strings = nullptr;
        }
        *outCount = stops.size();
        return STATUS_OK;
    });
}

int32_t SetStopTokens(void* handle, const int64_t* ids, size_t count) {
    return RunSlot(Family::Llm, handle, NullHandle("setting stop tokens"), [&] {
        std::set<int64_t> stops(ids, ids + count);
        ConfigOf(handle).stop_token_ids.swap(stops);
        return STATUS_OK;
    });
}

int32_t GetStopTokens(void* handle, int64_t** outIds, size_t* outCount) {
    return RunSlot(Family::Llm, handle, NullHandle("getting stop tokens"), [&] {
        const std::set<int64_t>& stops = ConfigOf(handle).stop_token_ids;
        if (!stops.empty()) *outIds = NewTokenArray(stops);
        *outCount = stops.size();
        return STATUS_OK;
    });
}

}  // namespace velmora::llm

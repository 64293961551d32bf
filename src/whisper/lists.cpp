// The language map and the two suppressed-token lists of the Whisper table.
#include <cstring>
#include <type_traits>
#include <vector>

#include "core/buffers.h"
#include "core/reporting.h"
#include "openvino_whisper_model.h"
#include "whisper_slots.h"

namespace velmora::whisper {
namespace {

using TokenList = std::vector<int64_t> GenerationConfig::*;

OpenVinoWhisperModel& ModelOf(void* handle) { return *static_cast<OpenVinoWhisperModel*>(handle); }

int32_t GetTokens(void* handle, TokenList list, const char* nullMessage, int64_t** outIds, size_t* outCount) {
    return RunSlot(Family::Whisper, handle, nullMessage, [&] {
        const std::vector<int64_t>& ids = ModelOf(handle).config.*list;
        if (!ids.empty()) *outIds = NewTokenArray(ids);
        *outCount = ids.size();
        return STATUS_OK;
    });
}

// Hosts keep a setter's count below 2^31; a size_t index stays defined past that.
int32_t SetTokens(void* handle, TokenList list, const char* nullMessage, const int64_t* ids, size_t count) {
    return RunSlot(Family::Whisper, handle, nullMessage, [&] {
        // Built aside, so a failed copy leaves the old list in place.
        std::vector<int64_t> copy;
        for (size_t i = 0; i < count; ++i) copy.push_back(ids[i]);
        (ModelOf(handle).config.*list).swap(copy);
        return STATUS_OK;
    });
}

// Releases a partly built copy of the map when building it fails.
struct PairArray {
    LangIdPair* pairs;
    size_t count;
    ~PairArray() {
        if (pairs == nullptr) return;
        for (size_t i = 0; i < count; ++i) delete[] pairs[i].language;
        delete[] pairs;
    }
};

}  // namespace

int32_t GetLangToId(void* handle, LangIdPair** outPairs, size_t* outCount) {
    return RunSlot(Family::Whisper, handle, NullHandle("getting lang_to_id"), [&] {
        const auto& map = ModelOf(handle).config.lang_to_id;
        if (map.empty()) {
            *outCount = 0;
            return STATUS_OK;
        }
        PairArray copy{nullptr, map.size()};
        Stage(
            [&] {
                copy.pairs = new LangIdPair[map.size()]();
                size_t k = 0;
                for (const auto& [language, id] : map) copy.pairs[k++] = LangIdPair{NewText(language), id};
            },
            {STATUS_FAILED, "An error occurred getting lang_to_id", Reason::Dropped});
        *outPairs = copy.pairs;
        *outCount = map.size();
        copy.pairs = nullptr;
        return STATUS_OK;
    });
}

int32_t SetLangToId(void* handle, const LangIdPair* pairs, size_t count) {
    return RunSlot(Family::Whisper, handle, NullHandle("setting lang_to_id"), [&] {
        auto& map = ModelOf(handle).config.lang_to_id;
        std::remove_reference_t<decltype(map)> copy;
        try {
            // emplace keeps the first id of a repeated key.
            for (size_t i = 0; i < count; ++i) copy.emplace(pairs[i].language, pairs[i].id);
        } catch (const std::exception&) {
            throw SlotFailure(1, "An error occurred setting lang_to_id");
        }
        map.swap(copy);
        return STATUS_OK;
    });
}

int32_t GetBeginSuppressTokens(void* handle, int64_t** outIds, size_t* outCount) {
    return GetTokens(handle, &GenerationConfig::begin_suppress_tokens,
                     NullHandle("getting begin_suppress_tokens").text, outIds, outCount);
}

int32_t SetBeginSuppressTokens(void* handle, const int64_t* ids, size_t count) {
    return SetTokens(handle, &GenerationConfig::begin_suppress_tokens,
                     NullHandle("setting begin_suppress_tokens").text, ids, count);
}

int32_t GetSuppressTokens(void* handle, int64_t** outIds, size_t* outCount) {
    return GetTokens(handle, &GenerationConfig::suppress_tokens,
                     NullHandle("getting suppress_tokens").text, outIds, outCount);
}

int32_t SetSuppressTokens(void* handle, const int64_t* ids, size_t count) {
    return SetTokens(handle, &GenerationConfig::suppress_tokens,
                     NullHandle("setting suppress_tokens").text, ids, count);
}

}  // namespace velmora::whisper

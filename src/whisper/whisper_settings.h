// The Whisper transcription settings: the members the library keeps by value
// and the one table that names them. Every other member of the runtime's
// config stays in its own object (`origin`) and reaches each transcription
// unchanged.
#pragma once

#include <memory>

#include "core/setting.h"

namespace velmora::genai {
class RuntimeObject;
}

namespace velmora::whisper {

struct GenerationConfig {
    std::size_t max_length = SIZE_MAX;
    std::size_t max_new_tokens = SIZE_MAX;
    int64_t decoder_start_token_id = 0;
    int64_t eos_token_id = -1;
    int64_t pad_token_id = 0;
    int64_t translate_token_id = 0;
    int64_t transcribe_token_id = 0;
    int64_t no_timestamps_token_id = 0;
    std::size_t max_initial_timestamp_index = 0;
    bool is_multilingual = true;
    std::optional<std::string> language;
    std::optional<std::string> task;
    bool return_timestamps = false;
    std::map<std::string, int64_t> lang_to_id;
    std::vector<int64_t> begin_suppress_tokens;
    std::vector<int64_t> suppress_tokens;

    std::shared_ptr<genai::RuntimeObject> origin;
};

inline constexpr const char* kRuntimeClass = "WhisperGenerationConfig";

using W = GenerationConfig;
inline constexpr Setting<W> kSettings[] = {
    {"max_length", &W::max_length},
    {"max_new_tokens", &W::max_new_tokens},
    {"decoder_start_token_id", &W::decoder_start_token_id},
    {"eos_token_id", &W::eos_token_id},
    {"pad_token_id", &W::pad_token_id},
    {"translate_token_id", &W::translate_token_id},
    {"transcribe_token_id", &W::transcribe_token_id},
    {"no_timestamps_token_id", &W::no_timestamps_token_id},
    {"max_initial_timestamp_index", &W::max_initial_timestamp_index},
    {"is_multilingual", &W::is_multilingual},
    {"language", &W::language},
    {"task", &W::task},
    {"return_timestamps", &W::return_timestamps},
    {"lang_to_id", &W::lang_to_id, kListSlotOnly},
    {"begin_suppress_tokens", &W::begin_suppress_tokens, kListSlotOnly},
    {"suppress_tokens", &W::suppress_tokens, kListSlotOnly},
};
static_assert(NamesAndMembersAreUnique(kSettings), "each setting has one name and one member");

}  // namespace velmora::whisper

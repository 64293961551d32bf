// The runtime's generation settings as plain C++ values. The members the
// library reads or writes live here by value; every other member stays in the
// runtime's own object (`origin`) and reaches each generation unchanged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace velmora::genai {

class RuntimeObject;  // a reference to an object of the runtime, opaque here

enum class StopCriteria { EARLY = 0, HEURISTIC = 1, NEVER = 2 };

class GenerationConfig {
public:
    std::size_t max_new_tokens = SIZE_MAX;
    std::size_t max_length = SIZE_MAX;
    bool ignore_eos = false;
    std::size_t min_new_tokens = 0;
    std::set<std::string> stop_strings;
    bool include_stop_str_in_output = false;
    std::set<int64_t> stop_token_ids;
    std::size_t no_repeat_ngram_size = SIZE_MAX;
    std::size_t num_beam_groups = 1;
    std::size_t num_beams = 1;
    float diversity_penalty = 0.0f;
    float length_penalty = 1.0f;
    std::size_t num_return_sequences = 1;
    StopCriteria stop_criteria = StopCriteria::HEURISTIC;
    float temperature = 1.0f;
    float top_p = 1.0f;
    std::size_t top_k = SIZE_MAX;
    bool do_sample = false;
    float repetition_penalty = 1.0f;
    float presence_penalty = 0.0f;
    float frequency_penalty = 0.0f;
    std::size_t rng_seed = 0;
    bool apply_chat_template = true;
    int64_t eos_token_id = -1;

    // Throws ov::AssertFailure with the runtime's text when the runtime
    // rejects the combination.
    void validate() const;

    std::shared_ptr<RuntimeObject> origin;
};

class WhisperGenerationConfig {
public:
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

    void validate() const;

    std::shared_ptr<RuntimeObject> origin;
};

}  // namespace velmora::genai

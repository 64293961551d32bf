// The LLM's generation settings: the members the library keeps by value and
// the one table that names them. Every other member of the runtime's config
// stays in its own object (`origin`) and reaches each generation unchanged.
#pragma once

#include <memory>

#include "core/setting.h"

namespace velmora::genai {
class RuntimeObject;
}

namespace velmora::llm {

struct GenerationConfig {
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

    std::shared_ptr<genai::RuntimeObject> origin;
};

inline constexpr const char* kRuntimeClass = "GenerationConfig";

using G = GenerationConfig;
inline constexpr Setting<G> kSettings[] = {
    {"max_new_tokens", &G::max_new_tokens},
    {"max_length", &G::max_length},
    {"ignore_eos", &G::ignore_eos},
    {"min_new_tokens", &G::min_new_tokens},
    {"stop_strings", &G::stop_strings, kListSlotOnly},
    {"include_stop_str_in_output", &G::include_stop_str_in_output},
    {"stop_token_ids", &G::stop_token_ids, kListSlotOnly},
    {"no_repeat_ngram_size", &G::no_repeat_ngram_size},
    {"num_beam_groups", &G::num_beam_groups},
    {"num_beams", &G::num_beams},
    {"diversity_penalty", &G::diversity_penalty},
    {"length_penalty", &G::length_penalty},
    {"num_return_sequences", &G::num_return_sequences},
    {"stop_criteria", &G::stop_criteria},
    {"temperature", &G::temperature},
    {"top_p", &G::top_p},
    {"top_k", &G::top_k},
    {"do_sample", &G::do_sample},
    {"repetition_penalty", &G::repetition_penalty},
    {"presence_penalty", &G::presence_penalty},
    {"frequency_penalty", &G::frequency_penalty},
    {"rng_seed", &G::rng_seed},
    // Set once at load: prompts go to the model as the host wrote them.
    {"apply_chat_template", &G::apply_chat_template, kListSlotOnly},
    {"eos_token_id", &G::eos_token_id},
};
static_assert(NamesAndMembersAreUnique(kSettings), "each setting has one name and one member");

}  // namespace velmora::llm

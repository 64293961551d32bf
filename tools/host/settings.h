// The setting names of each family, for --list-settings: the one table of
// them in this program.
#pragma once

namespace cli {

inline constexpr const char* kLlmSettings[] = {
    "diversity_penalty", "do_sample", "eos_token_id", "frequency_penalty", "ignore_eos",
    "include_stop_str_in_output", "length_penalty", "max_length", "max_new_tokens", "min_new_tokens",
    "no_repeat_ngram_size", "num_beams", "num_beam_groups", "num_return_sequences", "presence_penalty",
    "repetition_penalty", "rng_seed", "stop_criteria", "temperature", "top_k", "top_p",
};

inline constexpr const char* kWhisperSettings[] = {
    "max_length", "max_new_tokens", "decoder_start_token_id", "eos_token_id", "pad_token_id",
    "translate_token_id", "transcribe_token_id", "no_timestamps_token_id", "max_initial_timestamp_index",
    "is_multilingual", "language", "task", "return_timestamps",
};

}  // namespace cli

// Generation settings by name, for any config class. A table row is a name and
// a pointer to the member it reads and writes; the member's type picks the
// conversion, and one row serves both setter and getter so the two cannot
// disagree. Depends only on the plain config structs: no runtime, no host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <variant>

#include "genai/generation_config.h"
#include "value_text.h"

namespace velmora {

template <class Config>
struct ConfigProperty {
    using Member = std::variant<std::size_t Config::*, int64_t Config::*, float Config::*, bool Config::*,
                                genai::StopCriteria Config::*, std::optional<std::string> Config::*>;

    // Integer rows must say which conversion they imitate: it shows in error texts.
    constexpr ConfigProperty(const char* n, std::size_t Config::*m, IntegerParse p) : name(n), member(m), parse(p) {}
    constexpr ConfigProperty(const char* n, int64_t Config::*m, IntegerParse p) : name(n), member(m), parse(p) {}
    template <class T, class = std::enable_if_t<!std::is_integral_v<T> || std::is_same_v<T, bool>>>
    constexpr ConfigProperty(const char* n, T Config::*m) : name(n), member(m), parse(IntegerParse::Stoi) {}

    const char* name;
    Member member;
    IntegerParse parse;
};

template <class Config>
struct PropertyTable {
    template <std::size_t N>
    constexpr PropertyTable(const ConfigProperty<Config> (&r)[N]) : rows(r), size(N) {}
    const ConfigProperty<Config>* begin() const { return rows; }
    const ConfigProperty<Config>* end() const { return rows + size; }

    const ConfigProperty<Config>* rows;
    std::size_t size;
};

namespace property_detail {

inline bool Store(const std::string& text, IntegerParse parse, std::size_t& member) {
    // Widened with its sign, so "-1" is the largest size.
    member = static_cast<std::size_t>(static_cast<int64_t>(ParseInteger(text, parse)));
    return true;
}
inline bool Store(const std::string& text, IntegerParse parse, int64_t& member) {
    member = ParseInteger(text, parse);
    return true;
}
inline bool Store(const std::string& text, IntegerParse, float& member) {
    member = ParseFloat(text);
    return true;
}
inline bool Store(const std::string& text, IntegerParse, bool& member) {
    member = ParseBool(text);
    return true;
}
inline bool Store(const std::string& text, IntegerParse, genai::StopCriteria& member) {
    const std::optional<genai::StopCriteria> value = ParseStopCriteria(text);
    if (!value) return false;
    member = *value;
    return true;
}
inline bool Store(const std::string& text, IntegerParse, std::optional<std::string>& member) {
    member = text;
    return true;
}

inline std::optional<std::string> Read(std::size_t member) { return UnsignedText(member); }
inline std::optional<std::string> Read(int64_t member) { return SignedText(member); }
inline std::optional<std::string> Read(float member) { return FloatText(member); }
inline std::optional<std::string> Read(bool member) { return BoolText(member); }
inline std::optional<std::string> Read(genai::StopCriteria member) { return StopCriteriaText(member); }
inline std::optional<std::string> Read(const std::optional<std::string>& member) { return member; }

}  // namespace property_detail

// The row of exactly this name (bytes and length; nothing trimmed), or null.
template <class Config>
const ConfigProperty<Config>* FindProperty(PropertyTable<Config> table, const std::string& name) {
    for (const ConfigProperty<Config>& row : table)
        if (name == row.name) return &row;
    return nullptr;
}

// Converts `text` for the row's member and stores it only once that worked.
// False, with nothing stored, for a text the member has no value for (an
// unknown stop criterion); a failed conversion throws its standard exception.
template <class Config>
bool StoreProperty(const ConfigProperty<Config>& row, Config& config, const std::string& text) {
    return std::visit([&](auto member) { return property_detail::Store(text, row.parse, config.*member); },
                      row.member);
}

enum class ReadOutcome { Text, Absent, Unnamed };

// The member's text form. Absent: an optional without a value. Unnamed: a
// stop criterion outside the enumeration. `text` is written only for Text.
template <class Config>
ReadOutcome ReadProperty(const ConfigProperty<Config>& row, const Config& config, std::string& text) {
    const bool isOptional = std::holds_alternative<std::optional<std::string> Config::*>(row.member);
    std::optional<std::string> value =
        std::visit([&](auto member) { return property_detail::Read(config.*member); }, row.member);
    if (!value) return isOptional ? ReadOutcome::Absent : ReadOutcome::Unnamed;
    text = std::move(*value);
    return ReadOutcome::Text;
}

// The body of a SetConfigProperty slot: 0 when stored, 1 for a text refused
// without a message. Every other failure throws std::runtime_error whose
// what() is the whole message for the host.
template <class Config>
int32_t SetPropertyByName(PropertyTable<Config> table, Config& config, const char* name, const char* value) {
    const std::string nameText(name);
    const std::string valueText(value);
    const ConfigProperty<Config>* row = FindProperty(table, nameText);
    if (row == nullptr)
        throw std::runtime_error("An error occurred setting property " + nameText + ". Property name not supported.");
    try {
        return StoreProperty(*row, config, valueText) ? 0 : 1;
    } catch (const std::exception& e) {
        throw std::runtime_error("An error occurred setting property " + nameText + " with value " + valueText +
                                 ": " + e.what());
    }
}

// The body of a GetConfigProperty slot: hands the text to `deliver` as the
// last step and returns 0, or returns 1 without a message for a stop criterion
// that has no name. Every other failure throws as SetPropertyByName does.
template <class Config, class Deliver>
int32_t GetPropertyByName(PropertyTable<Config> table, const Config& config, const char* name, Deliver&& deliver) {
    const std::string nameText(name);
    const ConfigProperty<Config>* row = FindProperty(table, nameText);
    ReadOutcome outcome = ReadOutcome::Absent;
    if (row != nullptr) {
        try {
            std::string text;
            outcome = ReadProperty(*row, config, text);
            if (outcome == ReadOutcome::Text) {
                deliver(text);
                return 0;
            }
        } catch (const std::exception& e) {
            throw std::runtime_error("An error occurred getting property " + nameText + ": " + e.what());
        }
    }
    if (outcome == ReadOutcome::Unnamed) return 1;
    throw std::runtime_error("An error occurred getting property " + nameText + ". Property name not supported.");
}

// The LLM settings, in the order names are compared.
inline PropertyTable<genai::GenerationConfig> LlmPropertyTable() {
    using G = genai::GenerationConfig;
    constexpr IntegerParse stoi = IntegerParse::Stoi, stol = IntegerParse::Stol;
    static constexpr ConfigProperty<G> rows[] = {
        {"diversity_penalty", &G::diversity_penalty},
        {"do_sample", &G::do_sample},
        {"eos_token_id", &G::eos_token_id, stol},
        {"frequency_penalty", &G::frequency_penalty},
        {"ignore_eos", &G::ignore_eos},
        {"include_stop_str_in_output", &G::include_stop_str_in_output},
        {"length_penalty", &G::length_penalty},
        {"max_length", &G::max_length, stoi},
        {"max_new_tokens", &G::max_new_tokens, stoi},
        {"min_new_tokens", &G::min_new_tokens, stoi},
        {"no_repeat_ngram_size", &G::no_repeat_ngram_size, stoi},
        {"num_beams", &G::num_beams, stoi},
        {"num_beam_groups", &G::num_beam_groups, stoi},
        {"num_return_sequences", &G::num_return_sequences, stoi},
        {"presence_penalty", &G::presence_penalty},
        {"repetition_penalty", &G::repetition_penalty},
        {"rng_seed", &G::rng_seed, stoi},
        {"stop_criteria", &G::stop_criteria},
        {"temperature", &G::temperature},
        {"top_k", &G::top_k, stoi},
        {"top_p", &G::top_p},
    };
    return rows;
}

// The Whisper settings, in the order names are compared.
inline PropertyTable<genai::WhisperGenerationConfig> WhisperPropertyTable() {
    using W = genai::WhisperGenerationConfig;
    constexpr IntegerParse stoi = IntegerParse::Stoi, stol = IntegerParse::Stol;
    static constexpr ConfigProperty<W> rows[] = {
        {"max_length", &W::max_length, stoi},
        {"max_new_tokens", &W::max_new_tokens, stoi},
        {"decoder_start_token_id", &W::decoder_start_token_id, stol},
        {"eos_token_id", &W::eos_token_id, stol},
        {"pad_token_id", &W::pad_token_id, stol},
        {"translate_token_id", &W::translate_token_id, stol},
        {"transcribe_token_id", &W::transcribe_token_id, stol},
        {"no_timestamps_token_id", &W::no_timestamps_token_id, stol},
        {"max_initial_timestamp_index", &W::max_initial_timestamp_index, stoi},
        {"is_multilingual", &W::is_multilingual},
        {"language", &W::language},
        {"task", &W::task},
        {"return_timestamps", &W::return_timestamps},
    };
    return rows;
}

}  // namespace velmora

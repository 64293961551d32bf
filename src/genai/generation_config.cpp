// Moves the mirrored members between the C++ values and the runtime's object.
#include "config_mirror.h"

#include <pybind11/stl.h>

#include <variant>

namespace velmora::genai {
namespace {

template <class Config>
using Field = std::variant<std::size_t Config::*, int64_t Config::*, float Config::*, bool Config::*,
                           StopCriteria Config::*, std::optional<std::string> Config::*,
                           std::set<std::string> Config::*, std::set<int64_t> Config::*,
                           std::map<std::string, int64_t> Config::*, std::vector<int64_t> Config::*>;

template <class Config>
struct Mirrored {
    const char* name;
    Field<Config> field;
};

using G = GenerationConfig;
const Mirrored<G> llmMembers[] = {
    {"max_new_tokens", &G::max_new_tokens},
    {"max_length", &G::max_length},
    {"ignore_eos", &G::ignore_eos},
    {"min_new_tokens", &G::min_new_tokens},
    {"stop_strings", &G::stop_strings},
    {"include_stop_str_in_output", &G::include_stop_str_in_output},
    {"stop_token_ids", &G::stop_token_ids},
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
    {"apply_chat_template", &G::apply_chat_template},
    {"eos_token_id", &G::eos_token_id},
};

using W = WhisperGenerationConfig;
const Mirrored<W> whisperMembers[] = {
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
    {"lang_to_id", &W::lang_to_id},
    {"begin_suppress_tokens", &W::begin_suppress_tokens},
    {"suppress_tokens", &W::suppress_tokens},
};

template <class T>
void FromPython(const py::handle& value, T& member) {
    member = value.cast<T>();
}

void FromPython(const py::handle& value, float& member) {
    member = static_cast<float>(value.cast<double>());  // the runtime stores a float: exact
}

void FromPython(const py::handle& value, StopCriteria& member) {
    member = static_cast<StopCriteria>(value.attr("value").cast<int>());
}

template <class T>
py::object ToPython(const T& member) {
    return py::cast(member);
}

py::object ToPython(const float& member) { return py::float_(static_cast<double>(member)); }

py::object ToPython(const StopCriteria& member) {
    return GenaiModule().attr("StopCriteria")(static_cast<int>(member));
}

// The runtime takes sets, not the lists pybind11 makes of std::set.
py::object ToPython(const std::set<std::string>& member) {
    py::set values;
    for (const std::string& value : member) values.add(py::str(value));
    return std::move(values);
}

py::object ToPython(const std::set<int64_t>& member) {
    py::set values;
    for (int64_t value : member) values.add(py::int_(value));
    return std::move(values);
}

template <class Config, std::size_t N>
void Pull(const py::object& object, Config& config, const Mirrored<Config> (&members)[N]) {
    for (const Mirrored<Config>& m : members)
        std::visit([&](auto field) { FromPython(object.attr(m.name), config.*field); }, m.field);
}

template <class Config, std::size_t N>
void Push(const Config& config, const py::object& object, const Mirrored<Config> (&members)[N]) {
    for (const Mirrored<Config>& m : members)
        std::visit([&](auto field) { object.attr(m.name) = ToPython(config.*field); }, m.field);
}

// The object the runtime sees: the model's own settings with the mirrored
// members written over them, or fresh defaults for a config never loaded.
template <class Config, std::size_t N>
py::object Materialize(const Config& config, const char* className, const Mirrored<Config> (&members)[N]) {
    py::object object = config.origin ? config.origin->get() : GenaiModule().attr(className)();
    Push(config, object, members);
    return object;
}

}  // namespace

GenerationConfig FromRuntime(py::object object, GenerationConfig*) {
    GenerationConfig config;
    Pull(object, config, llmMembers);
    config.origin = std::make_shared<RuntimeObject>(std::move(object));
    return config;
}

WhisperGenerationConfig FromRuntime(py::object object, WhisperGenerationConfig*) {
    WhisperGenerationConfig config;
    Pull(object, config, whisperMembers);
    config.origin = std::make_shared<RuntimeObject>(std::move(object));
    return config;
}

py::object ToRuntime(const GenerationConfig& config) { return Materialize(config, "GenerationConfig", llmMembers); }

py::object ToRuntime(const WhisperGenerationConfig& config) {
    return Materialize(config, "WhisperGenerationConfig", whisperMembers);
}

void GenerationConfig::validate() const {
    WithRuntime([&] { ToRuntime(*this).attr("validate")(); });
}

void WhisperGenerationConfig::validate() const {
    WithRuntime([&] { ToRuntime(*this).attr("validate")(); });
}

}  // namespace velmora::genai

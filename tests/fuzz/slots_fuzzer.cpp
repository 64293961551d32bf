// libFuzzer target, one per family (VELMORA_FUZZ_WHISPER): the settings and
// list slots fed arbitrary bytes on a handle without a pipeline, which they
// never touch. Checks statuses, one message per failure, out-parameters
// written only on success, that a setter changes only its own member to what
// the standard conversions make of the text, that a getter prints the standard
// text of the value held, that lists read back as set, and
// (ASan) that every buffer goes back through the release functions.
#include <fuzzer/FuzzedDataProvider.h>
#include <strings.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "core/buffers.h"
#include "core/reporting.h"
#include "core/setting_text.h"

#ifdef VELMORA_FUZZ_WHISPER
#include "whisper/openvino_whisper_model.h"
#include "whisper/whisper_slots.h"
namespace velmora::whisper {
OpenVinoWhisperModel::OpenVinoWhisperModel(std::string, int32_t) {}
}  // namespace velmora::whisper
namespace family = velmora::whisper;
using Model = family::OpenVinoWhisperModel;
constexpr velmora::Family kFamily = velmora::Family::Whisper;
Model* NewModel() { return new Model("", 0); }
#else
#include "llm/llm_slots.h"
#include "llm/openvino_llm_model.h"
namespace velmora::llm {
OpenVinoLlmModel::OpenVinoLlmModel(std::string, int32_t, int32_t) {}
}  // namespace velmora::llm
namespace family = velmora::llm;
using Model = family::OpenVinoLlmModel;
constexpr velmora::Family kFamily = velmora::Family::Llm;
Model* NewModel() { return new Model("", 0, 0); }
#endif

namespace {

using Config = family::GenerationConfig;
using Row = velmora::Setting<Config>;
using velmora::SettingKind;

[[noreturn]] void Broken(const char* condition, int line) {
    std::fprintf(stderr, "invariant broken at line %d: %s\n", line, condition);
    std::abort();
}
#define CHECK(c) ((c) ? (void)0 : Broken(#c, __LINE__))

std::vector<std::string> messages;
void Capture(const char* message) { messages.emplace_back(message); }

// The one message a call reported, "" after a success (which must be silent).
std::string Outcome(int32_t status) {
    CHECK(messages.size() <= (status == 0 ? 0u : 1u));
    std::string message = messages.empty() ? "" : messages.front();
    messages.clear();
    return message;
}

// What a getter's out-parameter holds until the getter writes it.
template <class T>
T* Untouched() {
    return reinterpret_cast<T*>(0x1);
}

// Host strings end at their first NUL.
std::string HostString(const std::string& bytes) { return std::string(bytes.c_str()); }

bool SameFloat(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }
bool SameMember(const Row& row, const Config& a, const Config& b) {
    return std::visit(
        [&](auto member) {
            if constexpr (std::is_same_v<decltype(member), float Config::*>)
                return SameFloat(a.*member, b.*member);
            else
                return a.*member == b.*member;
        },
        row.member);
}

// Every member but `changed` (by name; null for none) kept its value.
void OnlyChanged(const Config& before, const Config& after, const char* changed) {
    for (const Row& row : family::kSettings)
        if (changed == nullptr || std::strcmp(row.name, changed) != 0) CHECK(SameMember(row, before, after));
}

// The reference: the standard conversion a row's text goes through (int has
// 32 bits here, so stoi applies the library's rules to sizes and ids alike).
template <class Convert>
std::string Refusal(const char* conversion, Convert&& convert) {
    try {
        convert();
        return "";
    } catch (const std::invalid_argument&) {
        return std::string("invalid ") + conversion + " argument";
    } catch (const std::out_of_range&) {
        return std::string(conversion) + " argument out of range";
    }
}

std::string ReferenceRefusal(const Row& row, const std::string& value) {
    switch (row.kind()) {
        case SettingKind::Size: return Refusal("stoi", [&] { std::stoi(value); });
        case SettingKind::Integer: return Refusal("stol", [&] { std::stoi(value); });
        case SettingKind::Float: return Refusal("stof", [&] { std::stof(value); });
        default: return "";
    }
}

bool HoldsConvertedValue(const Row& row, const Config& config, const std::string& value) {
    return std::visit(
        [&](auto member) {
            const auto& held = config.*member;
            using T = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<T, std::size_t>)
                return held == static_cast<std::size_t>(static_cast<int64_t>(std::stoi(value)));
            else if constexpr (std::is_same_v<T, int64_t>)
                return held == std::stoi(value);
            else if constexpr (std::is_same_v<T, float>)
                return SameFloat(held, std::stof(value)) || (std::isnan(held) && std::isnan(std::stof(value)));
            else if constexpr (std::is_same_v<T, bool>)
                return held == (strcasecmp(value.c_str(), "true") == 0);
            else if constexpr (std::is_same_v<T, velmora::StopCriteria>)
                return velmora::StopCriteriaText(held) == value;
            else if constexpr (std::is_same_v<T, std::optional<std::string>>)
                return held == value;
            else
                return false;  // lists have no row reachable by name
        },
        row.member);
}

// What the getter must print: the standard library's text of the value held
// (floats as "%f" of their double, sizes above 32 bits in full).
std::string ReferenceText(const Row& row, const Config& config) {
    return std::visit(
        [&](auto member) -> std::string {
            const auto& held = config.*member;
            using T = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<T, bool>)
                return held ? "true" : "false";
            else if constexpr (std::is_same_v<T, float>)
                return std::to_string(static_cast<double>(held));
            else if constexpr (std::is_arithmetic_v<T>)
                return std::to_string(held);
            else if constexpr (std::is_same_v<T, velmora::StopCriteria>)
                return velmora::StopCriteriaText(held).value_or("");
            else if constexpr (std::is_same_v<T, std::optional<std::string>>)
                return held.value_or("<unset>");
            else
                return "<a list>";
        },
        row.member);
}

// GetConfigProperty's status, with the text read (released) or the message.
int32_t Get(Model& model, const std::string& name, std::string& text) {
    char* out = Untouched<char>();
    const int32_t status = family::GetConfigProperty(&model, name.c_str(), &out);
    text = Outcome(status);
    if (status != 0) {
        CHECK(out == Untouched<char>());
        return status;
    }
    CHECK(out != nullptr);
    text = out;
    velmora::FreeString(out);
    return status;
}

void SetAndGet(Model& model, const std::string& name, const std::string& value) {
    const Config before = model.config;
    const Row* row = velmora::FindSetting(family::kSettings, name);
    const int32_t status = family::SetConfigProperty(&model, name.c_str(), value.c_str());
    const std::string message = Outcome(status);
    CHECK(status == 0 || status == 1);
    const std::string unknown = ". Property name not supported.";
    if (row == nullptr) {
        CHECK(message == "An error occurred setting property " + name + unknown);
    } else if (status == 1 && message.empty()) {
        // Only a refused stop criterion fails without a word.
        CHECK(row->kind() == SettingKind::StopCriteria && !velmora::ParseStopCriteria(value));
    } else {
        const std::string reason = ReferenceRefusal(*row, value);
        CHECK(status == (reason.empty() ? 0 : 1));
        if (status == 1) CHECK(message == "An error occurred setting property " + name + " with value " + value + ": " + reason);
    }
    OnlyChanged(before, model.config, status == 0 ? row->name : nullptr);
    if (status == 0) CHECK(HoldsConvertedValue(*row, model.config, value));

    std::string text;
    const int32_t got = Get(model, name, text);
    if (row == nullptr)
        CHECK(got == 1 && text == "An error occurred getting property " + name + unknown);
    else if (got == 0)
        CHECK(text == ReferenceText(*row, model.config));
    else  // a criterion stored outside the enumeration has no name and no message
        CHECK(got == 1 && text.empty() && row->kind() == SettingKind::StopCriteria);
}

// Reads a list, checking the count and each element; an empty list leaves the array untouched.
template <class T, class Getter, class Check, class Release>
void ReadBack(Model& model, Getter get, size_t expected, Check check, Release release) {
    T* out = Untouched<T>();
    size_t count = 99;
    CHECK(get(&model, &out, &count) == 0);
    Outcome(0);
    CHECK(count == expected);
    if (count == 0) return CHECK(out == Untouched<T>());
    for (size_t i = 0; i < count; ++i) check(out[i], i);
    release(out, count);
}

// Calls a setter, which must succeed silently and change its own member only.
template <class Set>
void Replace(Model& model, const char* member, Set set) {
    const Config before = model.config;
    CHECK(set() == 0);
    Outcome(0);
    OnlyChanged(before, model.config, member);
}

// Ids from the input, often small so that duplicates show; `sorted`: the list is a set.
template <class Setter, class Getter>
void IdList(Model& model, FuzzedDataProvider& input, const char* member, Setter set, Getter get, bool sorted) {
    std::vector<int64_t> given(input.ConsumeIntegralInRange<size_t>(0, 16));
    for (int64_t& id : given)
        id = input.ConsumeBool() ? input.ConsumeIntegralInRange<int64_t>(0, 3) : input.ConsumeIntegral<int64_t>();
    Replace(model, member, [&] { return set(&model, given.empty() ? nullptr : given.data(), given.size()); });
    std::vector<int64_t> wanted = given;
    if (sorted) {
        const std::set<int64_t> unique(given.begin(), given.end());
        wanted.assign(unique.begin(), unique.end());
    }
    ReadBack<int64_t>(model, get, wanted.size(), [&](int64_t id, size_t i) { CHECK(id == wanted[i]); },
                      [](int64_t* ids, size_t) { velmora::FreeBuffer(ids); });
}

// Texts drawn from the input; the host's strings end at their first NUL.
std::vector<std::string> Texts(FuzzedDataProvider& input, size_t most, size_t length) {
    std::vector<std::string> texts(input.ConsumeIntegralInRange<size_t>(0, most));
    for (std::string& text : texts) text = input.ConsumeRandomLengthString(length);
    return texts;
}

#ifdef VELMORA_FUZZ_WHISPER
void Lists(Model& model, FuzzedDataProvider& input) {
    switch (input.ConsumeIntegralInRange<int>(0, 2)) {
        case 0: {
            // The language map keeps the first id of a repeated key, in key order.
            std::vector<std::string> keys = Texts(input, 8, 24);
            std::vector<LangIdPair> pairs;
            std::map<std::string, int64_t> map;
            for (std::string& key : keys) {
                pairs.push_back(LangIdPair{key.data(), input.ConsumeIntegral<int64_t>()});
                map.emplace(HostString(key), pairs.back().id);
            }
            Replace(model, "lang_to_id",
                    [&] { return family::SetLangToId(&model, pairs.empty() ? nullptr : pairs.data(), pairs.size()); });
            const std::vector<std::pair<std::string, int64_t>> wanted(map.begin(), map.end());
            ReadBack<LangIdPair>(
                model, family::GetLangToId, wanted.size(),
                [&](const LangIdPair& pair, size_t i) {
                    CHECK(pair.language == wanted[i].first && pair.id == wanted[i].second);
                    velmora::FreeString(pair.language);
                },
                [](LangIdPair* out, size_t) { velmora::FreeBuffer(out); });
            break;
        }
        case 1:
            IdList(model, input, "suppress_tokens", family::SetSuppressTokens, family::GetSuppressTokens, false);
            break;
        default:
            IdList(model, input, "begin_suppress_tokens", family::SetBeginSuppressTokens,
                   family::GetBeginSuppressTokens, false);
            break;
    }
}
#else
void Lists(Model& model, FuzzedDataProvider& input) {
    switch (input.ConsumeIntegralInRange<int>(0, 2)) {
        case 0: {
            // Stop strings are a set in byte order.
            const std::vector<std::string> given = Texts(input, 8, 64);
            std::vector<const char*> pointers;
            std::set<std::string> set;
            for (const std::string& s : given) {
                pointers.push_back(s.c_str());
                set.insert(HostString(s));
            }
            Replace(model, "stop_strings", [&] {
                return family::SetStopStrings(&model, given.empty() ? nullptr : pointers.data(), given.size());
            });
            const std::vector<std::string> wanted(set.begin(), set.end());
            ReadBack<char*>(
                model, family::GetStopStrings, wanted.size(), [&](char* s, size_t i) { CHECK(s == wanted[i]); },
                [](char** strings, size_t count) { velmora::FreeStringArray(strings, count); });
            break;
        }
        case 1:
            IdList(model, input, "stop_token_ids", family::SetStopTokens, family::GetStopTokens, true);
            break;
        default:
            // A criterion outside the enumeration, as a runtime could hand over.
            model.config.stop_criteria = static_cast<velmora::StopCriteria>(input.ConsumeIntegralInRange<int>(0, 7));
            break;
    }
}
#endif

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    velmora::StoreCallbacks(kFamily, HostCallbacks{nullptr, Capture});
    messages.clear();
    Model* model = NewModel();
    constexpr size_t rows = std::size(family::kSettings);
    while (input.remaining_bytes() > 0) {
        if (input.ConsumeBool()) {
            Lists(*model, input);
            continue;
        }
        // A name from the table or arbitrary bytes, and an arbitrary value.
        const std::string name = input.ConsumeBool()
                                     ? family::kSettings[input.ConsumeIntegralInRange<size_t>(0, rows - 1)].name
                                     : HostString(input.ConsumeRandomLengthString(32));
        SetAndGet(*model, name, HostString(input.ConsumeRandomLengthString(48)));
    }
    delete model;
    return 0;
}

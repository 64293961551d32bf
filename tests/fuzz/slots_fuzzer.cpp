// libFuzzer target, built once per family (VELMORA_FUZZ_WHISPER picks the
// Whisper one): the settings and list slots as linked into the library, fed a
// sequence of calls with arbitrary bytes on one handle that has no pipeline
// (these slots never touch it). Checks statuses, the one-message rule, that
// out-parameters are written only on success, that a setter changes its own
// member only and stores what the standard conversions make of the text, that
// getters give back what setters stored, and (through ASan) that every buffer
// goes back through the release functions.
#include <fuzzer/FuzzedDataProvider.h>
#include <strings.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "core/buffers.h"
#include "core/reporting.h"
#include "core/setting_text.h"

#ifdef VELMORA_FUZZ_WHISPER
#include "whisper/openvino_whisper_model.h"
#include "whisper/whisper_slots.h"
namespace velmora {
OpenVinoWhisperModel::OpenVinoWhisperModel(std::string, int32_t) {}
}  // namespace velmora
namespace family = velmora::whisper;
using Model = velmora::OpenVinoWhisperModel;
constexpr velmora::Family kFamily = velmora::Family::Whisper;
Model* NewModel() { return new Model("", 0); }
#else
#include "llm/llm_slots.h"
#include "llm/openvino_llm_model.h"
namespace velmora {
OpenVinoLlmModel::OpenVinoLlmModel(std::string, int32_t, int32_t) {}
}  // namespace velmora
namespace family = velmora::llm;
using Model = velmora::OpenVinoLlmModel;
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

// The one message a call reported (at most one), or "" after a success (which
// must be silent).
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

// What the standard conversions make of `value` for the row's member type.
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
    } else if (status == 1) {
        CHECK(message.rfind("An error occurred setting property " + name + " with value " + value + ": ", 0) == 0);
    }
    OnlyChanged(before, model.config, status == 0 ? row->name : nullptr);
    if (status == 0) CHECK(HoldsConvertedValue(*row, model.config, value));

    std::string text;
    const int32_t got = Get(model, name, text);
    if (row == nullptr) {
        CHECK(got == 1 && text == "An error occurred getting property " + name + unknown);
        return;
    }
    if (got != 0) {
        // A criterion stored outside the enumeration has no name and no message.
        CHECK(got == 1 && text.empty() && row->kind() == SettingKind::StopCriteria);
        return;
    }
    if (status != 0) return;
    // The text read back sets the same value again (floats: the same text).
    // Sizes are shown unsigned but set through stoi, so a size above INT32_MAX
    // (a wrapped negative text) is shown as a text the setter refuses.
    const Config set = model.config;
    const int32_t again = family::SetConfigProperty(&model, name.c_str(), text.c_str());
    const std::string refusal = Outcome(again);
    const auto* size = std::get_if<std::size_t Config::*>(&row->member);
    if (size != nullptr && set.**size > static_cast<std::size_t>(INT32_MAX)) {
        CHECK(refusal == "An error occurred setting property " + name + " with value " + text +
                             ": stoi argument out of range");
        OnlyChanged(set, model.config, nullptr);
        return;
    }
    CHECK(again == 0);
    std::string textAgain;
    CHECK(Get(model, name, textAgain) == 0 && textAgain == text);
    if (row->kind() != SettingKind::Float) OnlyChanged(set, model.config, nullptr);
}

// Sets ids drawn from the input through `set` and reads them back through
// `get`: `expected` says what the list makes of them (a sorted set or the
// same order with duplicates).
template <class Setter, class Getter, class Expected>
void IdList(Model& model, FuzzedDataProvider& input, const char* member, Setter set, Getter get, Expected expected) {
    std::vector<int64_t> given(input.ConsumeIntegralInRange<size_t>(0, 16));
    // Small ids repeat often, so duplicates are kept in view.
    for (int64_t& id : given)
        id = input.ConsumeBool() ? input.ConsumeIntegralInRange<int64_t>(0, 3) : input.ConsumeIntegral<int64_t>();
    const Config before = model.config;
    CHECK(set(&model, given.empty() ? nullptr : given.data(), given.size()) == 0);
    Outcome(0);
    OnlyChanged(before, model.config, member);
    const std::vector<int64_t> wanted = expected(given);

    int64_t* ids = Untouched<int64_t>();
    size_t count = 99;
    CHECK(get(&model, &ids, &count) == 0);
    Outcome(0);
    CHECK(count == wanted.size());
    if (count == 0) {
        CHECK(ids == Untouched<int64_t>());
        return;
    }
    CHECK(std::vector<int64_t>(ids, ids + count) == wanted);
    velmora::FreeBuffer(ids);
}

std::vector<int64_t> AsGiven(const std::vector<int64_t>& ids) { return ids; }

#ifdef VELMORA_FUZZ_WHISPER
// The language map keeps the first id of a repeated key, in key order.
void LangToId(Model& model, FuzzedDataProvider& input) {
    std::vector<std::string> keys(input.ConsumeIntegralInRange<size_t>(0, 8));
    std::vector<LangIdPair> pairs;
    for (std::string& key : keys) key = input.ConsumeRandomLengthString(24);
    for (std::string& key : keys) pairs.push_back(LangIdPair{key.data(), input.ConsumeIntegral<int64_t>()});
    const Config before = model.config;
    CHECK(family::SetLangToId(&model, pairs.empty() ? nullptr : pairs.data(), pairs.size()) == 0);
    Outcome(0);
    OnlyChanged(before, model.config, "lang_to_id");
    std::map<std::string, int64_t> expected;
    for (const LangIdPair& pair : pairs) expected.emplace(pair.language, pair.id);

    LangIdPair* out = Untouched<LangIdPair>();
    size_t count = 99;
    CHECK(family::GetLangToId(&model, &out, &count) == 0);
    Outcome(0);
    CHECK(count == expected.size());
    if (count == 0) {
        CHECK(out == Untouched<LangIdPair>());
        return;
    }
    size_t k = 0;
    for (const auto& [key, id] : expected) {
        CHECK(std::strcmp(out[k].language, key.c_str()) == 0 && out[k].id == id);
        velmora::FreeString(out[k++].language);
    }
    velmora::FreeBuffer(out);
}

void Lists(Model& model, FuzzedDataProvider& input) {
    switch (input.ConsumeIntegralInRange<int>(0, 2)) {
        case 0:
            LangToId(model, input);
            break;
        case 1:
            IdList(model, input, "suppress_tokens", family::SetSuppressTokens, family::GetSuppressTokens, AsGiven);
            break;
        default:
            IdList(model, input, "begin_suppress_tokens", family::SetBeginSuppressTokens,
                   family::GetBeginSuppressTokens, AsGiven);
            break;
    }
}
#else
std::vector<int64_t> Sorted(const std::vector<int64_t>& ids) {
    const std::set<int64_t> unique(ids.begin(), ids.end());
    return std::vector<int64_t>(unique.begin(), unique.end());
}

// Stop strings are a set in byte order, each cut at the host's NUL.
void StopStrings(Model& model, FuzzedDataProvider& input) {
    std::vector<std::string> given(input.ConsumeIntegralInRange<size_t>(0, 8));
    for (std::string& s : given) s = input.ConsumeRandomLengthString(64);
    std::vector<const char*> pointers;
    for (const std::string& s : given) pointers.push_back(s.c_str());
    const Config before = model.config;
    CHECK(family::SetStopStrings(&model, given.empty() ? nullptr : pointers.data(), given.size()) == 0);
    Outcome(0);
    OnlyChanged(before, model.config, "stop_strings");
    std::set<std::string> expected;
    for (const std::string& s : given) expected.insert(HostString(s));

    char** strings = Untouched<char*>();
    size_t count = 99;
    CHECK(family::GetStopStrings(&model, &strings, &count) == 0);
    Outcome(0);
    CHECK(count == expected.size());
    if (count == 0) {
        CHECK(strings == Untouched<char*>());
        return;
    }
    size_t i = 0;
    for (const std::string& s : expected) CHECK(std::strcmp(strings[i++], s.c_str()) == 0);
    velmora::FreeStringArray(strings, count);
}

void Lists(Model& model, FuzzedDataProvider& input) {
    switch (input.ConsumeIntegralInRange<int>(0, 2)) {
        case 0:
            StopStrings(model, input);
            break;
        case 1:
            IdList(model, input, "stop_token_ids", family::SetStopTokens, family::GetStopTokens, Sorted);
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

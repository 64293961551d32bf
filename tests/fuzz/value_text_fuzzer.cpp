// libFuzzer target: the text conversions, and settings by name on plain config
// objects of both families (no runtime involved). Run through scripts/fuzz.sh.
//
// Input: byte 0 chooses the family, whether the name comes from the table,
// and whether stop_criteria starts out holding a raw value; the rest is
// "name\0value" (or only the value, for a name from the table).
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <type_traits>

#include <strings.h>

#include "pipeline/config_properties.h"

namespace {

using velmora::ConfigProperty;
using velmora::PropertyTable;
using velmora::genai::GenerationConfig;
using velmora::genai::StopCriteria;
using velmora::genai::WhisperGenerationConfig;

[[noreturn]] void Broken(const char* condition, int line) {
    std::fprintf(stderr, "invariant broken at line %d: %s\n", line, condition);
    std::abort();
}
#define CHECK(c) ((c) ? (void)0 : Broken(#c, __LINE__))

enum class Outcome { Value, Invalid, Range };

template <class Convert>
Outcome Classify(Convert&& convert, std::string* message = nullptr) {
    try {
        convert();
        return Outcome::Value;
    } catch (const std::invalid_argument& e) {
        if (message) *message = e.what();
        return Outcome::Invalid;
    } catch (const std::out_of_range& e) {
        if (message) *message = e.what();
        return Outcome::Range;
    }
}

bool SameFloat(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// On this platform int has 32 bits, so the standard stoi and stof apply the
// same rules as the library's conversions: a reference to compare against.
void CheckConversions(const std::string& text) {
    int32_t ours = 0;
    int reference = 0;
    std::string message;
    const Outcome stoi = Classify([&] { ours = velmora::ParseInteger(text, velmora::IntegerParse::Stoi); }, &message);
    CHECK(stoi == Classify([&] { reference = std::stoi(text); }));
    if (stoi == Outcome::Value) {
        CHECK(ours == reference);
        CHECK(velmora::ParseInteger(velmora::SignedText(ours), velmora::IntegerParse::Stol) == ours);
    }
    if (stoi == Outcome::Invalid) CHECK(message == "invalid stoi argument");
    if (stoi == Outcome::Range) CHECK(message == "stoi argument out of range");
    int32_t asLong = 0;
    CHECK(Classify([&] { asLong = velmora::ParseInteger(text, velmora::IntegerParse::Stol); }, &message) == stoi);
    CHECK(asLong == ours);
    if (stoi == Outcome::Range) CHECK(message == "stol argument out of range");

    float value = 0, referenceFloat = 0;
    const Outcome stof = Classify([&] { value = velmora::ParseFloat(text); }, &message);
    CHECK(stof == Classify([&] { referenceFloat = std::stof(text); }));
    if (stof == Outcome::Value) {
        CHECK(SameFloat(value, referenceFloat) || (std::isnan(value) && std::isnan(referenceFloat)));
        // Fixed notation may round, but its text must read back to itself.
        const std::string shown = velmora::FloatText(value);
        CHECK(velmora::FloatText(velmora::ParseFloat(shown)) == shown);
    }
    if (stof == Outcome::Invalid) CHECK(message == "invalid stof argument");
    if (stof == Outcome::Range) CHECK(message == "stof argument out of range");

    const char* c = text.c_str();
    const bool word = std::strlen(c) == text.size() && text.size() == 4 && (c[0] | 0x20) == 't' &&
                      (c[1] | 0x20) == 'r' && (c[2] | 0x20) == 'u' && (c[3] | 0x20) == 'e';
    CHECK(velmora::ParseBool(text) == word);
}

template <class Config>
bool SameMember(const ConfigProperty<Config>& row, const Config& a, const Config& b) {
    return std::visit(
        [&](auto member) {
            if constexpr (std::is_same_v<decltype(member), float Config::*>)
                return SameFloat(a.*member, b.*member);
            else
                return a.*member == b.*member;
        },
        row.member);
}

// What the standard conversions make of `value` for the row's member type.
template <class Config>
bool HoldsConvertedValue(const ConfigProperty<Config>& row, const Config& config, const std::string& value) {
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
            else if constexpr (std::is_same_v<T, StopCriteria>)
                return velmora::StopCriteriaText(held) == value;
            else
                return held == value;
        },
        row.member);
}

template <class Config>
bool IsLargeSize(const ConfigProperty<Config>& row, const Config& config) {
    const auto member = std::get_if<std::size_t Config::*>(&row.member);
    return member != nullptr && config.**member > static_cast<std::size_t>(INT32_MAX);
}

template <class Config>
std::string MessageOfSet(PropertyTable<Config> table, Config& config, const std::string& name, const std::string& value,
                         int32_t& status) {
    status = -1;
    try {
        status = velmora::SetPropertyByName(table, config, name.c_str(), value.c_str());
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

template <class Config>
int32_t Get(PropertyTable<Config> table, const Config& config, const std::string& name, std::string& text) {
    text = "<not delivered>";
    try {
        return velmora::GetPropertyByName(table, config, name.c_str(), [&](const std::string& t) { text = t; });
    } catch (const std::runtime_error& e) {
        text = e.what();
        return -1;
    }
}

template <class Config>
void CheckByName(PropertyTable<Config> table, Config config, const std::string& name, const std::string& value) {
    const Config before = config;
    const ConfigProperty<Config>* row = velmora::FindProperty(table, name);
    int32_t status;
    const std::string message = MessageOfSet(table, config, name, value, status);
    auto unchangedExcept = [&](const ConfigProperty<Config>* changed) {
        for (const ConfigProperty<Config>& other : table)
            if (&other != changed) CHECK(SameMember(other, before, config));
    };
    std::string text;
    if (row == nullptr) {
        CHECK(message == "An error occurred setting property " + name + ". Property name not supported.");
        unchangedExcept(nullptr);
        CHECK(Get(table, config, name, text) == -1);
        CHECK(text == "An error occurred getting property " + name + ". Property name not supported.");
        return;
    }
    if (status != 0) {
        // A refused stop criterion is silent; every other failure is a conversion's.
        if (status == 1) CHECK(message.empty() && !velmora::ParseStopCriteria(value));
        else CHECK(message.rfind("An error occurred setting property " + name + " with value " + value + ": ", 0) == 0);
        unchangedExcept(nullptr);
        return;
    }
    CHECK(message.empty());
    unchangedExcept(row);
    CHECK(HoldsConvertedValue(*row, config, value));
    CHECK(Get(table, config, name, text) == 0);
    // The text read back sets the same value again (floats: the same text).
    // Sizes are shown unsigned but set through stoi, so a size above INT32_MAX
    // (a wrapped negative text) is shown as a text the setter refuses.
    Config again = before;
    const std::string refusal = MessageOfSet(table, again, name, text, status);
    if (IsLargeSize(*row, config)) {
        CHECK(refusal == "An error occurred setting property " + name + " with value " + text +
                             ": stoi argument out of range");
        CHECK(SameMember(*row, again, before));
        return;
    }
    CHECK(refusal.empty() && status == 0);
    std::string textAgain;
    CHECK(Get(table, again, name, textAgain) == 0 && textAgain == text);
    if (!std::holds_alternative<float Config::*>(row->member)) CHECK(SameMember(*row, again, config));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string whole(reinterpret_cast<const char*>(data + 1), size - 1);
    CheckConversions(whole);

    const uint8_t control = data[0];
    // Host strings end at their first NUL.
    const std::string first(whole.c_str());
    const std::string second = first.size() < whole.size() ? std::string(whole.c_str() + first.size() + 1) : "";
    const bool fromTable = control & 2;
    if (control & 1) {
        const auto table = velmora::WhisperPropertyTable();
        const std::string name = fromTable ? table.rows[(control >> 2) % table.size].name : first;
        CheckByName(table, WhisperGenerationConfig{}, name, fromTable ? first : second);
    } else {
        const auto table = velmora::LlmPropertyTable();
        const std::string name = fromTable ? table.rows[(control >> 2) % table.size].name : first;
        GenerationConfig config;
        if (control & 0x80) {
            // A stored criterion outside the enumeration reads as a silent failure.
            config.stop_criteria = static_cast<StopCriteria>(control & 0x7);
            std::string text;
            CHECK(Get(table, config, "stop_criteria", text) == ((control & 0x7) > 2 ? 1 : 0));
        }
        CheckByName(table, config, name, fromTable ? first : second);
    }
    return 0;
}

// Settings by name as text: the bodies of SetConfigProperty and
// GetConfigProperty over a family's table (core/setting.h). The member's type
// picks the conversion, and one row serves both setter and getter so the two
// cannot disagree.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "setting.h"
#include "value_text.h"

namespace velmora {

namespace setting_text_detail {

// Integer settings name the standard conversion they imitate in error texts:
// stoi for sizes, stol for ids.
inline bool Store(const std::string& text, std::size_t& member) {
    // Widened with its sign, so "-1" is the largest size.
    member = static_cast<std::size_t>(static_cast<int64_t>(ParseInteger(text, IntegerParse::Stoi)));
    return true;
}
inline bool Store(const std::string& text, int64_t& member) {
    member = ParseInteger(text, IntegerParse::Stol);
    return true;
}
inline bool Store(const std::string& text, float& member) {
    member = ParseFloat(text);
    return true;
}
inline bool Store(const std::string& text, bool& member) {
    member = ParseBool(text);
    return true;
}
inline bool Store(const std::string& text, StopCriteria& member) {
    const std::optional<StopCriteria> value = ParseStopCriteria(text);
    if (!value) return false;
    member = *value;
    return true;
}
inline bool Store(const std::string& text, std::optional<std::string>& member) {
    member = text;
    return true;
}

inline std::optional<std::string> Read(std::size_t member) { return UnsignedText(member); }
inline std::optional<std::string> Read(int64_t member) { return SignedText(member); }
inline std::optional<std::string> Read(float member) { return FloatText(member); }
inline std::optional<std::string> Read(bool member) { return BoolText(member); }
inline std::optional<std::string> Read(StopCriteria member) { return StopCriteriaText(member); }
inline std::optional<std::string> Read(const std::optional<std::string>& member) { return member; }

// Lists never have a row reachable by name.
template <class T>
constexpr bool kHasText = !std::is_class_v<T> || std::is_same_v<T, std::optional<std::string>>;

}  // namespace setting_text_detail

// The row reachable by exactly this name (bytes and length; nothing trimmed), or null.
template <class Config, std::size_t N>
const Setting<Config>* FindSetting(const Setting<Config> (&table)[N], std::string_view name) {
    for (const Setting<Config>& row : table)
        if (row.byName && name == row.name) return &row;
    return nullptr;
}

// Converts `text` for the row's member and stores it only once that worked.
// False, with nothing stored, for a text the member has no value for (an
// unknown stop criterion); a failed conversion throws its standard exception.
template <class Config>
bool StoreSetting(const Setting<Config>& row, Config& config, const std::string& text) {
    return std::visit(
        [&](auto member) {
            if constexpr (setting_text_detail::kHasText<std::decay_t<decltype(config.*member)>>)
                return setting_text_detail::Store(text, config.*member);
            else
                return false;
        },
        row.member);
}

enum class ReadOutcome { Text, Absent, Unnamed };

// The member's text form. Absent: an optional without a value. Unnamed: a
// stop criterion outside the enumeration. `text` is written only for Text.
template <class Config>
ReadOutcome ReadSetting(const Setting<Config>& row, const Config& config, std::string& text) {
    std::optional<std::string> value = std::visit(
        [&](auto member) -> std::optional<std::string> {
            if constexpr (setting_text_detail::kHasText<std::decay_t<decltype(config.*member)>>)
                return setting_text_detail::Read(config.*member);
            else
                return std::nullopt;
        },
        row.member);
    if (!value) return row.kind() == SettingKind::Text ? ReadOutcome::Absent : ReadOutcome::Unnamed;
    text = std::move(*value);
    return ReadOutcome::Text;
}

// The body of a SetConfigProperty slot: 0 when stored, 1 for a text refused
// without a message. Every other failure throws std::runtime_error whose
// what() is the whole message for the host. The host's texts are copied inside
// the guard, so a copy that fails is reported with the name and value too.
template <class Config, std::size_t N>
int32_t SetByName(const Setting<Config> (&table)[N], Config& config, const char* name, const char* value) {
    const Setting<Config>* row = FindSetting(table, name);
    if (row == nullptr)
        throw std::runtime_error("An error occurred setting property " + std::string(name) +
                                 ". Property name not supported.");
    try {
        return StoreSetting(*row, config, std::string(value)) ? 0 : 1;
    } catch (const std::exception& e) {
        throw std::runtime_error("An error occurred setting property " + std::string(name) + " with value " + value +
                                 ": " + e.what());
    }
}

// The body of a GetConfigProperty slot: hands the text to `deliver` as the
// last step and returns 0, or returns 1 without a message for a stop criterion
// that has no name. Every other failure throws as SetByName does.
template <class Config, std::size_t N, class Deliver>
int32_t GetByName(const Setting<Config> (&table)[N], const Config& config, const char* name, Deliver&& deliver) {
    const Setting<Config>* row = FindSetting(table, name);
    ReadOutcome outcome = ReadOutcome::Absent;
    if (row != nullptr) {
        try {
            std::string text;
            outcome = ReadSetting(*row, config, text);
            if (outcome == ReadOutcome::Text) {
                deliver(text);
                return 0;
            }
        } catch (const std::exception& e) {
            throw std::runtime_error("An error occurred getting property " + std::string(name) + ": " + e.what());
        }
    }
    if (outcome == ReadOutcome::Unnamed) return 1;
    throw std::runtime_error("An error occurred getting property " + std::string(name) +
                             ". Property name not supported.");
}

}  // namespace velmora

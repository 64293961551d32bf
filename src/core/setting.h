// A family's settings table: one row per member of its config that the
// library keeps, naming the runtime's attribute and the member behind it.
// The same rows drive the text conversions of SetConfigProperty and
// GetConfigProperty and the copies to and from the runtime's own object.
// Plain C++ only, so that tests and tools can take the names from here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

namespace velmora {

enum class StopCriteria { EARLY = 0, HEURISTIC = 1, NEVER = 2 };
// Each criterion's text form, indexed by its value.
inline constexpr const char* kStopCriteriaNames[] = {"EARLY", "HEURISTIC", "NEVER"};
static_assert(std::size(kStopCriteriaNames) == static_cast<std::size_t>(StopCriteria::NEVER) + 1,
              "every stop criterion has a name");

// Every type a kept member may have; SettingKind names them in this order.
using SettingValue = std::variant<std::size_t, int64_t, float, bool, StopCriteria, std::optional<std::string>,
                                  std::set<std::string>, std::set<int64_t>, std::map<std::string, int64_t>,
                                  std::vector<int64_t>>;
enum class SettingKind { Size, Integer, Float, Bool, StopCriteria, Text, TextSet, IdSet, LanguageMap, IdList };

namespace setting_detail {
template <SettingKind Kind, class T>
constexpr bool Names() {
    return std::is_same_v<std::variant_alternative_t<static_cast<std::size_t>(Kind), SettingValue>, T>;
}
}  // namespace setting_detail
// kind() casts the variant's index, so a type moved in one list and not the other must not build.
static_assert(std::variant_size_v<SettingValue> == static_cast<std::size_t>(SettingKind::IdList) + 1 &&
              setting_detail::Names<SettingKind::Size, std::size_t>() &&
              setting_detail::Names<SettingKind::Integer, int64_t>() &&
              setting_detail::Names<SettingKind::Float, float>() && setting_detail::Names<SettingKind::Bool, bool>() &&
              setting_detail::Names<SettingKind::StopCriteria, StopCriteria>() &&
              setting_detail::Names<SettingKind::Text, std::optional<std::string>>() &&
              setting_detail::Names<SettingKind::TextSet, std::set<std::string>>() &&
              setting_detail::Names<SettingKind::IdSet, std::set<int64_t>>() &&
              setting_detail::Names<SettingKind::LanguageMap, std::map<std::string, int64_t>>() &&
              setting_detail::Names<SettingKind::IdList, std::vector<int64_t>>(),
              "SettingKind must name the types of SettingValue in their order");

namespace setting_detail {
template <class Config, class Values>
struct Members;
template <class Config, class... T>
struct Members<Config, std::variant<T...>> {
    using type = std::variant<T Config::*...>;
};
}  // namespace setting_detail

template <class Config>
using SettingMember = typename setting_detail::Members<Config, SettingValue>::type;

// Rows with byName false are reached only through their own list slots.
template <class Config>
struct Setting {
    const char* name;
    SettingMember<Config> member;
    bool byName = true;

    constexpr SettingKind kind() const { return static_cast<SettingKind>(member.index()); }
};

inline constexpr bool kListSlotOnly = false;

namespace setting_detail {
constexpr bool SameName(const char* a, const char* b) {
    while (*a != '\0' && *a == *b) ++a, ++b;
    return *a == *b;
}
}  // namespace setting_detail

// For a static_assert beside each table: a name found twice would hide its
// second row, and a member named twice would answer to two names.
template <class Config, std::size_t N>
constexpr bool NamesAndMembersAreUnique(const Setting<Config> (&table)[N]) {
    for (std::size_t i = 0; i < N; ++i)
        for (std::size_t j = i + 1; j < N; ++j)
            if (setting_detail::SameName(table[i].name, table[j].name) || table[i].member == table[j].member)
                return false;
    return true;
}

}  // namespace velmora

// A family's settings table: one row per member of its config that the
// library keeps, naming the runtime's attribute and the member behind it.
// The same rows drive the text conversions of SetConfigProperty and
// GetConfigProperty and the copies to and from the runtime's own object.
// Plain C++ only, so that tests and tools can take the names from here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

namespace velmora {

enum class StopCriteria { EARLY = 0, HEURISTIC = 1, NEVER = 2 };

// Every type a kept member may have; SettingKind names them in this order.
using SettingValue = std::variant<std::size_t, int64_t, float, bool, StopCriteria, std::optional<std::string>,
                                  std::set<std::string>, std::set<int64_t>, std::map<std::string, int64_t>,
                                  std::vector<int64_t>>;
enum class SettingKind { Size, Integer, Float, Bool, StopCriteria, Text, TextSet, IdSet, LanguageMap, IdList };

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

}  // namespace velmora

// The runtime's config objects as a family's settings table sees them: the
// kept members by name, over the runtime's own object they came from.
#pragma once

#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/setting.h"

namespace velmora::genai {

class RuntimeObject;  // a reference to an object of the runtime, opaque here

struct RuntimeConfig {
    const char* className;
    // The model's own settings, or null for fresh defaults of `className`.
    std::shared_ptr<RuntimeObject> origin;
    // Written over the origin; each value's type is the member's.
    std::vector<std::pair<const char*, SettingValue>> members;
};

// Throws ov::AssertFailure with the runtime's text when the runtime rejects
// the combination.
void Validate(const RuntimeConfig& config);

template <class Config, std::size_t N>
RuntimeConfig ToRuntime(const Config& config, const Setting<Config> (&table)[N], const char* className) {
    RuntimeConfig runtime{className, config.origin, {}};
    runtime.members.reserve(N);
    for (const Setting<Config>& row : table)
        std::visit(
            [&](auto member) {
                using T = std::decay_t<decltype(config.*member)>;
                runtime.members.emplace_back(row.name, SettingValue(std::in_place_type<T>, config.*member));
            },
            row.member);
    return runtime;
}

template <class Config, std::size_t N>
Config FromRuntime(const RuntimeConfig& runtime, const Setting<Config> (&table)[N]) {
    Config config;
    for (std::size_t i = 0; i < N; ++i)
        std::visit(
            [&](auto member) {
                using T = std::decay_t<decltype(config.*member)>;
                config.*member = std::get<T>(runtime.members[i].second);
            },
            table[i].member);
    config.origin = runtime.origin;
    return config;
}

}  // namespace velmora::genai

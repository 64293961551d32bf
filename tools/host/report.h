// Small pieces of reporting shared by the subcommands.
#pragma once

#include <cstdint>
#include <string>

#include "library.h"
#include "progress.h"

namespace cli {

// "CPU", "GPU", "NPU", or the number as given.
std::string DeviceLabel(int32_t device);

// Prints "error: <what>" and returns the usage exit status.
int UsageError(const std::string& what);

// Runs one SetConfigProperty call. The library words its own failures; the
// few it leaves silent (an unknown stop_criteria text) get a line of ours.
template <typename Set>
bool ApplySetting(Set set, const std::string& name, const std::string& value) {
    const int before = Library::ErrorCount();
    if (set(name.c_str(), value.c_str()) == 0) return true;
    if (Library::ErrorCount() == before)
        Progress::Note(("error: the library refused " + name + "=" + value).c_str());
    return false;
}

}  // namespace cli

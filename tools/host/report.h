// Reporting and the pieces every subcommand shares: device names, failures
// worded with what the user gave, settings, and the model handle.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "core/device.h"
#include "library.h"
#include "progress.h"

namespace cli {

// DeviceType values by index, as the library numbers and names them.
using velmora::kDeviceNames;

// "CPU", "GPU", "NPU", or the number as given.
std::string DeviceLabel(int32_t device);

// Prints "error: <what>" and returns the usage exit status.
int UsageError(const std::string& what);

// Prints "error: <what>: <the library's message>" (just "error: <what>" when
// the library gave none) and returns the failure exit status.
int Fail(const std::string& what);

// Runs SetConfigProperty for each --set in order; false (reported) at the
// first the library refuses.
template <typename Api>
bool ApplySettings(const Api& api, void* handle, const std::vector<std::pair<std::string, std::string>>& settings) {
    for (const auto& [name, value] : settings)
        if (api.SetConfigProperty(handle, name.c_str(), value.c_str()) != 0)
            return Fail("cannot set " + name + "=" + value), false;
    return true;
}

// Prints each setting of a family's table (the library's own) with its current
// value, one "name=value" a line; an optional setting that holds nothing
// prints as "name (not set)".
template <typename Api, typename Row, size_t N>
void ListSettings(const Api& api, void* handle, const Row (&rows)[N]) {
    for (const Row& row : rows) {
        if (!row.byName) continue;  // reached through their own list slots
        const char* name = row.name;
        char* value = nullptr;
        if (api.GetConfigProperty(handle, name, &value) != 0) {
            Library::TakeError();
            std::printf("%s (not set)\n", name);
            continue;
        }
        std::printf("%s=%s\n", name, value);
        api.FreeConfigProperty(value);
    }
}

// A model of either family, loaded with a progress line and destroyed with
// the object; get() is null when loading failed (already reported).
template <typename Api>
class Model {
public:
    template <typename Init>
    Model(const Api& api, const std::string& dir, int32_t device, Init init) : api_(api) {
        Progress progress("loading " + dir + " on " + DeviceLabel(device));
        if (init(&handle_) == 0) {
            progress.Done();
            return;
        }
        handle_ = nullptr;
        progress.Stop();
        Fail("cannot load model '" + dir + "'");
    }
    ~Model() { api_.DestroyModel(handle_); }
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;
    void* get() const { return handle_; }

private:
    const Api& api_;
    void* handle_ = nullptr;
};

}  // namespace cli

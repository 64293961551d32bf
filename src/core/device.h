// The runtime's name for each DeviceType; tools take the names from here too.
#pragma once

#include <cstdint>
#include <iterator>
#include <string>

#include "openvino_bindings.h"

namespace velmora {

inline constexpr const char* kDeviceNames[] = {"CPU", "GPU", "NPU"};
static_assert(DEVICE_CPU == 0 && DEVICE_GPU == 1 && DEVICE_NPU == 2 && std::size(kDeviceNames) == DEVICE_NPU + 1,
              "kDeviceNames is indexed by DeviceType");

// The name of a value of kDeviceNames' range; otherwise std::invalid_argument
// "<value>device type is not supported".
std::string DeviceName(int32_t deviceType);

}  // namespace velmora

#pragma once

#include <cstdint>
#include <string>

namespace velmora {

// "CPU", "GPU" or "NPU" for 0, 1, 2; otherwise std::invalid_argument
// "<value>device type is not supported".
std::string DeviceName(int32_t deviceType);

}  // namespace velmora

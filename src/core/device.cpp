#include "device.h"

#include <array>
#include <stdexcept>

namespace velmora {

std::string DeviceName(int32_t deviceType) {
    static constexpr std::array<const char*, 3> names = {"CPU", "GPU", "NPU"};
    // No space before "device": hosts match this text byte for byte.
    if (deviceType < 0 || deviceType >= static_cast<int32_t>(names.size()))
        throw std::invalid_argument(std::to_string(deviceType) + "device type is not supported");
    return names[deviceType];
}

}  // namespace velmora

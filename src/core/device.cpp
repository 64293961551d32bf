#include "device.h"

#include <iterator>
#include <stdexcept>

namespace velmora {

std::string DeviceName(int32_t deviceType) {
    // No space before "device": hosts match this text byte for byte.
    if (deviceType < 0 || deviceType >= static_cast<int32_t>(std::size(kDeviceNames)))
        throw std::invalid_argument(std::to_string(deviceType) + "device type is not supported");
    return kDeviceNames[deviceType];
}

}  // namespace velmora

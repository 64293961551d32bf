#include "report.h"

#include <iterator>

#include "commands.h"

namespace cli {

std::string DeviceLabel(int32_t device) {
    return device >= 0 && device < static_cast<int32_t>(std::size(kDeviceNames)) ? kDeviceNames[device]
                                                                                       : std::to_string(device);
}

int UsageError(const std::string& what) {
    Progress::Note(("error: " + what).c_str());
    return kUsage;
}

int Fail(const std::string& what) {
    const std::string message = Library::TakeError();
    Progress::Note(("error: " + what + (message.empty() ? "" : ": " + message)).c_str());
    return kFailed;
}

}  // namespace cli

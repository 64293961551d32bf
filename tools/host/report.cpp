#include "report.h"

#include "commands.h"

namespace cli {

std::string DeviceLabel(int32_t device) {
    static const char* const names[] = {"CPU", "GPU", "NPU"};
    return device >= 0 && device < 3 ? names[device] : std::to_string(device);
}

int UsageError(const std::string& what) {
    Progress::Note(("error: " + what).c_str());
    return kUsage;
}

}  // namespace cli

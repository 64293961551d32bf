#pragma once

#include <string>

#include "reporting.h"

namespace velmora {

// The answer of a slot whose body is not part of this build.
inline int32_t ReportPending(Family family, const void* handle, const char* nullMessage, const char* slot) {
    return RunSlot(family, handle, nullMessage, "", [&]() -> int32_t {
        Report(family, std::string(slot) + " is not available in this build of the library");
        return 1;
    });
}

}  // namespace velmora

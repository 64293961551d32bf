// The steps every InitModel shares: take the callbacks, log once, build.
#pragma once

#include <memory>

#include "reporting.h"

namespace velmora {

// A null callbacks pointer or a pair without `error` is refused: the library
// could never report anything through it.
template <class Build>
int32_t InitHandle(Family family, const HostCallbacks* callbacks, const char* logMessage, void** outHandle,
                   Build&& build) noexcept {
    if (callbacks == nullptr || callbacks->error == nullptr) return STATUS_FAILED;
    StoreCallbacks(family, *callbacks);
    Log(family, logMessage);
    return RunSlot(family, nullptr, nullptr, [&] {
        auto model = build();
        *outHandle = model.release();
        return STATUS_OK;
    });
}

}  // namespace velmora

// The slots both families have in the same form, written once for a handle
// class with `config` (the struct its settings table names) and
// `cancelRequested`. Each family instantiates them in its own file; the
// bodies stay out of the class so that no other file instantiates them.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "buffers.h"
#include "reporting.h"
#include "setting_text.h"

namespace velmora {

template <class Model, Family kFamily, const auto& kTable>
struct SharedSlots {
    static int32_t DestroyModel(void* handle);
    // Nothing is validated here: the next generation or transcription
    // validates what was stored.
    static int32_t SetConfigProperty(void* handle, const char* name, const char* value);
    static int32_t GetConfigProperty(void* handle, const char* name, char** outValue);
    // Only an atomic store: no lock, no allocation, safe from any thread.
    static int32_t CancelModel(void* handle);
};

template <class Model, Family kFamily, const auto& kTable>
int32_t SharedSlots<Model, kFamily, kTable>::DestroyModel(void* handle) {
    delete static_cast<Model*>(handle);
    return 0;
}

template <class Model, Family kFamily, const auto& kTable>
int32_t SharedSlots<Model, kFamily, kTable>::SetConfigProperty(void* handle, const char* name, const char* value) {
    return RunSlot(kFamily, handle, NullHandle("setting config property"),
                   [&] { return SetByName(kTable, static_cast<Model*>(handle)->config, name, value); });
}

template <class Model, Family kFamily, const auto& kTable>
int32_t SharedSlots<Model, kFamily, kTable>::GetConfigProperty(void* handle, const char* name, char** outValue) {
    return RunSlot(kFamily, handle, NullHandle("getting config property"), [&] {
        return GetByName(kTable, static_cast<const Model*>(handle)->config, name,
                         [&](const std::string& text) { *outValue = NewText(text); });
    });
}

template <class Model, Family kFamily, const auto& kTable>
int32_t SharedSlots<Model, kFamily, kTable>::CancelModel(void* handle) {
    return RunSlot(kFamily, handle, NullHandle("canceling"), [&] {
        static_cast<Model*>(handle)->cancelRequested.store(true, std::memory_order_relaxed);
        return STATUS_OK;
    });
}

}  // namespace velmora

// One place where a slot's failure becomes a status and at most one message.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>
#include <utility>

#include <openvino/core/except.hpp>

#include "openvino_bindings.h"

namespace velmora {

enum class Family { Llm, Whisper };

// Replaces the family's pair; reads nothing else from the host.
void StoreCallbacks(Family family, const HostCallbacks& callbacks);
void Log(Family family, const char* message);
// Calls the family's `error` once, or nothing while none is stored.
void Report(Family family, const std::string& message);

// what(), or "Unknown exception" for an exception without text.
std::string TextOf(const std::exception& e);

// A failure already turned into its status and final message.
class SlotFailure : public std::exception {
public:
    SlotFailure(int32_t status, std::string message) : status_(status), message_(std::move(message)) {}
    const char* what() const noexcept override { return message_.c_str(); }
    int32_t status() const { return status_; }

private:
    int32_t status_;
    std::string message_;
};

// How one kind of caught exception is reported: its status and the prefix put
// before what() (empty for the text alone).
struct Outcome {
    int32_t status;
    std::string_view prefix;
};

// Runs one step of a slot, classifying what it throws: runtime assertions
// first, then every other std::exception.
template <class Step>
decltype(auto) Stage(Step&& step, Outcome onAssert, Outcome onOther) {
    try {
        return std::forward<Step>(step)();
    } catch (const SlotFailure&) {
        throw;
    } catch (const ov::AssertFailure& e) {
        throw SlotFailure(onAssert.status, std::string(onAssert.prefix) + TextOf(e));
    } catch (const std::exception& e) {
        throw SlotFailure(onOther.status, std::string(onOther.prefix) + TextOf(e));
    }
}

// The boundary of every slot: the null-handle rule, then the body, with
// anything it throws reported once. `nullMessage` is null for slots without a
// handle; `prefix` goes before what() of an exception the body did not stage.
template <class Body>
int32_t RunSlot(Family family, const void* handle, const char* nullMessage, std::string_view prefix, Body&& body) noexcept {
    if (nullMessage != nullptr && handle == nullptr) {
        Report(family, nullMessage);
        return 1;
    }
    try {
        try {
            return std::forward<Body>(body)();
        } catch (const SlotFailure& f) {
            Report(family, f.what());
            return f.status();
        } catch (const std::exception& e) {
            Report(family, std::string(prefix) + TextOf(e));
            return 1;
        } catch (...) {
            Report(family, std::string(prefix) + "Unknown exception");
            return 1;
        }
    } catch (...) {
        // Building the message itself failed (no memory): the status still says it.
        return 1;
    }
}

}  // namespace velmora

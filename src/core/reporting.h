// One place where a slot's failure becomes a status and at most one message.
#pragma once

#include <cstddef>
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
// Calls the family's `error` once, or nothing while none is stored. Takes the
// text as it stands: reporting allocates nothing, so it works when memory is out.
void Report(Family family, const char* message);

// what(), or "Unknown exception" for an exception without text.
const char* TextOf(const std::exception& e);

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

// How one kind of caught exception is reported: its status and the text put
// before what(), or, without the reason, that text alone.
enum class Reason { Kept, Dropped };
struct Outcome {
    int32_t status;
    std::string_view text;
    Reason reason = Reason::Kept;

    SlotFailure Failure(const std::exception& e) const {
        std::string message(text);
        if (reason == Reason::Kept) message += TextOf(e);
        return SlotFailure(status, std::move(message));
    }
};

// Runs one step of a slot, classifying what it throws: runtime assertions
// first, then every other std::exception. The one way a slot turns a failure
// into a status other than 1 or a message other than what() alone.
template <class Step>
decltype(auto) Stage(Step&& step, Outcome onAssert, Outcome onOther) {
    try {
        return std::forward<Step>(step)();
    } catch (const SlotFailure&) {
        throw;
    } catch (const ov::AssertFailure& e) {
        throw onAssert.Failure(e);
    } catch (const std::exception& e) {
        throw onOther.Failure(e);
    }
}

template <class Step>
decltype(auto) Stage(Step&& step, Outcome onAny) {
    return Stage(std::forward<Step>(step), onAny, onAny);
}

// The null-handle rule's message, "Model handle is null when <doing>",
// joined at compile time: every slot with a handle names only what it was
// doing, and reporting still allocates nothing.
inline constexpr char kNullHandlePrefix[] = "Model handle is null when ";
template <std::size_t N>
struct NullHandle {
    char text[sizeof kNullHandlePrefix - 1 + N] = {};

    constexpr explicit NullHandle(const char (&doing)[N]) {
        std::size_t at = 0;
        for (std::size_t i = 0; i + 1 < sizeof kNullHandlePrefix; ++i) text[at++] = kNullHandlePrefix[i];
        for (std::size_t i = 0; i < N; ++i) text[at++] = doing[i];
    }
};

// The boundary of every slot: the null-handle rule, then the body, with
// anything it throws reported once: a staged failure as staged, any other
// exception as its what() with status 1. `nullMessage` is null for slots
// without a handle.
template <class Body>
int32_t RunSlot(Family family, const void* handle, const char* nullMessage, Body&& body) noexcept {
    if (nullMessage != nullptr && handle == nullptr) {
        Report(family, nullMessage);
        return STATUS_FAILED;
    }
    try {
        try {
            return std::forward<Body>(body)();
        } catch (const SlotFailure& f) {
            Report(family, f.what());
            return f.status();
        } catch (const std::exception& e) {
            Report(family, TextOf(e));
            return STATUS_FAILED;
        } catch (...) {
            Report(family, "Unknown exception");
            return STATUS_FAILED;
        }
    } catch (...) {
        // Only a host `error` that throws gets here: the status still says it.
        return STATUS_FAILED;
    }
}

template <std::size_t N, class Body>
int32_t RunSlot(Family family, const void* handle, const NullHandle<N>& onNull, Body&& body) noexcept {
    return RunSlot(family, handle, onNull.text, std::forward<Body>(body));
}

}  // namespace velmora

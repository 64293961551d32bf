#include "reporting.h"

#include <atomic>

namespace velmora {
namespace {

using MessageFn = void (*)(const char*);

// Atomic only so that a concurrent report on another handle never reads a
// torn pointer; hosts do not race InitModel against other slots of a family.
struct CallbackPair {
    std::atomic<MessageFn> log{nullptr};
    std::atomic<MessageFn> error{nullptr};
};

CallbackPair pairs[2];

CallbackPair& PairOf(Family family) { return pairs[family == Family::Llm ? 0 : 1]; }

}  // namespace

void StoreCallbacks(Family family, const HostCallbacks& callbacks) {
    CallbackPair& pair = PairOf(family);
    pair.log.store(callbacks.log, std::memory_order_relaxed);
    pair.error.store(callbacks.error, std::memory_order_relaxed);
}

void Log(Family family, const char* message) {
    if (MessageFn fn = PairOf(family).log.load(std::memory_order_relaxed)) fn(message);
}

void Report(Family family, const char* message) {
    if (MessageFn fn = PairOf(family).error.load(std::memory_order_relaxed)) fn(message);
}

const char* TextOf(const std::exception& e) {
    const char* text = e.what();
    return (text == nullptr || *text == '\0') ? "Unknown exception" : text;
}

}  // namespace velmora

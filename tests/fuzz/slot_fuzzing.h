// Shared by the slot fuzzers: the slots are linked in directly and driven on a
// model object that has no pipeline (the settings and list slots never touch
// it), with the messages they report captured and checked.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "api/reporting.h"

namespace fuzzing {

[[noreturn]] inline void Broken(const char* condition, int line) {
    std::fprintf(stderr, "invariant broken at line %d: %s\n", line, condition);
    std::abort();
}
#define CHECK(c) ((c) ? (void)0 : ::fuzzing::Broken(#c, __LINE__))

inline std::vector<std::string>& Messages() {
    static std::vector<std::string> messages;
    return messages;
}

inline void Capture(const char* message) { Messages().emplace_back(message); }

// Stores the capturing pair for the family and forgets earlier messages.
inline void Listen(velmora::Family family) {
    velmora::StoreCallbacks(family, HostCallbacks{nullptr, Capture});
    Messages().clear();
}

// The one message a failed call reported (checked to be exactly one), or ""
// after a success (checked to be silent).
inline std::string Outcome(int32_t status) {
    std::vector<std::string>& messages = Messages();
    if (status == 0) CHECK(messages.empty());
    CHECK(messages.size() <= 1);
    std::string message = messages.empty() ? "" : messages.front();
    messages.clear();
    return message;
}

// Host strings end at their first NUL.
inline std::string HostString(const std::string& bytes) { return std::string(bytes.c_str()); }

// A setting name (a known one or arbitrary bytes) and an arbitrary value,
// handed to the family's set-then-get check.
template <class Table, class SetAndGet>
void Setting(FuzzedDataProvider& input, const Table& table, SetAndGet&& setAndGet) {
    const std::string name = input.ConsumeBool()
                                 ? table.rows[input.ConsumeIntegralInRange<size_t>(0, table.size - 1)].name
                                 : HostString(input.ConsumeRandomLengthString(32));
    setAndGet(name, HostString(input.ConsumeRandomLengthString(48)));
}

}  // namespace fuzzing

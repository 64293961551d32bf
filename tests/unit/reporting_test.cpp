#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/reporting.h"

using velmora::Family;
using velmora::RunSlot;
using velmora::Stage;

namespace {

std::vector<std::string> llmErrors, whisperErrors;
void LlmError(const char* m) { llmErrors.emplace_back(m); }
void WhisperError(const char* m) { whisperErrors.emplace_back(m); }

class EmptyText : public std::exception {
public:
    const char* what() const noexcept override { return ""; }
};

// A slot shaped like the LLM query: a validation stage and a generation stage,
// the second failing with `failure`. Which status each kind of failure gets is
// the host tests' (LlmFaults): here, what no real failure can show.
template <class Failure>
int32_t Query(const Failure& failure) {
    return RunSlot(Family::Llm, &failure, "null handle", [&] {
        Stage([] {}, {2, "validate: "}, {3, "other validate: "});
        Stage([&] { throw failure; }, {4, "assert: "}, {5, "other: "});
        return STATUS_OK;
    });
}

}  // namespace

TEST(Reporting, FailuresWithoutATextAreNamedAndReachOnlyTheirFamily) {
    velmora::StoreCallbacks(Family::Llm, {nullptr, LlmError});
    velmora::StoreCallbacks(Family::Whisper, {nullptr, WhisperError});
    EXPECT_EQ(Query(EmptyText()), 5);
    // Anything but a standard exception stops at the boundary.
    EXPECT_EQ(Query(42), 1);
    EXPECT_EQ(llmErrors, (std::vector<std::string>{"other: Unknown exception", "Unknown exception"}));
    EXPECT_TRUE(whisperErrors.empty());
    // A family without an error function is silent.
    velmora::StoreCallbacks(Family::Whisper, {nullptr, nullptr});
    EXPECT_EQ(RunSlot(Family::Whisper, nullptr, "null", [] { return STATUS_OK; }), 1);
}

#include <gtest/gtest.h>

#include <stdexcept>
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

class RuntimeAssertion : public ov::AssertFailure {
public:
    explicit RuntimeAssertion(const std::string& text) : ov::AssertFailure(text) {}
};

class EmptyText : public std::exception {
public:
    const char* what() const noexcept override { return ""; }
};

// A slot shaped like the LLM query: a validation stage and a generation stage,
// the second failing with `failure` when `stage` is 2.
template <class Failure>
int32_t Query(int stage, const Failure& failure) {
    return RunSlot(Family::Llm, &stage, "null handle", [&] {
        Stage([&] { if (stage == 1) throw failure; }, {2, "validate: "}, {3, "other validate: "});
        Stage([&] { if (stage == 2) throw failure; }, {4, "assert: "}, {5, "other: "});
        Stage([&] { if (stage == 3) throw failure; }, {1, "dropped", velmora::Reason::Dropped});
        return STATUS_OK;
    });
}

}  // namespace

TEST(Reporting, StagesGiveEachFailureItsStatusAndOneMessageToItsFamily) {
    velmora::StoreCallbacks(Family::Llm, {nullptr, LlmError});
    velmora::StoreCallbacks(Family::Whisper, {nullptr, WhisperError});
    const RuntimeAssertion assertion("Check 'x' failed");
    const std::runtime_error other("boom");
    EXPECT_EQ(Query(1, assertion), 2);
    EXPECT_EQ(Query(1, other), 3);
    EXPECT_EQ(Query(2, assertion), 4);
    EXPECT_EQ(Query(2, other), 5);
    EXPECT_EQ(Query(2, EmptyText()), 5);
    EXPECT_EQ(Query(3, other), 1);
    EXPECT_EQ(Query(0, other), 0);
    // Anything else stops at the boundary.
    EXPECT_EQ(Query(2, 42), 1);
    EXPECT_EQ(RunSlot(Family::Llm, nullptr, "null handle", [] { return STATUS_OK; }), 1);
    EXPECT_EQ(llmErrors, (std::vector<std::string>{"validate: Check 'x' failed", "other validate: boom",
                                                   "assert: Check 'x' failed", "other: boom",
                                                   "other: Unknown exception", "dropped", "Unknown exception",
                                                   "null handle"}));
    EXPECT_TRUE(whisperErrors.empty());
    // A family without an error function is silent.
    velmora::StoreCallbacks(Family::Whisper, {nullptr, nullptr});
    EXPECT_EQ(RunSlot(Family::Whisper, nullptr, "null", [] { return STATUS_OK; }), 1);
}

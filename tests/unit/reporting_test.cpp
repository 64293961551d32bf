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

[[noreturn]] void Rethrow(const std::exception& e) {
    if (auto* a = dynamic_cast<const RuntimeAssertion*>(&e)) throw *a;
    if (auto* r = dynamic_cast<const std::runtime_error*>(&e)) throw *r;
    throw EmptyText();
}

// A slot shaped like the LLM query: a validation stage and a generation stage.
int32_t QueryThrowing(int failAt, const std::exception& failure) {
    return RunSlot(Family::Llm, &failAt, "null handle", [&] {
        Stage([&] { if (failAt == 1) Rethrow(failure); }, {2, "validate: "}, {3, "other validate: "});
        Stage([&] { if (failAt == 2) Rethrow(failure); }, {4, "assert: "}, {5, "other: "});
        return 0;
    });
}

}  // namespace

TEST(Reporting, StagesMapAssertionsAndOtherErrorsToTheirStatusAndPrefix) {
    velmora::StoreCallbacks(Family::Llm, {nullptr, LlmError});
    velmora::StoreCallbacks(Family::Whisper, {nullptr, WhisperError});
    llmErrors.clear();
    const RuntimeAssertion assertion("Check 'x' failed");
    const std::runtime_error other("boom");
    EXPECT_EQ(QueryThrowing(1, assertion), 2);
    EXPECT_EQ(QueryThrowing(1, other), 3);
    EXPECT_EQ(QueryThrowing(2, assertion), 4);
    EXPECT_EQ(QueryThrowing(2, other), 5);
    EXPECT_EQ(QueryThrowing(2, EmptyText()), 5);
    EXPECT_EQ(QueryThrowing(0, other), 0);
    EXPECT_EQ(RunSlot(Family::Llm, nullptr, "null handle", [] { return 0; }), 1);
    EXPECT_EQ(llmErrors, (std::vector<std::string>{"validate: Check 'x' failed", "other validate: boom",
                                                   "assert: Check 'x' failed", "other: boom",
                                                   "other: Unknown exception", "null handle"}));
    EXPECT_TRUE(whisperErrors.empty());
}

TEST(Reporting, NonStandardExceptionsStopAtTheBoundaryAndAFamilyWithoutErrorFunctionIsSilent) {
    velmora::StoreCallbacks(Family::Whisper, {nullptr, nullptr});
    EXPECT_EQ(RunSlot(Family::Whisper, nullptr, "null", [] { return 0; }), 1);
    EXPECT_EQ(RunSlot(Family::Whisper, "h", nullptr, []() -> int32_t { throw 42; }), 1);
    velmora::StoreCallbacks(Family::Whisper, {nullptr, WhisperError});
    whisperErrors.clear();
    EXPECT_EQ(RunSlot(Family::Whisper, "h", nullptr, []() -> int32_t { throw 42; }), 1);
    EXPECT_EQ(whisperErrors, std::vector<std::string>{"Unknown exception"});
}

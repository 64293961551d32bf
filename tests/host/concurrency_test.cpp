// Handles working side by side on their own threads, and cancels from
// another thread. Built into the ThreadSanitizer run (tests/sanitizers/tests.cmake).
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"

using host::InboxOf;
using host::Llm;
using host::LlmModel;
using host::Pair;
using host::Whisper;
using host::WhisperModel;

namespace {

// Queries without the shared inboxes, which only one thread may read: each
// thread checks its own results.
std::string LlmQuery(void* handle, const char* prompt) {
    char* text = nullptr;
    if (Llm().QueryModel(handle, prompt, &text) != 0) return "<failed>";
    std::string result = text;
    Llm().FreeQueryResult(text);
    return result;
}

std::string WhisperQuery(void* handle, const std::vector<float>& audio) {
    char* text = nullptr;
    if (Whisper().QueryModel(handle, audio.data(), static_cast<int32_t>(audio.size()), &text) != 0) return "<failed>";
    std::string result = text;
    Whisper().FreeQueryResult(text);
    return result;
}

}  // namespace

TEST(Concurrency, HandlesOfBothFamiliesWorkOnTheirOwnThreadsAsTheyWouldAlone) {
    LlmModel first(host::ModelDir("tiny-llm"), 48), second(host::ModelDir("tiny-llm"), 48);
    WhisperModel whisper(host::ModelDir("tiny-whisper"), 12);
    const std::vector<float> audio = host::Tone(32000, 300);
    const std::string expectedFirst = LlmQuery(first.handle(), "Once upon a time");
    const std::string expectedSecond = LlmQuery(second.handle(), "The weather today");
    const std::string expectedTranscript = WhisperQuery(whisper.handle(), audio);
    ASSERT_NE(expectedFirst, "<failed>");
    ASSERT_NE(expectedTranscript, "<failed>");
    ASSERT_NE(expectedFirst, expectedSecond);

    std::vector<std::string> seenFirst, seenSecond, transcripts;
    std::thread a([&] {
        for (int i = 0; i < 3; ++i) seenFirst.push_back(LlmQuery(first.handle(), "Once upon a time"));
    });
    std::thread b([&] {
        for (int i = 0; i < 3; ++i) seenSecond.push_back(LlmQuery(second.handle(), "The weather today"));
    });
    std::thread c([&] {
        for (int i = 0; i < 3; ++i) transcripts.push_back(WhisperQuery(whisper.handle(), audio));
    });
    a.join();
    b.join();
    c.join();
    EXPECT_EQ(seenFirst, std::vector<std::string>(3, expectedFirst));
    EXPECT_EQ(seenSecond, std::vector<std::string>(3, expectedSecond));
    EXPECT_EQ(transcripts, std::vector<std::string>(3, expectedTranscript));
}

TEST(Concurrency, ACancelEndsARunningTranscriptionButNotTheNextOne) {
    const std::vector<float> tone = host::Tone(16000);
    std::string full, early;
    {
        WhisperModel model(host::ModelDir("tiny-whisper"), 300);
        // Raised between transcriptions, the flag is cleared by the next one.
        ASSERT_EQ(Whisper().CancelModel(model.handle()), 0);
        ASSERT_EQ(model.Transcribe(tone, full), 0) << full;
        std::atomic<bool> done{false};
        std::thread canceller([&] {
            // The flag is cleared when the transcription starts, so keep raising it.
            while (!done) EXPECT_EQ(Whisper().CancelModel(model.handle()), 0);
        });
        early = WhisperQuery(model.handle(), tone);
        done = true;
        canceller.join();
    }  // destroyed right after its cancelled transcription
    EXPECT_NE(early, "<failed>");
    EXPECT_LT(early.size(), full.size() / 4);
    EXPECT_TRUE(host::StartsWith(full, early)) << early;

    // A cancel with nothing running, then destroy: nothing is left waiting.
    LlmModel llm(host::ModelDir("tiny-llm"), 8);
    EXPECT_EQ(Llm().CancelModel(llm.handle()), 0);
}

// Failures on distinct handles at once each reach the family's pair once.
TEST(Concurrency, FailuresOnTwoThreadsAreEachReportedOnce) {
    LlmModel llm(host::ModelDir("tiny-llm"), 8);
    WhisperModel whisper(host::ModelDir("tiny-whisper"), 4);
    host::ClearInboxes();
    const int rounds = 200;
    std::thread a([&] {
        for (int i = 0; i < rounds; ++i) EXPECT_EQ(Llm().SetConfigProperty(llm.handle(), "top_k", "many"), 1);
    });
    std::thread b([&] {
        const float sample = 0;
        for (int i = 0; i < rounds; ++i) EXPECT_EQ(Whisper().QueryModel(whisper.handle(), &sample, -1, nullptr), 1);
    });
    std::thread c([&] {
        for (int i = 0; i < rounds; ++i) EXPECT_EQ(Llm().CancelModel(nullptr), 1);
    });
    a.join();
    b.join();
    c.join();
    EXPECT_EQ(InboxOf(Pair::A).errors.size(), 2u * rounds);
    EXPECT_EQ(InboxOf(Pair::B).errors.size(), 1u * rounds);
}

// The first tokenization of a process, on two handles at the same moment: a
// conversion the runtime sets up lazily must not make them wait for each
// other (run in a process of its own, so that it is the first).
TEST(Concurrency, FirstTokenizationsOnTwoThreadsAtOnce) {
    LlmModel first(host::ModelDir("tiny-llm"), 8), second(host::ModelDir("tiny-llm"), 8);
    std::atomic<int> ready{0};
    auto tokenize = [&](void* handle, size_t* count) {
        ++ready;
        while (ready < 2) std::this_thread::yield();
        int64_t* ids = nullptr;
        EXPECT_EQ(Llm().Tokenize(handle, "Once upon a time", &ids, count), 0);
        Llm().FreeTokens(ids);
    };
    size_t a = 0, b = 0;
    std::thread one(tokenize, first.handle(), &a), two(tokenize, second.handle(), &b);
    one.join();
    two.join();
    EXPECT_GT(a, 0u);
    EXPECT_EQ(a, b);
}

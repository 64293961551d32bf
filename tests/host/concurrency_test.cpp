// Handles working side by side on their own threads, and cancels from
// another thread. Built into the ThreadSanitizer run (tests/sanitizers/tests.cmake).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <chrono>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <thread>
#include <tuple>
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

// The text one stream delivered, per handle: a TextCallback carries no
// context, so each handle streams to its own function.
struct Streamed {
    std::mutex mutex;
    std::string text;
    std::atomic<bool> returned{false};
    std::atomic<int> late{0};  // pieces delivered after StreamModel returned
} streamed[2];

template <int I>
int Collect(char* piece) {
    if (streamed[I].returned) ++streamed[I].late;
    std::lock_guard<std::mutex> lock(streamed[I].mutex);
    streamed[I].text += piece;
    return 0;
}

// Streams on `handle` to function `i`; the status and the text delivered.
std::pair<int32_t, std::string> StreamTo(int i, void* handle) {
    Streamed& s = streamed[i];
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.text.clear();
    }
    s.returned = false;
    const int32_t status = Llm().StreamModel(handle, const_cast<char*>("Once upon a time"), i == 0 ? Collect<0> : Collect<1>);
    s.returned = true;
    std::lock_guard<std::mutex> lock(s.mutex);
    return {status, s.text};
}

}  // namespace

TEST(Concurrency, TwoStreamsCancelledAtRandomFromAThirdThreadEndCleanly) {
    LlmModel first(host::ModelDir("tiny-llm"), 24), second(host::ModelDir("tiny-llm"), 24);
    void* const handles[2] = {first.handle(), second.handle()};
    std::string full[2];
    for (int i = 0; i < 2; ++i) {
        int32_t status;
        std::tie(status, full[i]) = StreamTo(i, handles[i]);
        ASSERT_EQ(status, 0);
        ASSERT_FALSE(full[i].empty());
    }

    const int rounds = 150;
    std::atomic<int> streaming{2};
    int cut[2] = {0, 0};  // streams a cancel ended early
    auto stream = [&](int i) {
        for (int r = 0; r < rounds; ++r) {
            const auto [status, text] = StreamTo(i, handles[i]);
            EXPECT_EQ(status, 0);
            EXPECT_TRUE(host::StartsWith(full[i], text)) << text;
            if (text.size() < full[i].size()) ++cut[i];
        }
        --streaming;
    };
    std::thread a(stream, 0), b(stream, 1);
    std::thread canceller([&] {
        std::mt19937 random(26);
        while (streaming > 0) {
            EXPECT_EQ(Llm().CancelModel(handles[random() % 2]), 0);
            // Now and then long enough for a whole stream to pass untouched.
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 40000));
        }
    });
    a.join();
    b.join();
    canceller.join();
    std::printf("streams cut short by a cancel: %d and %d of %d each\n", cut[0], cut[1], rounds);
    EXPECT_GT(cut[0] + cut[1], 0);
    // No cancel outlives its stream: each handle streams its whole text again.
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(StreamTo(i, handles[i]), std::make_pair(0, full[i]));
        EXPECT_EQ(streamed[i].late.load(), 0);
    }
}

// Handles of both families made, used and destroyed on four threads. Hosts
// run a family's InitModel alone within that family (its callback pair is
// shared), so each family's inits take its lock alone and its other slots
// take it shared; the two families overlap freely.
TEST(Concurrency, HandlesOfBothFamiliesComeAndGoOnSeveralThreads) {
    const std::string llmDir = host::ModelDir("tiny-llm").string(), whisperDir = host::ModelDir("tiny-whisper").string();
    std::string expected;
    {
        LlmModel model(llmDir, 6);
        expected = LlmQuery(model.handle(), "Once upon a time");
    }
    ASSERT_NE(expected, "<failed>");
    std::shared_mutex llmInits, whisperInits;
    const int rounds = 4;
    auto work = [&](int t) {
        for (int r = 0; r < rounds; ++r) {
            void* handle = nullptr;
            if ((t + r) % 2 == 0) {
                {
                    std::unique_lock<std::shared_mutex> alone(llmInits);
                    ASSERT_EQ(Llm().InitModel(llmDir.c_str(), DEVICE_CPU, 6, &handle, &host::Callbacks(Pair::A)), 0);
                }
                std::shared_lock<std::shared_mutex> shared(llmInits);
                EXPECT_EQ(LlmQuery(handle, "Once upon a time"), expected);
                EXPECT_EQ(Llm().DestroyModel(handle), 0);
            } else {
                {
                    std::unique_lock<std::shared_mutex> alone(whisperInits);
                    ASSERT_EQ(Whisper().InitModel(whisperDir.c_str(), DEVICE_CPU, &handle, &host::Callbacks(Pair::B)), 0);
                }
                std::shared_lock<std::shared_mutex> shared(whisperInits);
                char* text = nullptr;
                EXPECT_EQ(Whisper().SetConfigProperty(handle, "max_new_tokens", "3"), 0);
                ASSERT_EQ(Whisper().GetConfigProperty(handle, "max_new_tokens", &text), 0);
                EXPECT_STREQ(text, "3");
                Whisper().FreeConfigProperty(text);
                EXPECT_EQ(Whisper().DestroyModel(handle), 0);
            }
        }
    };
    host::ClearInboxes();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back(work, t);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(InboxOf(Pair::A).logs.size() + InboxOf(Pair::B).logs.size(), 4u * rounds);
    for (Pair pair : {Pair::A, Pair::B})
        for (const std::string& error : InboxOf(pair).errors) ADD_FAILURE() << error;
}

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

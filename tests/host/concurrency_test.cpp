// The generating thread meeting the host's threads; run under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"

using namespace host;

namespace {

// What the host function saw; global because a TextCallback carries no context.
struct Seen {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> pieces;
    size_t holdAt = 0;  // at this piece, wait until `released`
    bool released = false;
    std::atomic<int> inside{0};  // host functions running right now
    std::atomic<bool> overlapped{false}, returned{false};
    std::atomic<int> afterReturn{0};
} seen;

int OnText(char* piece) {
    if (seen.inside.fetch_add(1) != 0) seen.overlapped = true;
    if (seen.returned) ++seen.afterReturn;
    {
        std::unique_lock<std::mutex> lock(seen.mutex);
        seen.pieces.emplace_back(piece);
        if (seen.pieces.size() == seen.holdAt) {
            seen.changed.notify_all();
            seen.changed.wait(lock, [] { return seen.released; });
        }
    }
    seen.inside.fetch_sub(1);
    return 0;
}

// Resets what the host function saw before a waiting thread starts, so none sees the last stream's.
void Expect(size_t holdAt = 0) {
    std::lock_guard<std::mutex> lock(seen.mutex);
    seen.pieces.clear();
    seen.holdAt = holdAt;
    seen.released = false;
}

int32_t Stream(void* handle) {
    seen.returned = false;
    char prompt[] = "Once upon a time";
    const int32_t status = Llm().StreamModel(handle, prompt, OnText);
    seen.returned = true;
    return status;
}

std::string Joined() {
    std::string text;
    for (const std::string& piece : seen.pieces) text += piece;
    return text;
}

// Waits until the stream holds at its piece, runs `whileHeld`, then lets it go on.
template <class Action>
void WhenHeld(Action&& whileHeld) {
    std::unique_lock<std::mutex> lock(seen.mutex);
    EXPECT_TRUE(seen.changed.wait_for(lock, std::chrono::minutes(1), [] { return seen.pieces.size() >= seen.holdAt; }))
        << "the stream ended before its piece " << seen.holdAt;
    lock.unlock();
    whileHeld();
    lock.lock();
    seen.released = true;
    seen.changed.notify_all();
}

}  // namespace

// The host function's calls never overlap and end before StreamModel returns;
// held inside it while another thread cancels, the stream lets no piece slip through.
TEST(LlmStream, CancelsFromOtherThreadsStopItAtOnceAndAreForgotten) {
    void* handle = nullptr;  // destroyed by hand, right after its cancelled stream
    ASSERT_EQ(Llm().InitModel(host::ModelDir("tiny-llm").c_str(), DEVICE_CPU, 200, &handle,
                              &host::Callbacks(host::Pair::A)),
              0);
    Expect();
    ASSERT_EQ(Stream(handle), 0);
    const std::string full = Joined();
    const size_t holdAt = 6;
    ASSERT_GT(seen.pieces.size(), 4 * holdAt);

    // Cancels racing the whole stream from two threads until it ends; none
    // outlives it.
    std::atomic<bool> streaming{true};
    auto hammer = [&] {
        while (streaming) EXPECT_EQ(Llm().CancelModel(handle), 0);
    };
    Expect();
    std::thread c1(hammer), c2(hammer);
    EXPECT_EQ(Stream(handle), 0);
    streaming = false;
    c1.join();
    c2.join();
    EXPECT_TRUE(StartsWith(full, Joined()));
    Expect();
    ASSERT_EQ(Stream(handle), 0);
    EXPECT_EQ(Joined(), full);

    // Cancelled while held inside the host function: no further piece.
    Expect(holdAt);
    std::thread canceller([&] {
        WhenHeld([&] {
            for (int i = 0; i < 1000; ++i) EXPECT_EQ(Llm().CancelModel(handle), 0);
        });
    });
    EXPECT_EQ(Stream(handle), 0);
    canceller.join();
    EXPECT_EQ(Llm().DestroyModel(handle), 0);
    EXPECT_EQ(seen.pieces.size(), holdAt);
    EXPECT_TRUE(StartsWith(full, Joined()));
    EXPECT_FALSE(seen.overlapped);
    EXPECT_EQ(seen.afterReturn.load(), 0);
}

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

// Handles of both families on four threads answer as alone. A family's
// InitModel runs alone within the family (its callback pair is shared); the
// families overlap freely.
TEST(Concurrency, HandlesOfBothFamiliesComeAndGoOnSeveralThreadsAndAnswerAsAlone) {
    const std::string llmDir = host::ModelDir("tiny-llm").string(), whisperDir = host::ModelDir("tiny-whisper").string();
    const std::vector<float> audio = host::Tone(32000, 300);
    const char* const prompts[] = {"Once upon a time", "The weather today"};
    std::string expected[3];
    {
        LlmModel llm(llmDir, 24);
        WhisperModel whisper(whisperDir, 12);
        for (int i = 0; i < 2; ++i) expected[i] = LlmQuery(llm.handle(), prompts[i]);
        expected[2] = WhisperQuery(whisper.handle(), audio);
    }
    ASSERT_NE(expected[0], "<failed>");
    ASSERT_NE(expected[0], expected[1]);
    ASSERT_NE(expected[2], "<failed>");
    std::shared_mutex llmInits, whisperInits;
    const int rounds = 3;
    auto work = [&](int t) {
        for (int r = 0; r < rounds; ++r) {
            void* handle = nullptr;
            if ((t + r) % 2 == 0) {
                {
                    std::unique_lock<std::shared_mutex> alone(llmInits);
                    ASSERT_EQ(Llm().InitModel(llmDir.c_str(), DEVICE_CPU, 24, &handle, &host::Callbacks(Pair::A)), 0);
                }
                std::shared_lock<std::shared_mutex> shared(llmInits);
                EXPECT_EQ(LlmQuery(handle, prompts[t / 2]), expected[t / 2]);
                EXPECT_EQ(Llm().DestroyModel(handle), 0);
            } else {
                {
                    std::unique_lock<std::shared_mutex> alone(whisperInits);
                    ASSERT_EQ(Whisper().InitModel(whisperDir.c_str(), DEVICE_CPU, &handle, &host::Callbacks(Pair::B)), 0);
                }
                std::shared_lock<std::shared_mutex> shared(whisperInits);
                EXPECT_EQ(Whisper().SetConfigProperty(handle, "max_new_tokens", "12"), 0);
                EXPECT_EQ(WhisperQuery(handle, audio), expected[2]);
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

// The process's first tokenizations, on two handles at once, must not wait for
// each other on the runtime's lazy setup (run in a process of its own).
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

// Threads meeting in the library: handles generating side by side, cancels
// racing a stream, a handle destroyed right after its cancelled generation.
// Built into the ThreadSanitizer run (CMakePresets.json, preset tsan).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"

namespace fs = std::filesystem;
using host::Callbacks;
using host::InboxOf;
using host::Llm;
using host::Pair;
using host::Whisper;

namespace {

// Handles owned by one test thread; each checks its own results, so the
// shared inboxes are not needed except where a test reads them.
void* NewLlm(int contextLength) {
    void* handle = nullptr;
    EXPECT_EQ(Llm().InitModel(host::ModelDir("tiny-llm").c_str(), DEVICE_CPU, contextLength, &handle,
                              &Callbacks(Pair::A)),
              0);
    return handle;
}

void* NewWhisper(const char* maxTokens) {
    void* handle = nullptr;
    EXPECT_EQ(Whisper().InitModel(host::ModelDir("tiny-whisper").c_str(), DEVICE_CPU, &handle, &Callbacks(Pair::B)),
              0);
    if (maxTokens != nullptr) EXPECT_EQ(Whisper().SetConfigProperty(handle, "max_new_tokens", maxTokens), 0);
    return handle;
}

std::string LlmQuery(void* handle, const char* prompt) {
    char* text = nullptr;
    if (Llm().QueryModel(handle, prompt, &text) != 0) return "<failed>";
    std::string result = text;
    Llm().FreeQueryResult(text);
    return result;
}

std::vector<float> Tone(size_t samples, double hertz) {
    std::vector<float> audio(samples);
    for (size_t i = 0; i < samples; ++i) audio[i] = 0.3f * std::sin(2 * M_PI * hertz * i / 16000.0);
    return audio;
}

std::string WhisperQuery(void* handle, const std::vector<float>& audio) {
    char* text = nullptr;
    if (Whisper().QueryModel(handle, audio.data(), static_cast<int32_t>(audio.size()), &text) != 0) return "<failed>";
    std::string result = text;
    Whisper().FreeQueryResult(text);
    return result;
}

// What the streaming host function saw; a TextCallback carries no context.
struct StreamState {
    std::mutex mutex;
    std::condition_variable changed;
    std::string text;
    size_t pieces = 0;
    size_t holdAt = 0;     // at this piece, wait until `released`
    bool released = false;
    std::atomic<int> inside{0};  // host functions running right now
    std::atomic<bool> overlapped{false};
    std::atomic<bool> returned{false};
    std::atomic<int> afterReturn{0};
} state;

int OnPiece(char* piece) {
    if (state.inside.fetch_add(1) != 0) state.overlapped = true;
    if (state.returned) ++state.afterReturn;
    {
        std::unique_lock<std::mutex> lock(state.mutex);
        state.text += piece;
        if (++state.pieces == state.holdAt) {
            state.changed.notify_all();
            state.changed.wait(lock, [] { return state.released; });
        }
    }
    state.inside.fetch_sub(1);
    return 0;
}

// Resets what the host function saw; called before any thread that waits on
// the stream starts, so none can take the previous stream's state for this one's.
void Expect(size_t holdAt) {
    std::lock_guard<std::mutex> lock(state.mutex);
    state.text.clear();
    state.pieces = 0;
    state.holdAt = holdAt;
    state.released = false;
}

int32_t Stream(void* handle, const char* prompt) {
    state.returned = false;
    const int32_t status = Llm().StreamModel(handle, const_cast<char*>(prompt), OnPiece);
    state.returned = true;
    return status;
}

// Waits until the stream holds at its piece, then runs `whileHeld` and lets it go on.
template <class Action>
void WhenHeld(Action&& whileHeld) {
    std::unique_lock<std::mutex> lock(state.mutex);
    state.changed.wait(lock, [] { return state.pieces >= state.holdAt; });
    lock.unlock();
    whileHeld();
    lock.lock();
    state.released = true;
    state.changed.notify_all();
}

}  // namespace

TEST(Concurrency, TwoLlmHandlesGenerateOnTwoThreadsAsTheyWouldAlone) {
    void* first = NewLlm(48);
    void* second = NewLlm(48);
    const std::string expectedFirst = LlmQuery(first, "Once upon a time");
    const std::string expectedSecond = LlmQuery(second, "The weather today");
    ASSERT_NE(expectedFirst, "<failed>");
    ASSERT_NE(expectedFirst, expectedSecond);

    std::vector<std::string> seenFirst, seenSecond;
    std::thread a([&] {
        for (int i = 0; i < 3; ++i) seenFirst.push_back(LlmQuery(first, "Once upon a time"));
    });
    std::thread b([&] {
        for (int i = 0; i < 3; ++i) seenSecond.push_back(LlmQuery(second, "The weather today"));
    });
    a.join();
    b.join();
    EXPECT_EQ(seenFirst, std::vector<std::string>(3, expectedFirst));
    EXPECT_EQ(seenSecond, std::vector<std::string>(3, expectedSecond));
    Llm().DestroyModel(first);
    Llm().DestroyModel(second);
}

// The host function runs on a thread of the runtime's choosing, but its
// calls never overlap and all of them end before StreamModel returns.
TEST(Concurrency, AThousandCancelsDuringOneStreamStopItOnceAndAreForgotten) {
    void* handle = NewLlm(200);
    Expect(0);
    ASSERT_EQ(Stream(handle, "Once upon a time"), 0);
    const std::string full = state.text;
    const size_t holdAt = 6;
    ASSERT_GT(state.pieces, 4 * holdAt);

    std::atomic<int> accepted{0};
    Expect(holdAt);
    std::thread canceller([&] {
        WhenHeld([&] {
            for (int i = 0; i < 1000; ++i) accepted += Llm().CancelModel(handle) == 0;
        });
    });
    EXPECT_EQ(Stream(handle, "Once upon a time"), 0);
    canceller.join();
    EXPECT_EQ(accepted.load(), 1000);
    EXPECT_EQ(state.pieces, holdAt);
    EXPECT_EQ(full.rfind(state.text, 0), 0u);

    // Cancels racing the whole stream, from two threads, until it ends.
    std::atomic<bool> streaming{true};
    std::atomic<int> calls{0};
    auto hammer = [&] {
        while (streaming) {
            EXPECT_EQ(Llm().CancelModel(handle), 0);
            ++calls;
        }
    };
    Expect(0);
    std::thread c1(hammer), c2(hammer);
    EXPECT_EQ(Stream(handle, "Once upon a time"), 0);
    streaming = false;
    c1.join();
    c2.join();
    EXPECT_EQ(full.rfind(state.text, 0), 0u);

    // The next stream clears the flag the storm left raised and runs to its end.
    Expect(0);
    ASSERT_EQ(Stream(handle, "Once upon a time"), 0);
    EXPECT_EQ(state.text, full);
    EXPECT_FALSE(state.overlapped);
    EXPECT_EQ(state.afterReturn.load(), 0);
    std::printf("cancel calls racing one stream: %d\n", calls.load());
    Llm().DestroyModel(handle);
}

TEST(Concurrency, AHandleIsDestroyedRightAfterItsCancelledGeneration) {
    // A stream held mid-way, cancelled from another thread, destroyed by the
    // generating thread as soon as StreamModel returns.
    void* handle = NewLlm(200);
    Expect(3);
    std::thread canceller([&] { WhenHeld([&] { EXPECT_EQ(Llm().CancelModel(handle), 0); }); });
    EXPECT_EQ(Stream(handle, "Once upon a time"), 0);
    canceller.join();
    EXPECT_EQ(state.pieces, 3u);
    EXPECT_EQ(Llm().DestroyModel(handle), 0);

    // A cancel with nothing running, then destroy: nothing is left waiting.
    handle = NewLlm(8);
    EXPECT_EQ(Llm().CancelModel(handle), 0);
    EXPECT_EQ(Llm().DestroyModel(handle), 0);

    // The same for a transcription, cancelled while it runs.
    void* whisper = NewWhisper(nullptr);
    const std::vector<float> audio = Tone(16000, 440);
    std::atomic<bool> running{true};
    std::thread whisperCanceller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        while (running) EXPECT_EQ(Whisper().CancelModel(whisper), 0);
    });
    EXPECT_NE(WhisperQuery(whisper, audio), "<failed>");
    running = false;
    whisperCanceller.join();
    EXPECT_EQ(Whisper().DestroyModel(whisper), 0);

    // The family still works.
    void* fresh = NewLlm(8);
    EXPECT_NE(LlmQuery(fresh, "Once upon a time"), "<failed>");
    Llm().DestroyModel(fresh);
}

TEST(Concurrency, AWhisperAndAnLlmHandleWorkSideBySide) {
    void* llm = NewLlm(32);
    void* whisper = NewWhisper("12");
    const std::vector<float> audio = Tone(32000, 300);
    const std::string expectedText = LlmQuery(llm, "Once upon a time");
    const std::string expectedTranscript = WhisperQuery(whisper, audio);
    ASSERT_NE(expectedText, "<failed>");
    ASSERT_NE(expectedTranscript, "<failed>");

    std::vector<std::string> texts, transcripts;
    std::thread a([&] {
        for (int i = 0; i < 3; ++i) texts.push_back(LlmQuery(llm, "Once upon a time"));
    });
    std::thread b([&] {
        for (int i = 0; i < 3; ++i) transcripts.push_back(WhisperQuery(whisper, audio));
    });
    a.join();
    b.join();
    EXPECT_EQ(texts, std::vector<std::string>(3, expectedText));
    EXPECT_EQ(transcripts, std::vector<std::string>(3, expectedTranscript));
    Llm().DestroyModel(llm);
    Whisper().DestroyModel(whisper);
}

// Failures on distinct handles at once each reach the family's pair once.
TEST(Concurrency, FailuresOnTwoThreadsAreEachReportedOnce) {
    void* llm = NewLlm(8);
    void* whisper = NewWhisper("4");
    host::ClearInboxes();
    const int rounds = 200;
    std::thread a([&] {
        for (int i = 0; i < rounds; ++i) EXPECT_EQ(Llm().SetConfigProperty(llm, "top_k", "many"), 1);
    });
    std::thread b([&] {
        const float sample = 0;
        for (int i = 0; i < rounds; ++i) EXPECT_EQ(Whisper().QueryModel(whisper, &sample, -1, nullptr), 1);
    });
    std::thread c([&] {
        for (int i = 0; i < rounds; ++i) EXPECT_EQ(Llm().CancelModel(nullptr), 1);
    });
    a.join();
    b.join();
    c.join();
    EXPECT_EQ(InboxOf(Pair::A).errors.size(), 2u * rounds);
    EXPECT_EQ(InboxOf(Pair::B).errors, std::vector<std::string>(rounds, "vector too long"));
    Llm().DestroyModel(llm);
    Whisper().DestroyModel(whisper);
}

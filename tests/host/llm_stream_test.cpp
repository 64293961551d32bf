// Streams and cancels, the generating thread meeting the host's threads.
// Built into the ThreadSanitizer run (tests/sanitizers/tests.cmake).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"

using host::Llm;
using host::LlmModel;
using host::StartsWith;

namespace {

const char* const kPrompt = "Once upon a time";

// What the host function saw; global because a TextCallback carries no context.
struct Seen {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> pieces;
    size_t stopAt = 0;  // return non-zero from this piece on
    size_t holdAt = 0;  // at this piece, wait until `released`
    bool released = false;
    std::atomic<int> inside{0};  // host functions running right now
    std::atomic<bool> overlapped{false}, returned{false};
    std::atomic<int> afterReturn{0};
} seen;

int OnText(char* piece) {
    if (seen.inside.fetch_add(1) != 0) seen.overlapped = true;
    if (seen.returned) ++seen.afterReturn;
    bool stop;
    {
        std::unique_lock<std::mutex> lock(seen.mutex);
        seen.pieces.emplace_back(piece);
        if (seen.pieces.size() == seen.holdAt) {
            seen.changed.notify_all();
            seen.changed.wait(lock, [] { return seen.released; });
        }
        stop = seen.stopAt != 0 && seen.pieces.size() >= seen.stopAt;
    }
    seen.inside.fetch_sub(1);
    return stop;
}

// Resets what the host function saw before any thread that waits on the
// stream starts, so none can take the previous stream's state for this one's.
void Expect(size_t stopAt = 0, size_t holdAt = 0) {
    std::lock_guard<std::mutex> lock(seen.mutex);
    seen.pieces.clear();
    seen.stopAt = stopAt;
    seen.holdAt = holdAt;
    seen.released = false;
}

int32_t Stream(void* handle, const char* prompt = kPrompt) {
    seen.returned = false;
    const int32_t status = Llm().StreamModel(handle, const_cast<char*>(prompt), OnText);
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

TEST(LlmStream, PiecesMakeUpTheQueryTextAndTheHostMayStopThem) {
    LlmModel model(host::ModelDir("tiny-llm"), 24);
    std::string queried;
    ASSERT_EQ(model.Query(kPrompt, queried), 0);
    Expect();
    ASSERT_EQ(Stream(model.handle()), 0);
    EXPECT_GT(seen.pieces.size(), 4u);
    EXPECT_EQ(Joined(), queried);

    Expect(1);
    ASSERT_EQ(Stream(model.handle()), 0);
    EXPECT_LE(seen.pieces.size(), 2u);
    EXPECT_TRUE(StartsWith(queried, Joined()));
    // A cancel between generations is forgotten by the next one.
    std::string again;
    EXPECT_EQ(Llm().CancelModel(model.handle()), 0);
    ASSERT_EQ(model.Query(kPrompt, again), 0);
    EXPECT_EQ(again, queried);
}

// The host function runs on a thread of the runtime's choosing, but its calls
// never overlap and all end before StreamModel returns. Held inside the host
// function while another thread cancels, the stream may let no piece slip
// through however the threads are scheduled.
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
    Expect(0, holdAt);
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

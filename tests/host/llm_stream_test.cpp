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

namespace {

// What the host function saw; global because the callback is a plain function.
struct Received {
    std::vector<std::string> pieces;
    int stopAfter = -1;  // non-zero return after this many pieces
    std::atomic<bool> cancelReturned{false};
    int afterCancel = 0;
    std::mutex mutex;
    std::condition_variable reachedHalf;
    int signalAt = -1;
} received;

int OnText(char* piece) {
    std::lock_guard<std::mutex> lock(received.mutex);
    received.pieces.emplace_back(piece);
    if (received.cancelReturned) ++received.afterCancel;
    if (static_cast<int>(received.pieces.size()) == received.signalAt) received.reachedHalf.notify_all();
    return received.stopAfter >= 0 && static_cast<int>(received.pieces.size()) >= received.stopAfter;
}

std::string Joined() {
    std::string text;
    for (const std::string& piece : received.pieces) text += piece;
    return text;
}

int32_t Stream(void* handle, const char* prompt, int stopAfter = -1) {
    received.pieces.clear();
    received.stopAfter = stopAfter;
    received.cancelReturned = false;
    received.afterCancel = 0;
    received.signalAt = -1;
    return Llm().StreamModel(handle, const_cast<char*>(prompt), OnText);
}

}  // namespace

TEST(LlmStream, PiecesConcatenateToTheQueryTextAndTheHostCanStopIt) {
    LlmModel model(host::ModelDir("tiny-llm"), 12);
    std::string queried;
    ASSERT_EQ(model.Query("Once upon a time", queried), 0);
    ASSERT_EQ(Stream(model.handle(), "Once upon a time"), 0);
    EXPECT_GT(received.pieces.size(), 1u);
    EXPECT_EQ(Joined(), queried);

    ASSERT_EQ(Stream(model.handle(), "Once upon a time", 1), 0);
    EXPECT_LE(received.pieces.size(), 2u);
    // A host's stop raises no cancel: the next stream runs in full.
    ASSERT_EQ(Stream(model.handle(), "Once upon a time"), 0);
    EXPECT_EQ(Joined(), queried);
}

TEST(LlmStream, ACancelBeforeAGenerationIsForgotten) {
    LlmModel model(host::ModelDir("tiny-llm"), 10);
    std::string full, afterCancel;
    ASSERT_EQ(model.Query("Hello", full), 0);
    EXPECT_EQ(Llm().CancelModel(model.handle()), 0);
    ASSERT_EQ(model.Query("Hello", afterCancel), 0);
    EXPECT_EQ(afterCancel, full);
    EXPECT_EQ(Llm().CancelModel(model.handle()), 0);
    ASSERT_EQ(Stream(model.handle(), "Hello"), 0);
    EXPECT_EQ(Joined(), full);
}

TEST(LlmStream, ACancelFromAnotherThreadEndsTheStreamAtOnce) {
    LlmModel model(host::ModelDir("tiny-llm"), 400);
    received.pieces.clear();
    received.stopAfter = -1;
    received.cancelReturned = false;
    received.afterCancel = 0;
    received.signalAt = 20;
    std::chrono::nanoseconds cancelTook{};
    std::thread canceller([&] {
        std::unique_lock<std::mutex> lock(received.mutex);
        received.reachedHalf.wait(lock, [] { return static_cast<int>(received.pieces.size()) >= 20; });
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(Llm().CancelModel(model.handle()), 0);
        cancelTook = std::chrono::steady_clock::now() - start;
        received.cancelReturned = true;
    });
    EXPECT_EQ(Llm().StreamModel(model.handle(), const_cast<char*>("Once upon a time"), OnText), 0);
    canceller.join();
    EXPECT_LT(received.pieces.size(), 100u);
    EXPECT_EQ(received.afterCancel, 0);
    std::printf("CancelModel during a stream: %lld ns; pieces after it returned: %d of %zu\n",
                static_cast<long long>(cancelTook.count()), received.afterCancel, received.pieces.size());
}

TEST(LlmStream, ACancelDuringAQueryReturnsTheTextSoFar) {
    LlmModel model(host::ModelDir("tiny-llm"), 2000);
    std::string shortened;
    std::thread canceller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        Llm().CancelModel(model.handle());
    });
    EXPECT_EQ(model.Query("Once upon a time", shortened), 0);
    canceller.join();
    EXPECT_FALSE(shortened.empty());
    EXPECT_LT(shortened.size(), 2000u * 3);  // far fewer than 2000 tokens' worth
}

TEST(LlmStream, InvalidSettingsFailBeforeAnyPiece) {
    host::TempDir dir;
    LlmModel model(host::ModelVariant(dir, "tiny-llm", R"({"num_beams": 2, "num_return_sequences": 3})"), 6);
    host::ClearInboxes();
    EXPECT_EQ(Stream(model.handle(), "Hello"), 1);
    EXPECT_TRUE(received.pieces.empty());
    ASSERT_EQ(host::InboxOf(host::Pair::A).errors.size(), 1u);
    EXPECT_EQ(host::InboxOf(host::Pair::A).errors[0].rfind("Failed to validate config: Check '", 0), 0u);
}

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"

using host::Llm;
using host::LlmModel;

namespace {

using Clock = std::chrono::steady_clock;

// What the host function saw; global because a TextCallback carries no context.
struct Seen {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> pieces;
    size_t stopAt = 0;   // return non-zero from this piece on
    size_t pauseAt = 0;  // at this piece, wait until `cancelled`
    bool cancelled = false, done = false;
    int afterCancel = 0;  // pieces that arrived once CancelModel had returned
} seen;

int OnText(char* piece) {
    std::unique_lock<std::mutex> lock(seen.mutex);
    if (seen.cancelled) ++seen.afterCancel;
    seen.pieces.emplace_back(piece);
    if (seen.pieces.size() == seen.pauseAt) {
        seen.changed.notify_all();
        seen.changed.wait(lock, [] { return seen.cancelled; });
    }
    return seen.stopAt != 0 && seen.pieces.size() >= seen.stopAt;
}

int32_t Stream(void* handle, const char* prompt, size_t stopAt = 0, size_t pauseAt = 0) {
    {
        std::lock_guard<std::mutex> lock(seen.mutex);
        seen.pieces.clear();
        seen.stopAt = stopAt;
        seen.pauseAt = pauseAt;
        seen.cancelled = seen.done = false;
        seen.afterCancel = 0;
    }
    const int32_t status = Llm().StreamModel(handle, const_cast<char*>(prompt), OnText);
    std::lock_guard<std::mutex> lock(seen.mutex);
    seen.done = true;
    seen.changed.notify_all();
    return status;
}

std::string Joined() {
    std::string text;
    for (const std::string& piece : seen.pieces) text += piece;
    return text;
}

bool StartsWith(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }

}  // namespace

TEST(LlmStream, PiecesMakeUpTheQueryTextAndTheHostMayStopThem) {
    LlmModel model(host::ModelDir("tiny-llm"), 24);
    std::string queried;
    ASSERT_EQ(model.Query("Once upon a time", queried), 0);
    ASSERT_EQ(Stream(model.handle(), "Once upon a time"), 0);
    EXPECT_GT(seen.pieces.size(), 4u);
    EXPECT_EQ(Joined(), queried);

    ASSERT_EQ(Stream(model.handle(), "Once upon a time", 1), 0);
    EXPECT_LE(seen.pieces.size(), 2u);
    EXPECT_TRUE(StartsWith(queried, Joined()));
    // The host's stop raises no cancel: the next stream runs to its end.
    ASSERT_EQ(Stream(model.handle(), "Once upon a time"), 0);
    EXPECT_EQ(Joined(), queried);

    // A cancel between generations is forgotten by the next one.
    std::string again;
    EXPECT_EQ(Llm().CancelModel(model.handle()), 0);
    ASSERT_EQ(model.Query("Once upon a time", again), 0);
    EXPECT_EQ(again, queried);
    EXPECT_EQ(Llm().CancelModel(model.handle()), 0);
    ASSERT_EQ(Stream(model.handle(), "Once upon a time"), 0);
    EXPECT_EQ(Joined(), queried);
}

// The generating thread waits inside the host function while another thread
// cancels, so no piece may slip through however the threads are scheduled.
TEST(LlmStream, ACancelFromAnotherThreadLetsNoFurtherPieceThrough) {
    LlmModel model(host::ModelDir("tiny-llm"), 200);
    ASSERT_EQ(Stream(model.handle(), "Once upon a time"), 0);
    const std::string full = Joined();
    const size_t pauseAt = 8;
    ASSERT_GT(seen.pieces.size(), 3 * pauseAt);

    {
        // The canceller must not take the previous stream's end for this one's.
        std::lock_guard<std::mutex> lock(seen.mutex);
        seen.pieces.clear();
        seen.done = false;
    }
    Clock::duration took{};
    std::thread canceller([&] {
        std::unique_lock<std::mutex> lock(seen.mutex);
        seen.changed.wait(lock, [&] { return seen.pieces.size() >= pauseAt || seen.done; });
        lock.unlock();
        const auto cancel = Llm().CancelModel;  // looked up before timing
        const Clock::time_point start = Clock::now();
        const int32_t status = cancel(model.handle());
        took = Clock::now() - start;
        EXPECT_EQ(status, 0);
        lock.lock();
        seen.cancelled = true;
        seen.changed.notify_all();
    });
    EXPECT_EQ(Stream(model.handle(), "Once upon a time", 0, pauseAt), 0);
    canceller.join();
    EXPECT_EQ(seen.pieces.size(), pauseAt);
    EXPECT_EQ(seen.afterCancel, 0);
    EXPECT_TRUE(StartsWith(full, Joined()));
    std::printf("CancelModel while the stream waited in the host: %lld ns; pieces after it: %d\n",
                static_cast<long long>(std::chrono::nanoseconds(took).count()), seen.afterCancel);
}

TEST(LlmStream, ACancelDuringAQueryReturnsTheTextSoFar) {
    LlmModel model(host::ModelDir("tiny-llm"), 600);
    std::string full, shortened;
    const Clock::time_point start = Clock::now();
    ASSERT_EQ(model.Query("Once upon a time", full), 0);
    const Clock::duration whole = Clock::now() - start;

    Clock::duration took{};
    std::thread canceller([&] {
        const auto cancel = Llm().CancelModel;
        std::this_thread::sleep_for(whole / 4);
        const Clock::time_point begin = Clock::now();
        const int32_t status = cancel(model.handle());
        took = Clock::now() - begin;
        EXPECT_EQ(status, 0);
    });
    EXPECT_EQ(model.Query("Once upon a time", shortened), 0) << shortened;
    canceller.join();
    EXPECT_FALSE(shortened.empty());
    EXPECT_LT(shortened.size(), full.size());
    // The last token may decode differently once cut off.
    EXPECT_TRUE(StartsWith(full, shortened.substr(0, shortened.size() - 4)));
    std::printf("CancelModel while a query generated: %lld ns (query %lld ms; %zu of %zu bytes)\n",
                static_cast<long long>(std::chrono::nanoseconds(took).count()),
                static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(whole).count()),
                shortened.size(), full.size());
}

TEST(LlmStream, SettingsTheRuntimeRejectsFailBeforeAnyPiece) {
    host::TempDir dir;
    LlmModel model(host::ModelVariant(dir, "tiny-llm", R"({"num_beams": 2, "num_return_sequences": 3})"), 6);
    host::ClearInboxes();
    EXPECT_EQ(Stream(model.handle(), "Hello"), 1);
    EXPECT_TRUE(seen.pieces.empty());
    ASSERT_EQ(host::InboxOf(host::Pair::A).errors.size(), 1u);
    EXPECT_TRUE(StartsWith(host::InboxOf(host::Pair::A).errors[0], "Failed to validate config: Check '"));

    // A stop string that is no text fails validation outside the runtime's
    // assertions: QueryModel says 3 with its prefix, StreamModel 1 with the text alone.
    LlmModel plain(host::ModelDir("tiny-llm"), 6);
    const char* stop[] = {"\xff"};
    ASSERT_EQ(Llm().SetStopStrings(plain.handle(), stop, 1), 0);
    std::string queried;
    EXPECT_EQ(plain.Query("Hello", queried), 3);
    const std::string prefix = "Failure during config validation: ";
    ASSERT_TRUE(StartsWith(queried, prefix)) << queried;
    host::ClearInboxes();
    EXPECT_EQ(Stream(plain.handle(), "Hello"), 1);
    EXPECT_TRUE(seen.pieces.empty());
    EXPECT_EQ(host::InboxOf(host::Pair::A).errors, std::vector<std::string>{queried.substr(prefix.size())});
    std::printf("A stop string \"\\xff\": %s\n", queried.c_str());
}

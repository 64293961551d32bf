#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness.h"

namespace fs = std::filesystem;
using host::Callbacks;
using host::InboxOf;
using host::Llm;
using host::LlmInitError;
using host::Pair;

TEST(LlmInit, ReportsTheFirstFailingCheckInOrder) {
    host::TempDir dir;
    dir.Touch("file.txt");
    const fs::path model = host::ModelDir("tiny-llm");
    EXPECT_EQ(LlmInitError(dir.path() / "missing", 7, 0), "The context length must be greater than 0");
    EXPECT_EQ(LlmInitError(model, 0, -3), "The context length must be greater than 0");
    EXPECT_EQ(LlmInitError(dir.path() / "missing", 0, 16), "The provided model path is not a directory");
    EXPECT_EQ(LlmInitError(dir.path() / "file.txt", 0, 16), "The provided model path is not a directory");
    // Properties are built before the device is named.
    EXPECT_EQ(LlmInitError(model, 7, 16), "7device type is not supported");
    EXPECT_EQ(LlmInitError(model, -1, 16), "-1device type is not supported");
    EXPECT_EQ(LlmInitError(dir.path(), 2, 16), "The provided cache dreictory does not contain an expected blob file");
}

TEST(LlmInit, NpuWithABlobBelowPassesTheChecksAndReachesTheRuntime) {
    host::TempDir dir;
    const fs::path model = host::ModelVariant(dir, "tiny-llm", "{}");
    dir.Touch(fs::path("tiny-llm") / "nested" / "deeper" / "model.blob");
    // This machine has no NPU: the runtime itself fails, past every check of ours.
    const std::string message = LlmInitError(model, 2, 16);
    EXPECT_NE(message.find("Exception from"), std::string::npos) << message;
    EXPECT_EQ(message.find("blob file"), std::string::npos) << message;
}

TEST(LlmInit, RefusesMissingCallbacksWithoutCrashing) {
    const fs::path model = host::ModelDir("tiny-llm");
    void* handle = nullptr;
    EXPECT_EQ(Llm().InitModel(model.c_str(), 0, 16, &handle, nullptr), 1);
    const HostCallbacks noError = {Callbacks(Pair::A).log, nullptr};
    EXPECT_EQ(Llm().InitModel(model.c_str(), 0, 16, &handle, &noError), 1);
    EXPECT_EQ(handle, nullptr);
    // A missing log function is skipped; the model still loads.
    host::ClearInboxes();
    const HostCallbacks noLog = {nullptr, Callbacks(Pair::A).error};
    ASSERT_EQ(Llm().InitModel(model.c_str(), 0, 16, &handle, &noLog), 0);
    EXPECT_NE(handle, nullptr);
    EXPECT_TRUE(InboxOf(Pair::A).logs.empty());
    EXPECT_EQ(Llm().DestroyModel(handle), 0);
}

TEST(LlmInit, ALaterInitRedirectsEveryHandleOfItsFamilyOnly) {
    const fs::path model = host::ModelDir("tiny-llm");
    void* whisperHandle = nullptr;
    host::Whisper().InitModel("", 9, &whisperHandle, &Callbacks(Pair::A));

    void* handle = nullptr;
    ASSERT_EQ(Llm().InitModel(model.c_str(), 0, 16, &handle, &Callbacks(Pair::A)), 0);
    // The second init fails, but its pair is already in place for its own report.
    host::ClearInboxes();
    void* other = nullptr;
    EXPECT_EQ(Llm().InitModel("", 0, 0, &other, &Callbacks(Pair::B)), 1);
    EXPECT_EQ(InboxOf(Pair::B).errors, std::vector<std::string>{"The context length must be greater than 0"});

    EXPECT_EQ(Llm().QueryModel(nullptr, "x", nullptr), 1);
    EXPECT_EQ(host::Whisper().CancelModel(nullptr), 1);
    EXPECT_EQ(InboxOf(Pair::B).errors.back(), "Model handle is null when querying model");
    EXPECT_EQ(InboxOf(Pair::A).errors, std::vector<std::string>{"Model handle is null when canceling"});
    EXPECT_EQ(Llm().DestroyModel(handle), 0);
}

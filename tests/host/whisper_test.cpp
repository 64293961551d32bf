#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"

namespace fs = std::filesystem;
using host::Callbacks;
using host::InboxOf;
using host::Pair;
using host::Whisper;

namespace {

std::string InitError(const std::string& dir, int device) {
    host::ClearInboxes();
    void* const sentinel = reinterpret_cast<void*>(0x5eed);
    void* handle = sentinel;
    EXPECT_EQ(Whisper().InitModel(dir.c_str(), device, &handle, &Callbacks(Pair::B)), 1);
    EXPECT_EQ(handle, sentinel);
    EXPECT_EQ(InboxOf(Pair::B).logs, std::vector<std::string>{"Initializing OpenVINO Whisper model..."});
    EXPECT_EQ(InboxOf(Pair::B).errors.size(), 1u);
    return InboxOf(Pair::B).errors.empty() ? "" : InboxOf(Pair::B).errors.front();
}

}  // namespace

TEST(WhisperInit, JudgesTheDeviceFirstAndLeavesTheDirectoryToTheRuntime) {
    EXPECT_EQ(InitError("/nonexistent", 3), "3device type is not supported");
    EXPECT_EQ(InitError("", -1), "-1device type is not supported");
    // No directory, context or blob checks of its own, for any device.
    for (int device : {DEVICE_CPU, DEVICE_NPU}) {
        const std::string message = InitError("/nonexistent", device);
        EXPECT_NE(message.find("openvino_encoder_model.xml"), std::string::npos) << message;
        EXPECT_EQ(message.find("The provided"), std::string::npos) << message;
    }
}

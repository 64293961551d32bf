#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "harness.h"

using namespace host;

TEST(WhisperInit, JudgesTheDeviceFirstAndLeavesTheDirectoryToTheRuntime) {
    EXPECT_EQ(host::WhisperInitError("/nonexistent", 3), "3device type is not supported");
    // No directory, context or blob checks of its own, for any device.
    for (int device : {DEVICE_CPU, DEVICE_NPU}) {
        const std::string message = host::WhisperInitError("/nonexistent", device);
        EXPECT_NE(message.find("openvino_encoder_model.xml"), std::string::npos) << message;
        EXPECT_EQ(message.find("The provided"), std::string::npos) << message;
    }
}

TEST(WhisperQuery, StoredSettingsAreJudgedByTheNextTranscription) {
    WhisperModel model(host::ModelDir("tiny-whisper"), 4);
    // Settings are stored as given and refused only by the next validation.
    model.Set("language", "xyz");
    std::string message;
    EXPECT_EQ(model.Transcribe(host::Tone(16000), message), 1);
    EXPECT_EQ(message.rfind("Failed to validate config: Check 'it != lang_to_id.end()' failed at ", 0), 0u);
    EXPECT_NE(message.find("'language' xyz must be provided in 'lang_to_id' map."), std::string::npos);
    model.Set("language", "<|en|>");
    model.Set("task", "bogus");
    EXPECT_EQ(model.Transcribe(host::Tone(16000), message), 1);
    EXPECT_NE(message.find("Task provided: 'bogus'."), std::string::npos) << message;

    model.Set("task", "transcribe");
    EXPECT_EQ(model.Transcribe(host::Tone(16000), message), 0) << message;
    EXPECT_FALSE(message.empty());
}

// Text forms are the fuzzer's; here, the model's own defaults and the names.
TEST(WhisperSettings, DefaultsAndNames) {
    WhisperModel model(host::ModelDir("tiny-whisper"));
    auto get = [&](const char* name) {
        return host::TextOf(Pair::B, [&](char** out) { return Whisper().GetConfigProperty(model.handle(), name, out); });
    };
    // The model's own defaults: optional texts absent, the length bound of its config.
    for (const char* name : {"language", "task", "Language"})
        EXPECT_EQ(get(name), std::make_pair(1, std::string("An error occurred getting property ") + name +
                                                   ". Property name not supported."));
    EXPECT_EQ(get("max_length"), std::make_pair(0, std::string("448")));
    // Lists have slots of their own.
    EXPECT_EQ(Reported(Pair::B, [&] { return Whisper().SetConfigProperty(model.handle(), "lang_to_id", "en"); }),
              std::make_pair(1, std::string("An error occurred setting property lang_to_id. Property name not supported.")));
}

// How the lists behave is the fuzzer's; here they come from the model and go to the runtime.
TEST(WhisperLists, ComeFromTheModelAndStayApart) {
    WhisperModel model(host::ModelDir("tiny-whisper"), 4);
    const WhisperApiBase& api = Whisper();
    void* const h = model.handle();
    LangIdPair* pairs = nullptr;
    size_t count = 0;
    ASSERT_EQ(api.GetLangToId(h, &pairs, &count), 0);
    EXPECT_EQ(count, 99u);  // the multilingual vocabulary
    for (size_t i = 0; i < count; ++i) api.FreeQueryResult(pairs[i].language);
    EXPECT_EQ(api.FreeLangToId(pairs), 0);
    EXPECT_EQ(host::Ids(api.GetBeginSuppressTokens, h), (std::vector<int64_t>{220, 50257}));
    EXPECT_EQ(host::Ids(api.GetSuppressTokens, h).size(), 88u);

    // The runtime takes the replaced lists.
    const int64_t ids[] = {5, 5, 3};
    ASSERT_EQ(api.SetSuppressTokens(h, ids, 3), 0);
    ASSERT_EQ(api.SetBeginSuppressTokens(h, nullptr, 0), 0);
    std::string text;
    EXPECT_EQ(model.Transcribe(host::Tone(16000), text), 0) << text;
}

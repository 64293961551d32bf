#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "harness.h"

using host::Callbacks;
using host::InboxOf;
using host::Llm;
using host::LlmModel;
using host::Pair;

namespace {

bool StartsWith(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }

}  // namespace

TEST(LlmQuery, GeneratesDeterministicTextBoundedByTheContextLength) {
    std::string shortText, longText, again;
    {
        LlmModel model(host::ModelDir("tiny-llm"), 4);
        ASSERT_EQ(model.Query("Once upon a time", shortText), 0) << shortText;
    }
    LlmModel model(host::ModelDir("tiny-llm"), 12);
    ASSERT_EQ(model.Query("Once upon a time", longText), 0) << longText;
    ASSERT_EQ(model.Query("Once upon a time", again), 0);
    EXPECT_EQ(longText, again);
    // The context length is the default number of new tokens.
    EXPECT_FALSE(shortText.empty());
    EXPECT_GT(longText.size(), shortText.size());
    EXPECT_TRUE(StartsWith(longText, shortText)) << shortText << " / " << longText;
}

TEST(LlmQuery, TheTextIsOneTerminatedBufferThatOutlivesItsHandle) {
    void* handle = nullptr;
    ASSERT_EQ(Llm().InitModel(host::ModelDir("tiny-llm").c_str(), DEVICE_CPU, 6, &handle, &Callbacks(Pair::A)), 0);
    char* text = nullptr;
    ASSERT_EQ(Llm().QueryModel(handle, "Hello", &text), 0);
    const std::string copy(text);
    EXPECT_EQ(Llm().DestroyModel(handle), 0);
    EXPECT_EQ(std::string(text), copy);
    EXPECT_EQ(text[std::strlen(text)], '\0');
    EXPECT_EQ(Llm().FreeQueryResult(text), 0);
}

TEST(LlmQuery, FailuresDuringGenerationAreToldApartAndLeaveTheHandleUsable) {
    LlmModel model(host::ModelDir("tiny-llm"), 4);
    std::string result;
    // The runtime asserts on an empty prompt.
    EXPECT_EQ(model.Query("", result), 4);
    EXPECT_TRUE(StartsWith(result, "An OpenVINO assertion occurred while querying the model: Check '")) << result;
    // A prompt the runtime cannot take as text fails outside its assertions.
    EXPECT_EQ(model.Query("\xff\xfe", result), 5);
    EXPECT_TRUE(StartsWith(result, "An unknown error occurred while querying the model: ")) << result;
    EXPECT_EQ(model.Query("Hello", result), 0);
    EXPECT_FALSE(result.empty());
}

TEST(LlmQuery, SettingsTheRuntimeRejectsFailValidationWithStatusTwo) {
    host::TempDir dir;
    LlmModel model(host::ModelVariant(dir, "tiny-llm", R"({"num_beams": 2, "num_return_sequences": 3})"), 4);
    std::string result;
    EXPECT_EQ(model.Query("Hello", result), 2);
    EXPECT_TRUE(StartsWith(result, "Failed to validate config: Check 'num_beams >= num_return_sequences' failed at "))
        << result;
}

// Every query streams into the cancel check, and this runtime streams only a
// single greedy or sampled sequence: several sequences end in its assertion.
TEST(LlmQuery, SeveralReturnSequencesAreRefusedByTheRuntimeWhileGenerating) {
    host::TempDir dir;
    LlmModel model(host::ModelVariant(dir, "tiny-llm", R"({"num_beams": 2, "num_return_sequences": 2})"), 6);
    std::string result;
    EXPECT_EQ(model.Query("Hello there", result), 4);
    EXPECT_NE(result.find("streaming is possible only with batch size=1"), std::string::npos) << result;
}

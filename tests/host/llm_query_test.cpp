#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "harness.h"

using host::Callbacks;
using host::Llm;
using host::LlmModel;
using host::Pair;
using host::StartsWith;

TEST(LlmQuery, TheContextLengthAndMaxNewTokensBoundTheDeterministicText) {
    std::string fromContext, three, six, again;
    {
        LlmModel bounded(host::ModelDir("tiny-llm"), 3);
        ASSERT_EQ(bounded.Query("Once upon a time", fromContext), 0) << fromContext;
    }
    LlmModel model(host::ModelDir("tiny-llm"), 512);
    ASSERT_EQ(Llm().SetConfigProperty(model.handle(), "max_new_tokens", "3"), 0);
    ASSERT_EQ(model.Query("Once upon a time", three), 0) << three;
    ASSERT_EQ(Llm().SetConfigProperty(model.handle(), "max_new_tokens", "6"), 0);
    ASSERT_EQ(model.Query("Once upon a time", six), 0) << six;
    ASSERT_EQ(model.Query("Once upon a time", again), 0);
    // The context length is the default number of new tokens.
    EXPECT_EQ(three, fromContext);
    EXPECT_FALSE(three.empty());
    EXPECT_EQ(six, again);
    EXPECT_GT(six.size(), three.size());
    EXPECT_TRUE(StartsWith(six, three)) << three << " / " << six;
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

// Every query streams into the cancel check, and this runtime streams only a
// single greedy or sampled sequence: several sequences end in its assertion.
TEST(LlmQuery, SeveralReturnSequencesAreRefusedByTheRuntimeWhileGenerating) {
    host::TempDir dir;
    LlmModel model(host::ModelVariant(dir, "tiny-llm", R"({"num_beams": 2, "num_return_sequences": 2})"), 6);
    std::string result;
    EXPECT_EQ(model.Query("Hello there", result), 4);
    EXPECT_NE(result.find("streaming is possible only with batch size=1"), std::string::npos) << result;
}

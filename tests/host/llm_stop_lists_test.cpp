#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness.h"

using host::Llm;
using host::LlmModel;

namespace {

std::vector<std::string> StopStrings(void* handle) {
    char** const untouched = reinterpret_cast<char**>(0x1);
    char** strings = untouched;
    size_t count = 99;
    EXPECT_EQ(Llm().GetStopStrings(handle, &strings, &count), 0);
    if (count == 0) {
        EXPECT_EQ(strings, untouched);
        return {};
    }
    std::vector<std::string> result(strings, strings + count);
    EXPECT_EQ(Llm().FreeStopStrings(strings, count), 0);
    return result;
}

std::vector<int64_t> StopTokens(void* handle) {
    int64_t* const untouched = reinterpret_cast<int64_t*>(0x1);
    int64_t* ids = untouched;
    size_t count = 99;
    EXPECT_EQ(Llm().GetStopTokens(handle, &ids, &count), 0);
    if (count == 0) {
        EXPECT_EQ(ids, untouched);
        return {};
    }
    std::vector<int64_t> result(ids, ids + count);
    EXPECT_EQ(Llm().FreeStopTokens(ids), 0);
    return result;
}

std::vector<int64_t> Tokens(void* handle, const std::string& text) {
    int64_t* ids = nullptr;
    size_t count = 0;
    EXPECT_EQ(Llm().Tokenize(handle, text.c_str(), &ids, &count), 0);
    std::vector<int64_t> result(ids, ids + count);
    Llm().FreeTokens(ids);
    return result;
}

}  // namespace

TEST(LlmStopLists, AreSortedSetsReplacedWholeAndCopiedOut) {
    LlmModel model(host::ModelDir("tiny-llm"), 8);
    EXPECT_EQ(StopTokens(model.handle()), std::vector<int64_t>{2});  // the model's own eos
    const char* strings[] = {"b", "a", "b", "", "\xc3\xa9", "z"};
    ASSERT_EQ(Llm().SetStopStrings(model.handle(), strings, 6), 0);
    EXPECT_EQ(StopStrings(model.handle()), (std::vector<std::string>{"", "a", "b", "z", "\xc3\xa9"}));
    const int64_t ids[] = {5, -1, 5, 3};
    ASSERT_EQ(Llm().SetStopTokens(model.handle(), ids, 4), 0);
    EXPECT_EQ(StopTokens(model.handle()), (std::vector<int64_t>{-1, 3, 5}));
    ASSERT_EQ(Llm().SetStopStrings(model.handle(), nullptr, 0), 0);
    ASSERT_EQ(Llm().SetStopTokens(model.handle(), nullptr, 0), 0);
    EXPECT_TRUE(StopStrings(model.handle()).empty());
    EXPECT_TRUE(StopTokens(model.handle()).empty());
}

TEST(LlmStopLists, AStopStringOrTokenEndsGenerationEarly) {
    LlmModel model(host::ModelDir("tiny-llm"), 16);
    std::string full, stopped;
    ASSERT_EQ(model.Query("Once upon a time", full), 0);
    // Stop on the word that appears in the middle of what the model says.
    const std::string middle = full.substr(full.size() / 2, 4);
    const char* stop[] = {middle.c_str()};
    ASSERT_EQ(Llm().SetStopStrings(model.handle(), stop, 1), 0);
    ASSERT_EQ(model.Query("Once upon a time", stopped), 0);
    EXPECT_LT(stopped.size(), full.size());
    EXPECT_EQ(full.rfind(stopped.substr(0, stopped.size() / 2), 0), 0u) << stopped;

    ASSERT_EQ(Llm().SetStopStrings(model.handle(), nullptr, 0), 0);
    const std::vector<int64_t> generated = Tokens(model.handle(), full);
    ASSERT_GT(generated.size(), 4u);
    const int64_t ids[] = {2, generated[generated.size() / 2]};  // eos stays, as the runtime requires
    ASSERT_EQ(Llm().SetStopTokens(model.handle(), ids, 2), 0);
    ASSERT_EQ(model.Query("Once upon a time", stopped), 0);
    EXPECT_LT(stopped.size(), full.size());
}

TEST(LlmStopLists, AStopStringThatIsNoTextFailsValidationWithStatusThree) {
    LlmModel model(host::ModelDir("tiny-llm"), 8);
    const char* stop[] = {"\xff"};
    ASSERT_EQ(Llm().SetStopStrings(model.handle(), stop, 1), 0);
    std::string result;
    EXPECT_EQ(model.Query("Hello", result), 3);
    EXPECT_EQ(result.rfind("Failure during config validation: ", 0), 0u) << result;
}

TEST(LlmTokenize, MatchesTheRuntimeTokenizerAndAlwaysHandsOutAnArray) {
    LlmModel model(host::ModelDir("tiny-llm"), 8);
    EXPECT_EQ(Tokens(model.handle(), "hello world"), (std::vector<int64_t>{28120, 905}));
    EXPECT_EQ(Tokens(model.handle(), "hello world"), Tokens(model.handle(), "hello world"));
    int64_t* ids = nullptr;
    size_t count = 5;
    ASSERT_EQ(Llm().Tokenize(model.handle(), "", &ids, &count), 0);
    EXPECT_EQ(count, 0u);
    EXPECT_NE(ids, nullptr);
    EXPECT_EQ(Llm().FreeTokens(ids), 0);
}

TEST(LlmCompile, ChecksComeFirstAndCpuLeavesTheDirectoryAlone) {
    host::TempDir dir;
    const std::filesystem::path model = host::ModelVariant(dir, "tiny-llm", "{}");
    void* handle = nullptr;
    Llm().InitModel("", 0, 0, &handle, &host::Callbacks(host::Pair::A));  // stores pair A
    const std::string prefix = "An exception occurred while compiling the model: ";
    const struct {
        int device, contextLength;
        std::string message;
    } refused[] = {
        {DEVICE_CPU, 0, "The context length must be greater than 0"},
        {3, 16, "3device type is not supported"},
    };
    for (const auto& c : refused) {
        host::ClearInboxes();
        EXPECT_EQ(Llm().CompileModel(model.c_str(), c.device, c.contextLength), 1);
        EXPECT_EQ(host::InboxOf(host::Pair::A).errors, std::vector<std::string>{prefix + c.message});
    }
    dir.Touch("tiny-llm/old.blob");
    host::ClearInboxes();
    EXPECT_EQ(Llm().CompileModel(model.c_str(), DEVICE_NPU, 16), 1);
    EXPECT_EQ(host::InboxOf(host::Pair::A).errors,
              std::vector<std::string>{prefix + "The provided cache directory already contains an unexpected blob file"});

    const auto entries = [&] {
        std::vector<std::string> names;
        for (const auto& e : std::filesystem::recursive_directory_iterator(model)) names.push_back(e.path().string());
        return names;
    };
    const std::vector<std::string> before = entries();
    EXPECT_EQ(Llm().CompileModel(model.c_str(), DEVICE_CPU, 16), 0);
    EXPECT_EQ(entries(), before);
}

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "harness.h"

using host::Llm;
using host::LlmModel;

namespace {

// An empty list must leave the array out-parameter as it was.
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

}  // namespace

TEST(LlmStopLists, AreSortedSetsReplacedWholeAndCopiedOut) {
    LlmModel model(host::ModelDir("tiny-llm"), 8);
    // Bytes from 0x80 on sort after ASCII, as unsigned.
    const char* strings[] = {"b", "a", "b", "", "\xc3\xa9", "z"};
    ASSERT_EQ(Llm().SetStopStrings(model.handle(), strings, 6), 0);
    EXPECT_EQ(StopStrings(model.handle()), (std::vector<std::string>{"", "a", "b", "z", "\xc3\xa9"}));
    const int64_t ids[] = {5, -1, 5, 3};
    ASSERT_EQ(Llm().SetStopTokens(model.handle(), ids, 4), 0);
    EXPECT_EQ(host::Ids(Llm().GetStopTokens, model.handle()), (std::vector<int64_t>{-1, 3, 5}));

    // Each get hands out its own buffers.
    char** first = nullptr;
    char** second = nullptr;
    size_t count = 0;
    ASSERT_EQ(Llm().GetStopStrings(model.handle(), &first, &count), 0);
    ASSERT_EQ(Llm().GetStopStrings(model.handle(), &second, &count), 0);
    ASSERT_EQ(count, 5u);
    std::memset(first[1], 'x', 1);
    EXPECT_STREQ(second[1], "a");
    EXPECT_EQ(second[4][2], '\0');
    Llm().FreeStopStrings(first, count);
    Llm().FreeStopStrings(second, count);

    ASSERT_EQ(Llm().SetStopStrings(model.handle(), nullptr, 0), 0);
    ASSERT_EQ(Llm().SetStopTokens(model.handle(), nullptr, 0), 0);
    EXPECT_TRUE(StopStrings(model.handle()).empty());
    EXPECT_TRUE(host::Ids(Llm().GetStopTokens, model.handle()).empty());
}

TEST(LlmStopLists, AStopStringOrTokenFromTheOutputEndsGenerationThere) {
    LlmModel model(host::ModelDir("tiny-llm"), 24);
    std::string full, stopped;
    ASSERT_EQ(model.Query("Once upon a time", full), 0);
    const std::string stop = full.substr(full.size() / 2, 3);
    const char* stops[] = {stop.c_str()};
    ASSERT_EQ(Llm().SetStopStrings(model.handle(), stops, 1), 0);
    ASSERT_EQ(model.Query("Once upon a time", stopped), 0);
    // The runtime cuts at a token boundary, so the text ends inside the stop string.
    const size_t at = full.find(stop);
    EXPECT_EQ(full.rfind(stopped, 0), 0u) << stopped;
    EXPECT_GE(stopped.size(), at) << "stop string '" << stop << "'";
    EXPECT_LT(stopped.size(), at + stop.size()) << "stop string '" << stop << "'";

    // A token of the output's second half, found with the model's own tokenizer.
    ASSERT_EQ(Llm().SetStopStrings(model.handle(), nullptr, 0), 0);
    int64_t* ids = nullptr;
    size_t count = 0;
    ASSERT_EQ(Llm().Tokenize(model.handle(), full.c_str(), &ids, &count), 0);
    ASSERT_GT(count, 4u);
    // The eos among the loaded stop tokens must stay.
    std::vector<int64_t> withToken = host::Ids(Llm().GetStopTokens, model.handle());
    withToken.push_back(ids[count * 3 / 4]);
    Llm().FreeTokens(ids);
    ASSERT_EQ(Llm().SetStopTokens(model.handle(), withToken.data(), withToken.size()), 0);
    ASSERT_EQ(model.Query("Once upon a time", stopped), 0);
    EXPECT_LT(stopped.size(), full.size());
    EXPECT_EQ(full.rfind(stopped, 0), 0u) << stopped;
}

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "harness.h"

using namespace host;

// That both tables share their release functions is checked where they are built.
TEST(Tables, TheirReleasesAcceptNothingToRelease) {
    host::ClearInboxes();
    EXPECT_EQ(Llm().FreeQueryResult(nullptr), 0);
    EXPECT_EQ(Llm().FreeStopTokens(nullptr), 0);
    EXPECT_EQ(Llm().FreeTokens(nullptr), 0);
    EXPECT_EQ(Whisper().FreeLangToId(nullptr), 0);
    // A zero count releases nothing, whatever the pointer is.
    char* notAnArray = reinterpret_cast<char*>(0x1);
    EXPECT_EQ(Llm().FreeStopStrings(&notAnArray, 0), 0);
    EXPECT_EQ(Llm().DestroyModel(nullptr), 0);
    EXPECT_EQ(Whisper().DestroyModel(nullptr), 0);
    EXPECT_TRUE(host::InboxOf(host::Pair::A).errors.empty());
}

TEST(Tables, EverySlotWithAHandleRefusesANullOneWithItsOwnMessage) {
    // Both families report through pair A; the failed inits only store it.
    void* handle = nullptr;
    Llm().InitModel("", 0, 0, &handle, &host::Callbacks(host::Pair::A));
    Whisper().InitModel("", 9, &handle, &host::Callbacks(host::Pair::A));

    char* text = host::Untouched<char>();
    char** strings = host::Untouched<char*>();
    int64_t* ids = host::Untouched<int64_t>();
    LangIdPair* pairs = host::Untouched<LangIdPair>();
    size_t count = 7;
    float sample = 0;
    // Each message is "Model handle is null when " and the slot's own words.
    const std::pair<const char*, std::function<int32_t()>> cases[] = {
        {"querying model", [&] { return Llm().QueryModel(nullptr, "p", &text); }},
        {"streaming model", [&] { return Llm().StreamModel(nullptr, (char*)"p", [](char*) { return 0; }); }},
        {"setting config property", [&] { return Llm().SetConfigProperty(nullptr, "top_k", "1"); }},
        {"getting config property", [&] { return Llm().GetConfigProperty(nullptr, "top_k", &text); }},
        {"setting stop strings", [&] { return Llm().SetStopStrings(nullptr, nullptr, 0); }},
        {"getting stop strings", [&] { return Llm().GetStopStrings(nullptr, &strings, &count); }},
        {"setting stop tokens", [&] { return Llm().SetStopTokens(nullptr, nullptr, 0); }},
        {"getting stop tokens", [&] { return Llm().GetStopTokens(nullptr, &ids, &count); }},
        {"tokenizing", [&] { return Llm().Tokenize(nullptr, "t", &ids, &count); }},
        {"canceling", [&] { return Llm().CancelModel(nullptr); }},
        {"querying model", [&] { return Whisper().QueryModel(nullptr, &sample, 1, &text); }},
        {"setting config property", [&] { return Whisper().SetConfigProperty(nullptr, "task", "x"); }},
        {"getting config property", [&] { return Whisper().GetConfigProperty(nullptr, "task", &text); }},
        {"getting lang_to_id", [&] { return Whisper().GetLangToId(nullptr, &pairs, &count); }},
        {"setting lang_to_id", [&] { return Whisper().SetLangToId(nullptr, nullptr, 0); }},
        {"getting begin_suppress_tokens", [&] { return Whisper().GetBeginSuppressTokens(nullptr, &ids, &count); }},
        {"setting begin_suppress_tokens", [&] { return Whisper().SetBeginSuppressTokens(nullptr, nullptr, 0); }},
        {"getting suppress_tokens", [&] { return Whisper().GetSuppressTokens(nullptr, &ids, &count); }},
        {"setting suppress_tokens", [&] { return Whisper().SetSuppressTokens(nullptr, nullptr, 0); }},
        {"canceling", [&] { return Whisper().CancelModel(nullptr); }},
    };
    for (const auto& [words, call] : cases) {
        const std::string message = std::string("Model handle is null when ") + words;
        host::ClearInboxes();
        EXPECT_EQ(call(), 1) << message;
        EXPECT_EQ(host::InboxOf(host::Pair::A).errors, std::vector<std::string>{message});
    }
    EXPECT_EQ(text, host::Untouched<char>());
    EXPECT_EQ(strings, host::Untouched<char*>());
    EXPECT_EQ(ids, host::Untouched<int64_t>());
    EXPECT_EQ(pairs, host::Untouched<LangIdPair>());
    EXPECT_EQ(count, 7u);
}

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness.h"

using host::InboxOf;
using host::Llm;
using host::LlmModel;
using host::Pair;

namespace {

// A slot's status and the messages it reported.
struct Answer {
    int32_t status;
    std::string text;  // the value read, for a successful get
    std::vector<std::string> errors;
};

Answer Set(void* handle, const char* name, const char* value) {
    host::ClearInboxes();
    const int32_t status = Llm().SetConfigProperty(handle, name, value);
    return {status, "", InboxOf(Pair::A).errors};
}

Answer Get(void* handle, const char* name) {
    host::ClearInboxes();
    char* const untouched = reinterpret_cast<char*>(0x1);
    char* out = untouched;
    Answer answer{Llm().GetConfigProperty(handle, name, &out), "", InboxOf(Pair::A).errors};
    if (answer.status == 0) {
        answer.text = out;
        EXPECT_EQ(Llm().FreeConfigProperty(out), 0);
    } else {
        EXPECT_EQ(out, untouched) << "the out-parameter is written only on success";
    }
    return answer;
}

std::string Value(void* handle, const char* name) {
    const Answer answer = Get(handle, name);
    EXPECT_EQ(answer.status, 0) << name;
    EXPECT_TRUE(answer.errors.empty()) << name;
    return answer.text;
}

std::vector<std::string> One(const std::string& message) { return {message}; }

bool StartsWith(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }

}  // namespace

TEST(LlmProperties, EverySettingKeepsItsOwnValueInItsTextForm) {
    LlmModel model(host::ModelDir("tiny-llm"), 512);
    EXPECT_EQ(Value(model.handle(), "max_new_tokens"), "512");
    struct Case {
        const char* name;
        const char* value;
        const char* text;
    } cases[] = {
        {"diversity_penalty", "0.25", "0.250000"},
        {"do_sample", "TRUE", "true"},
        {"eos_token_id", "-7", "-7"},
        {"frequency_penalty", "-0.5", "-0.500000"},
        {"ignore_eos", "tRuE", "true"},
        {"include_stop_str_in_output", "true", "true"},
        {"length_penalty", "2", "2.000000"},
        {"max_length", "300", "300"},
        {"max_new_tokens", "-1", "18446744073709551615"},
        {"min_new_tokens", "2", "2"},
        {"no_repeat_ngram_size", "3", "3"},
        {"num_beams", "4", "4"},
        {"num_beam_groups", "2", "2"},
        {"num_return_sequences", "3", "3"},
        {"presence_penalty", "0.7", "0.700000"},
        {"repetition_penalty", "1", "1.000000"},
        {"rng_seed", "2147483647", "2147483647"},
        {"stop_criteria", "NEVER", "NEVER"},
        {"temperature", "340282346638528859811704183484516925440", "340282346638528859811704183484516925440.000000"},
        {"top_k", "42abc", "42"},
        {"top_p", " .5x", "0.500000"},
    };
    // All set first, then all read: two names sharing a member would show.
    for (const Case& c : cases) {
        const Answer answer = Set(model.handle(), c.name, c.value);
        EXPECT_EQ(answer.status, 0) << c.name;
        EXPECT_TRUE(answer.errors.empty()) << c.name;
    }
    for (const Case& c : cases) EXPECT_EQ(Value(model.handle(), c.name), c.text) << c.name;
}

TEST(LlmProperties, NamesMatchExactlyOnBothSlots) {
    LlmModel model(host::ModelDir("tiny-llm"), 512);
    for (const char* name : {"MAX_NEW_TOKENS", " max_new_tokens", "max_new_tokens ", "", "seed"}) {
        const std::string quoted = std::string("property ") + name + ". Property name not supported.";
        const Answer set = Set(model.handle(), name, "7");
        EXPECT_EQ(set.status, 1);
        EXPECT_EQ(set.errors, One("An error occurred setting " + quoted));
        const Answer get = Get(model.handle(), name);
        EXPECT_EQ(get.status, 1);
        EXPECT_EQ(get.errors, One("An error occurred getting " + quoted));
    }
    EXPECT_EQ(Value(model.handle(), "max_new_tokens"), "512");

    const Answer set = Set(nullptr, "max_new_tokens", "7");
    EXPECT_EQ(set.status, 1);
    EXPECT_EQ(set.errors, One("Model handle is null when setting config property"));
    const Answer get = Get(nullptr, "max_new_tokens");
    EXPECT_EQ(get.status, 1);
    EXPECT_EQ(get.errors, One("Model handle is null when getting config property"));
}

TEST(LlmProperties, RefusedValuesStoreNothing) {
    LlmModel model(host::ModelDir("tiny-llm"), 512);
    struct Case {
        const char* name;
        const char* value;
        const char* reason;
    } cases[] = {
        {"max_new_tokens", "abc", "invalid stoi argument"},
        {"max_new_tokens", "2147483648", "stoi argument out of range"},
        {"num_beams", "", "invalid stoi argument"},
        {"eos_token_id", "2147483648", "stol argument out of range"},
        {"eos_token_id", " x1", "invalid stol argument"},
        {"temperature", "1e39", "stof argument out of range"},
        {"top_p", "x", "invalid stof argument"},
    };
    for (const Case& c : cases) {
        const std::string before = Value(model.handle(), c.name);
        const Answer answer = Set(model.handle(), c.name, c.value);
        EXPECT_EQ(answer.status, 1);
        EXPECT_EQ(answer.errors, One(std::string("An error occurred setting property ") + c.name + " with value " +
                                     c.value + ": " + c.reason));
        EXPECT_EQ(Value(model.handle(), c.name), before) << c.name;
    }
    // An unknown stop criterion fails without a word.
    const std::string criterion = Value(model.handle(), "stop_criteria");
    const Answer never = Set(model.handle(), "stop_criteria", "never");
    EXPECT_EQ(never.status, 1);
    EXPECT_TRUE(never.errors.empty());
    EXPECT_EQ(Value(model.handle(), "stop_criteria"), criterion);
}

TEST(LlmProperties, StoredCombinationsTheRuntimeRejectsFailTheNextQuery) {
    LlmModel model(host::ModelDir("tiny-llm"), 4);
    std::string result;
    ASSERT_EQ(Set(model.handle(), "num_beams", "2").status, 0);
    ASSERT_EQ(Set(model.handle(), "num_return_sequences", "3").status, 0);
    EXPECT_EQ(model.Query("Hello", result), 2);
    EXPECT_TRUE(StartsWith(result, "Failed to validate config: Check 'num_beams >= num_return_sequences' failed"))
        << result;
    ASSERT_EQ(Set(model.handle(), "num_return_sequences", "1").status, 0);
    ASSERT_EQ(Set(model.handle(), "num_beams", "1").status, 0);
    EXPECT_EQ(model.Query("Hello", result), 0) << result;

    // The full 64-bit sizes reach the runtime: with ignore_eos it refuses
    // exactly the largest size in both length settings.
    ASSERT_EQ(Set(model.handle(), "ignore_eos", "true").status, 0);
    ASSERT_EQ(Set(model.handle(), "max_length", "-1").status, 0);
    ASSERT_EQ(Set(model.handle(), "max_new_tokens", "-1").status, 0);
    EXPECT_EQ(model.Query("Hello", result), 2);
    EXPECT_TRUE(StartsWith(result, "Failed to validate config: Check '!ignore_eos || ")) << result;
    ASSERT_EQ(Set(model.handle(), "max_new_tokens", "2").status, 0);
    EXPECT_EQ(model.Query("Hello", result), 0) << result;
}

TEST(LlmProperties, MaxNewTokensBoundsTheNextGeneration) {
    std::string three, six, fromContext;
    {
        LlmModel bounded(host::ModelDir("tiny-llm"), 3);
        ASSERT_EQ(bounded.Query("Once upon a time", fromContext), 0) << fromContext;
    }
    LlmModel model(host::ModelDir("tiny-llm"), 512);
    ASSERT_EQ(Set(model.handle(), "max_new_tokens", "3").status, 0);
    ASSERT_EQ(model.Query("Once upon a time", three), 0) << three;
    ASSERT_EQ(Set(model.handle(), "max_new_tokens", "6").status, 0);
    ASSERT_EQ(model.Query("Once upon a time", six), 0) << six;
    // The same bound as a handle created with a context length of 3.
    EXPECT_EQ(three, fromContext);
    EXPECT_GT(six.size(), three.size());
    EXPECT_TRUE(StartsWith(six, three)) << three << " / " << six;
}

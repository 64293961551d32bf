#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "harness.h"

using host::Llm;
using host::LlmModel;
using host::Pair;
using host::Reported;

namespace {

std::pair<int32_t, std::string> Set(void* handle, const char* name, const char* value) {
    return Reported(Pair::A, [&] { return Llm().SetConfigProperty(handle, name, value); });
}

std::pair<int32_t, std::string> Get(void* handle, const char* name) {
    return host::GetProperty(Pair::A, Llm().GetConfigProperty, handle, name);
}

std::string Value(void* handle, const char* name) {
    const auto [status, text] = Get(handle, name);
    EXPECT_EQ(status, 0) << name << ": " << text;
    return text;
}

}  // namespace

TEST(LlmProperties, EverySettingKeepsItsOwnValueInItsTextForm) {
    LlmModel model(host::ModelDir("tiny-llm"), 512);
    EXPECT_EQ(Value(model.handle(), "max_new_tokens"), "512");
    host::ExpectRoundTrips(Pair::A, Llm().SetConfigProperty, Llm().GetConfigProperty, model.handle(), {
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
    });
}

TEST(LlmProperties, NamesMatchExactlyOnBothSlots) {
    LlmModel model(host::ModelDir("tiny-llm"), 512);
    for (const char* name : {"MAX_NEW_TOKENS", " max_new_tokens", "max_new_tokens ", "", "seed", "\xff"}) {
        const std::string quoted = std::string("property ") + name + ". Property name not supported.";
        EXPECT_EQ(Set(model.handle(), name, "7"), std::make_pair(1, "An error occurred setting " + quoted));
        EXPECT_EQ(Get(model.handle(), name), std::make_pair(1, "An error occurred getting " + quoted));
    }
    EXPECT_EQ(Value(model.handle(), "max_new_tokens"), "512");
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
        {"top_k", "\xff", "invalid stoi argument"},
        {"eos_token_id", "2147483648", "stol argument out of range"},
        {"eos_token_id", " x1", "invalid stol argument"},
        {"temperature", "1e39", "stof argument out of range"},
        {"top_p", "x", "invalid stof argument"},
    };
    for (const Case& c : cases) {
        const std::string before = Value(model.handle(), c.name);
        EXPECT_EQ(Set(model.handle(), c.name, c.value),
                  std::make_pair(1, std::string("An error occurred setting property ") + c.name + " with value " +
                                        c.value + ": " + c.reason));
        EXPECT_EQ(Value(model.handle(), c.name), before) << c.name;
    }
    // An unknown stop criterion fails without a word.
    const std::string criterion = Value(model.handle(), "stop_criteria");
    for (const char* text : {"never", "\xff"})
        EXPECT_EQ(Set(model.handle(), "stop_criteria", text), std::make_pair(1, std::string()));
    EXPECT_EQ(Value(model.handle(), "stop_criteria"), criterion);
}

TEST(LlmProperties, StoredCombinationsTheRuntimeRejectsFailTheNextQuery) {
    LlmModel model(host::ModelDir("tiny-llm"), 4);
    std::string result;
    ASSERT_EQ(Set(model.handle(), "num_beams", "2").first, 0);
    ASSERT_EQ(Set(model.handle(), "num_return_sequences", "3").first, 0);
    EXPECT_EQ(model.Query("Hello", result), 2);
    EXPECT_TRUE(host::StartsWith(result, "Failed to validate config: Check 'num_beams >= num_return_sequences' failed"))
        << result;
    ASSERT_EQ(Set(model.handle(), "num_return_sequences", "1").first, 0);
    ASSERT_EQ(Set(model.handle(), "num_beams", "1").first, 0);
    EXPECT_EQ(model.Query("Hello", result), 0) << result;

    // The full 64-bit sizes reach the runtime: with ignore_eos it refuses
    // exactly the largest size in both length settings.
    ASSERT_EQ(Set(model.handle(), "ignore_eos", "true").first, 0);
    ASSERT_EQ(Set(model.handle(), "max_length", "-1").first, 0);
    ASSERT_EQ(Set(model.handle(), "max_new_tokens", "-1").first, 0);
    EXPECT_EQ(model.Query("Hello", result), 2);
    EXPECT_TRUE(host::StartsWith(result, "Failed to validate config: Check '!ignore_eos || ")) << result;
    ASSERT_EQ(Set(model.handle(), "max_new_tokens", "2").first, 0);
    EXPECT_EQ(model.Query("Hello", result), 0) << result;
}

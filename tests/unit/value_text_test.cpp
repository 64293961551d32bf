#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "pipeline/config_properties.h"
#include "pipeline/value_text.h"

using velmora::IntegerParse;
using velmora::genai::StopCriteria;

namespace {

enum class Failure { None, Invalid, Range };

// The exception a conversion threw as its message, or "" when it returned.
template <class Convert>
std::string ErrorOf(Convert&& convert, Failure& kind) {
    kind = Failure::None;
    try {
        convert();
    } catch (const std::invalid_argument& e) {
        kind = Failure::Invalid;
        return e.what();
    } catch (const std::out_of_range& e) {
        kind = Failure::Range;
        return e.what();
    }
    return "";
}

std::string ExpectedError(Failure failure, const std::string& fn) {
    if (failure == Failure::Invalid) return "invalid " + fn + " argument";
    if (failure == Failure::Range) return fn + " argument out of range";
    return "";
}

// The whole message a by-name access failed with.
template <class Access>
std::string MessageOf(Access&& access) {
    try {
        access();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no exception>";
}

std::string Read(const velmora::genai::WhisperGenerationConfig& config, const char* name) {
    std::string text = "<not delivered>";
    velmora::GetPropertyByName(velmora::WhisperPropertyTable(), config, name, [&](const std::string& t) { text = t; });
    return text;
}

}  // namespace

TEST(ValueText, IntegersTakeLeadingDecimalDigitsWithinThirtyTwoBits) {
    struct Case {
        const char* text;
        Failure failure;
        int32_t value;
    } cases[] = {
        {"42abc", Failure::None, 42},         {"  7", Failure::None, 7},
        {"+7", Failure::None, 7},             {"3.9", Failure::None, 3},
        {"0x10", Failure::None, 0},           {"2147483647", Failure::None, INT32_MAX},
        {"-1", Failure::None, -1},            {"-2147483648", Failure::None, INT32_MIN},
        {"2147483648", Failure::Range, 0},    {"-2147483649", Failure::Range, 0},
        {"99999999999999999999", Failure::Range, 0},
        {"abc", Failure::Invalid, 0},         {"", Failure::Invalid, 0},
        {"-", Failure::Invalid, 0},           {" .5x", Failure::Invalid, 0},
    };
    for (const Case& c : cases) {
        for (IntegerParse parse : {IntegerParse::Stoi, IntegerParse::Stol}) {
            const std::string fn = parse == IntegerParse::Stoi ? "stoi" : "stol";
            int32_t value = 0;
            Failure kind;
            const std::string error = ErrorOf([&] { value = velmora::ParseInteger(c.text, parse); }, kind);
            EXPECT_EQ(kind, c.failure) << c.text;
            EXPECT_EQ(error, ExpectedError(c.failure, fn)) << c.text;
            EXPECT_EQ(value, c.value) << c.text;
        }
    }
}

TEST(ValueText, FloatsTakeTheLongestPrefixAndReportRangeErrors) {
    struct Case {
        const char* text;
        Failure failure;
        float value;
    } cases[] = {
        {" .5x", Failure::None, 0.5f},     {"3.9", Failure::None, 3.9f},
        {"0x10", Failure::None, 16.0f},    {"42abc", Failure::None, 42.0f},
        {"0.0000001", Failure::None, 1e-7f}, {"-2147483648", Failure::None, -2147483648.0f},
        {"inf", Failure::None, INFINITY},  {"1e39", Failure::Range, 0},
        {"-1e39", Failure::Range, 0},      {"1e-50", Failure::Range, 0},
        {"abc", Failure::Invalid, 0},      {"", Failure::Invalid, 0},
    };
    for (const Case& c : cases) {
        float value = 0;
        Failure kind;
        const std::string error = ErrorOf([&] { value = velmora::ParseFloat(c.text); }, kind);
        EXPECT_EQ(kind, c.failure) << c.text;
        EXPECT_EQ(error, ExpectedError(c.failure, "stof")) << c.text;
        EXPECT_EQ(value, c.value) << c.text;
    }
    EXPECT_TRUE(std::isnan(velmora::ParseFloat("nan")));
    // Fixed notation: small values round away, no exponent.
    EXPECT_EQ(velmora::FloatText(1e-7f), "0.000000");
    EXPECT_EQ(velmora::FloatText(-0.5f), "-0.500000");
    EXPECT_EQ(velmora::FloatText(INFINITY), "inf");
}

TEST(ValueText, BooleansAreTrueOnlyForTheWordTrueInAnyCase) {
    for (const char* text : {"true", "TRUE", "tRuE"}) EXPECT_TRUE(velmora::ParseBool(text)) << text;
    for (const char* text : {"1", "yes", " true", "true ", "", "false", "tru", "truee"})
        EXPECT_FALSE(velmora::ParseBool(text)) << text;
}

TEST(ConfigProperties, StopCriteriaMatchTheirNamesExactlyAndOthersFailSilently) {
    velmora::genai::GenerationConfig config;
    const auto table = velmora::LlmPropertyTable();
    for (const char* name : {"EARLY", "HEURISTIC", "NEVER"}) {
        EXPECT_EQ(velmora::SetPropertyByName(table, config, "stop_criteria", name), 0);
        EXPECT_EQ(velmora::StopCriteriaText(config.stop_criteria), name);
    }
    for (const char* text : {"never", " NEVER", "NEVER ", "", "2"})
        EXPECT_EQ(velmora::SetPropertyByName(table, config, "stop_criteria", text), 1) << text;
    EXPECT_EQ(config.stop_criteria, StopCriteria::NEVER);
    // A stored value outside the enumeration has no text.
    config.stop_criteria = static_cast<StopCriteria>(7);
    bool delivered = false;
    EXPECT_EQ(velmora::GetPropertyByName(table, config, "stop_criteria", [&](const std::string&) { delivered = true; }),
              1);
    EXPECT_FALSE(delivered);
}

TEST(ConfigProperties, EveryWhisperSettingKeepsItsOwnValue) {
    struct Case {
        const char* name;
        const char* value;
        const char* text;
    } cases[] = {
        {"max_length", "7", "7"},
        {"max_new_tokens", "-1", "18446744073709551615"},
        {"decoder_start_token_id", "-2", "-2"},
        {"eos_token_id", "3", "3"},
        {"pad_token_id", "4", "4"},
        {"translate_token_id", "5", "5"},
        {"transcribe_token_id", "6", "6"},
        {"no_timestamps_token_id", "8", "8"},
        {"max_initial_timestamp_index", "9", "9"},
        {"is_multilingual", "FALSE", "false"},
        {"language", "", ""},
        {"task", "<|translate|> x", "<|translate|> x"},
        {"return_timestamps", "True", "true"},
    };
    velmora::genai::WhisperGenerationConfig config;
    // An absent optional reads as if the name were unknown.
    EXPECT_EQ(MessageOf([&] { Read(config, "language"); }),
              "An error occurred getting property language. Property name not supported.");
    // All set first, then all read: two names sharing a member would show.
    for (const Case& c : cases)
        EXPECT_EQ(velmora::SetPropertyByName(velmora::WhisperPropertyTable(), config, c.name, c.value), 0) << c.name;
    for (const Case& c : cases) EXPECT_EQ(Read(config, c.name), c.text) << c.name;
    EXPECT_EQ(config.language, std::optional<std::string>(""));
    EXPECT_EQ(MessageOf([&] {
                  velmora::SetPropertyByName(velmora::WhisperPropertyTable(), config, "pad_token_id", "2147483648");
              }),
              "An error occurred setting property pad_token_id with value 2147483648: stol argument out of range");
    EXPECT_EQ(config.pad_token_id, 4);
}

#include <gtest/gtest.h>

#include <cmath>
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

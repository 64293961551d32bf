#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "core/value_text.h"

using velmora::IntegerParse;

namespace {

enum class Failure { None, Invalid, Range };

// What a conversion threw, with its message ("" when it returned).
template <class Convert>
std::pair<Failure, std::string> Outcome(Convert&& convert) {
    try {
        convert();
    } catch (const std::invalid_argument& e) {
        return {Failure::Invalid, e.what()};
    } catch (const std::out_of_range& e) {
        return {Failure::Range, e.what()};
    }
    return {Failure::None, ""};
}

std::string Message(Failure failure, const std::string& fn) {
    if (failure == Failure::Invalid) return "invalid " + fn + " argument";
    if (failure == Failure::Range) return fn + " argument out of range";
    return "";
}

}  // namespace

// Integers take leading decimal digits within 32 bits (for stol too); floats
// take strtof's longest prefix and report its range errors.
TEST(ValueText, NumbersTakeTheLeadingTextTheyCanReadAndNameTheirConversionWhenFailing) {
    const struct {
        const char* text;
        Failure intFailure;
        int32_t intValue;
        Failure floatFailure;
        float floatValue;
    } cases[] = {
        {"42abc", Failure::None, 42, Failure::None, 42.0f},
        {"  7", Failure::None, 7, Failure::None, 7.0f},
        {"3.9", Failure::None, 3, Failure::None, 3.9f},
        {"0x10", Failure::None, 0, Failure::None, 16.0f},
        {"2147483647", Failure::None, INT32_MAX, Failure::None, 2147483648.0f},
        {"-1", Failure::None, -1, Failure::None, -1.0f},
        {"-2147483648", Failure::None, INT32_MIN, Failure::None, -2147483648.0f},
        {"2147483648", Failure::Range, 0, Failure::None, 2147483648.0f},
        {"99999999999999999999", Failure::Range, 0, Failure::None, 1e20f},
        {"1e39", Failure::None, 1, Failure::Range, 0},
        {"1e-50", Failure::None, 1, Failure::Range, 0},
        {"inf", Failure::Invalid, 0, Failure::None, INFINITY},
        {" .5x", Failure::Invalid, 0, Failure::None, 0.5f},
        {"abc", Failure::Invalid, 0, Failure::Invalid, 0},
        {"", Failure::Invalid, 0, Failure::Invalid, 0},
    };
    for (const auto& c : cases) {
        for (IntegerParse parse : {IntegerParse::Stoi, IntegerParse::Stol}) {
            int32_t value = 0;
            const auto [failure, message] = Outcome([&] { value = velmora::ParseInteger(c.text, parse); });
            EXPECT_EQ(failure, c.intFailure) << c.text;
            EXPECT_EQ(message, Message(c.intFailure, parse == IntegerParse::Stoi ? "stoi" : "stol")) << c.text;
            EXPECT_EQ(value, c.intValue) << c.text;
        }
        float value = 0;
        const auto [failure, message] = Outcome([&] { value = velmora::ParseFloat(c.text); });
        EXPECT_EQ(failure, c.floatFailure) << c.text;
        EXPECT_EQ(message, Message(c.floatFailure, "stof")) << c.text;
        EXPECT_EQ(value, c.floatValue) << c.text;
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

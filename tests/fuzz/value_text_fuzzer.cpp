// libFuzzer target: the text conversions behind the settings, against the
// standard conversions they imitate. Settings by name are fuzzed through the
// slots (slots_fuzzer.cpp). Run through scripts/fuzz.sh.
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "core/value_text.h"

namespace {

[[noreturn]] void Broken(const char* condition, int line) {
    std::fprintf(stderr, "invariant broken at line %d: %s\n", line, condition);
    std::abort();
}
#define CHECK(c) ((c) ? (void)0 : Broken(#c, __LINE__))

enum class Outcome { Value, Invalid, Range };

template <class Convert>
Outcome Classify(Convert&& convert, std::string* message = nullptr) {
    try {
        convert();
        return Outcome::Value;
    } catch (const std::invalid_argument& e) {
        if (message) *message = e.what();
        return Outcome::Invalid;
    } catch (const std::out_of_range& e) {
        if (message) *message = e.what();
        return Outcome::Range;
    }
}

bool SameFloat(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// On this platform int has 32 bits, so the standard stoi and stof apply the
// same rules as the library's conversions: a reference to compare against.
void CheckConversions(const std::string& text) {
    int32_t ours = 0;
    int reference = 0;
    std::string message;
    const Outcome stoi = Classify([&] { ours = velmora::ParseInteger(text, velmora::IntegerParse::Stoi); }, &message);
    CHECK(stoi == Classify([&] { reference = std::stoi(text); }));
    if (stoi == Outcome::Value) {
        CHECK(ours == reference);
        CHECK(velmora::ParseInteger(velmora::SignedText(ours), velmora::IntegerParse::Stol) == ours);
    }
    if (stoi == Outcome::Invalid) CHECK(message == "invalid stoi argument");
    if (stoi == Outcome::Range) CHECK(message == "stoi argument out of range");
    int32_t asLong = 0;
    CHECK(Classify([&] { asLong = velmora::ParseInteger(text, velmora::IntegerParse::Stol); }, &message) == stoi);
    CHECK(asLong == ours);
    if (stoi == Outcome::Range) CHECK(message == "stol argument out of range");

    float value = 0, referenceFloat = 0;
    const Outcome stof = Classify([&] { value = velmora::ParseFloat(text); }, &message);
    CHECK(stof == Classify([&] { referenceFloat = std::stof(text); }));
    if (stof == Outcome::Value) {
        CHECK(SameFloat(value, referenceFloat) || (std::isnan(value) && std::isnan(referenceFloat)));
        // Fixed notation may round, but its text must read back to itself.
        const std::string shown = velmora::FloatText(value);
        CHECK(velmora::FloatText(velmora::ParseFloat(shown)) == shown);
    }
    if (stof == Outcome::Invalid) CHECK(message == "invalid stof argument");
    if (stof == Outcome::Range) CHECK(message == "stof argument out of range");

    const char* c = text.c_str();
    const bool word = std::strlen(c) == text.size() && text.size() == 4 && (c[0] | 0x20) == 't' &&
                      (c[1] | 0x20) == 'r' && (c[2] | 0x20) == 'u' && (c[3] | 0x20) == 'e';
    CHECK(velmora::ParseBool(text) == word);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CheckConversions(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}

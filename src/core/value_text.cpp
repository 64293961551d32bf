#include "value_text.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <stdexcept>

namespace velmora {
namespace {

const char* NameOf(IntegerParse parse) { return parse == IntegerParse::Stoi ? "stoi" : "stol"; }

}  // namespace

int32_t ParseInteger(const std::string& text, IntegerParse parse) {
    const char* start = text.c_str();
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(start, &end, 10);
    if (end == start) throw std::invalid_argument(std::string("invalid ") + NameOf(parse) + " argument");
    // The 32-bit bound holds for stol too: where long has 32 bits, that is its range.
    if (errno == ERANGE || value < INT32_MIN || value > INT32_MAX)
        throw std::out_of_range(std::string(NameOf(parse)) + " argument out of range");
    return static_cast<int32_t>(value);
}

float ParseFloat(const std::string& text) {
    const char* start = text.c_str();
    char* end = nullptr;
    errno = 0;
    const float value = std::strtof(start, &end);
    if (end == start) throw std::invalid_argument("invalid stof argument");
    if (errno == ERANGE) throw std::out_of_range("stof argument out of range");
    return value;
}

bool ParseBool(const std::string& text) {
    std::string lower = text;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower == "true";
}

std::optional<StopCriteria> ParseStopCriteria(const std::string& text) {
    for (std::size_t i = 0; i < std::size(kStopCriteriaNames); ++i)
        if (text == kStopCriteriaNames[i]) return static_cast<StopCriteria>(i);
    return std::nullopt;
}

std::string UnsignedText(std::size_t value) { return std::to_string(value); }

std::string SignedText(int64_t value) { return std::to_string(value); }

std::string FloatText(float value) {
    const double wide = value;
    const int length = std::snprintf(nullptr, 0, "%f", wide);
    if (length < 0) throw std::runtime_error("could not format a float");
    std::string text(static_cast<std::size_t>(length), '\0');
    // The string's own terminator takes snprintf's final NUL.
    std::snprintf(text.data(), text.size() + 1, "%f", wide);
    return text;
}

std::string BoolText(bool value) { return value ? "true" : "false"; }

std::optional<std::string> StopCriteriaText(StopCriteria value) {
    // A runtime may hand over a value outside the enumeration.
    const auto index = static_cast<std::size_t>(value);
    if (index >= std::size(kStopCriteriaNames)) return std::nullopt;
    return std::string(kStopCriteriaNames[index]);
}

}  // namespace velmora

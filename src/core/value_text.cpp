#include "value_text.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace velmora {
namespace {

const char* NameOf(IntegerParse parse) { return parse == IntegerParse::Stoi ? "stoi" : "stol"; }

struct StopCriteriaName {
    StopCriteria value;
    const char* name;
};
constexpr StopCriteriaName kStopCriteriaNames[] = {
    {StopCriteria::EARLY, "EARLY"},
    {StopCriteria::HEURISTIC, "HEURISTIC"},
    {StopCriteria::NEVER, "NEVER"},
};

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
    for (const StopCriteriaName& entry : kStopCriteriaNames)
        if (text == entry.name) return entry.value;
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
    for (const StopCriteriaName& entry : kStopCriteriaNames)
        if (value == entry.value) return std::string(entry.name);
    return std::nullopt;
}

}  // namespace velmora

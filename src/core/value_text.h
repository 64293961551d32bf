// Settings as text: the conversions behind SetConfigProperty and
// GetConfigProperty. Written here rather than taken from the standard library
// so that results and error texts are the same on every platform (a 32-bit
// range for integers even where long is 64-bit).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "setting.h"

namespace velmora {

// Which standard conversion an integer setting imitates; it names the
// conversion in error texts.
enum class IntegerParse { Stoi, Stol };

// Leading decimal digits after optional blanks and sign; the rest is ignored.
// Throws std::invalid_argument without digits and std::out_of_range outside
// the 32-bit range. A negative result stored into a size_t wraps.
int32_t ParseInteger(const std::string& text, IntegerParse parse);

// strtof's longest prefix; throws std::invalid_argument without one and
// std::out_of_range when strtof reports ERANGE.
float ParseFloat(const std::string& text);

// True exactly for "true" in any letter case. Never fails.
bool ParseBool(const std::string& text);

// The enumerator of exactly that name, or nothing.
std::optional<StopCriteria> ParseStopCriteria(const std::string& text);

std::string UnsignedText(std::size_t value);
std::string SignedText(int64_t value);
// printf's "%f" of the value widened to double.
std::string FloatText(float value);
std::string BoolText(bool value);
// The enumerator's name, or nothing for a value outside the enumeration.
std::optional<std::string> StopCriteriaText(StopCriteria value);

}  // namespace velmora

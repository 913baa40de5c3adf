#pragma once

#include "Analysis/Core/NoData.h"

namespace Quarn::Metrology::PhaseProcessing::Core {

// "Undefined" parameters of boards
//
// A parameter the caller must set is a value, not a flag: a double starts at the largest finite
// double and counts as undefined while it is at or above it; an int is undefined at 2147483640
// (0x7FFFFFF8) or above; a width or height is undefined while it is 0 or less. Setting a parameter
// back to one of these values makes it undefined again.
inline constexpr double kUndefinedDouble = Analysis::Core::kNoDataDouble;
inline constexpr int kUndefinedInt = Analysis::Core::kNoDataInt;

constexpr bool IsUndefined(double value) {
  return value >= kUndefinedDouble;
}
constexpr bool IsUndefined(int value) {
  return value >= kUndefinedInt;
}
constexpr bool IsUndefinedSize(int size) {
  return size <= 0;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core

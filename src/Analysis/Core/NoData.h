#pragma once

#include <cfloat>
#include <cstdint>

namespace Quarn::Metrology::Analysis::Core {

// No-data and "undefined" values.
//
// A double result or parameter is no-data (or undefined) when it is at least the largest finite
// double, 1.7976931348623157e308 (bit pattern 0x7FEFFFFFFFFFFFFF); writers store exactly that value.
// Positive infinity therefore also counts as no-data. NaN compares false with everything and so
// counts as valid: it is never written by the library.
//
// An int pixel or parameter is invalid (undefined) at 2147483640 (0x7FFFFFF8) or more.
inline constexpr double kNoDataDouble = DBL_MAX;
inline constexpr int kNoDataInt = 0x7FFFFFF8;
inline constexpr float kNoDataFloat = FLT_MAX;

constexpr bool IsNoDataValue(double v) {
  return v >= kNoDataDouble;
}
constexpr bool IsNoDataValue(float v) {
  return v >= kNoDataFloat;
}
constexpr bool IsNoDataValue(int v) {
  return v >= kNoDataInt;
}

// NoDataTraits<T>
//
// The no-data value of an element type of a windowed matrix. Types without such a value (bytes,
// bools) are always valid.
template <typename T>
struct NoDataTraits {
  static constexpr bool kHasNoData = false;
  static constexpr T Value() { return T{}; }
  static constexpr bool IsNoData(const T&) { return false; }
};

template <>
struct NoDataTraits<double> {
  static constexpr bool kHasNoData = true;
  static constexpr double Value() { return kNoDataDouble; }
  static constexpr bool IsNoData(double v) { return v >= kNoDataDouble; }
};

template <>
struct NoDataTraits<float> {
  static constexpr bool kHasNoData = true;
  static constexpr float Value() { return kNoDataFloat; }
  static constexpr bool IsNoData(float v) { return v >= kNoDataFloat; }
};

template <>
struct NoDataTraits<int> {
  static constexpr bool kHasNoData = true;
  static constexpr int Value() { return kNoDataInt; }
  static constexpr bool IsNoData(int v) { return v >= kNoDataInt; }
};

// AdcPoint
//
// Per-pixel record of three doubles (used by the frequency-domain analysis for the phase intercept,
// the phase slope and the peak frame). The no-data test applies to its first double.
struct AdcPoint {
  double x = 0.0;
  double y = 0.0;
  double z = 0.0;
};

template <>
struct NoDataTraits<AdcPoint> {
  static constexpr bool kHasNoData = true;
  static constexpr AdcPoint Value() { return AdcPoint{kNoDataDouble, 0.0, 0.0}; }
  static constexpr bool IsNoData(const AdcPoint& v) { return v.x >= kNoDataDouble; }
};

}  // namespace Quarn::Metrology::Analysis::Core

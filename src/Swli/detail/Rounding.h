#pragma once

#include <cmath>
#include <cstdint>

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// std::round and std::ceil without the library call (the x86-64 baseline has no rounding
// instruction, so the compiler calls libm for each pixel), bit for bit the same results: below 2^52
// the truncation through a 64-bit integer and x - t are exact; larger magnitudes, infinities and NaN
// are already whole (or not numbers) and are returned as the library returns them.
inline constexpr double kWholeFrom = 4503599627370496.0;  // 2^52: every double this large is whole

inline double RoundHalfAway(double x) {
  if (!(std::abs(x) < kWholeFrom)) return x;
  const double t = static_cast<double>(static_cast<std::int64_t>(x));
  const double fraction = x - t;
  if (fraction >= 0.5) return t + 1.0;
  if (fraction <= -0.5) return t - 1.0;
  return std::copysign(t, x);
}

inline double Ceil(double x) {
  if (!(std::abs(x) < kWholeFrom)) return x;
  const double t = static_cast<double>(static_cast<std::int64_t>(x));
  return t < x ? t + 1.0 : std::copysign(t, x);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

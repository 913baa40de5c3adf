#pragma once

#include <cmath>
#include <cstdint>

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// std::round and std::ceil without the library call (the x86-64 baseline has no rounding
// instruction, so the compiler calls libm for each pixel), bit for bit the same results: below 2^52
// the truncation through a 64-bit integer and x - t are exact; larger magnitudes, infinities and NaN
// are already whole (or not numbers) and are returned as the library returns them.
inline constexpr double kWholeFrom = 4503599627370496.0;  // 2^52: every double this large is whole

// The steps are selects, not branches: whether a value rounds up is as random as the data. The
// result always has the sign of x (std::round(-0.3) is -0), which copysign restores where the
// truncation gave +0.
inline double RoundHalfAway(double x) {
  if (!(std::abs(x) < kWholeFrom)) return x;
  const double t = static_cast<double>(static_cast<std::int64_t>(x));
  const double fraction = x - t;
  const double up = fraction >= 0.5 ? 1.0 : 0.0;
  const double down = fraction <= -0.5 ? 1.0 : 0.0;
  return std::copysign((t + up) - down, x);
}

inline double Ceil(double x) {
  if (!(std::abs(x) < kWholeFrom)) return x;
  const double t = static_cast<double>(static_cast<std::int64_t>(x));
  return std::copysign(t + (t < x ? 1.0 : 0.0), x);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

#pragma once

#include <cstdint>

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail {

// The step value of five equally spaced samples s0..s4 of one sinusoid (single frames of a 7-frame
// stack or pair sums of a 13-frame stack): true with `value` = 128 r - 128 = 256 cos(alpha), or
// false when the pixel has no usable step (modulation not above `threshold`, a zero denominator,
// or a ratio outside [-1, 3]).
//
// Differences are formed exactly in 64-bit integers (for 8- to 16-bit samples this is the same as
// 32-bit arithmetic; for extreme 32-bit samples it cannot overflow) and converted to double once.
inline bool CorvaneStepValue(std::int64_t s0, std::int64_t s1, std::int64_t s2, std::int64_t s3,
                             std::int64_t s4, double threshold, double& value) {
  const auto abs = [](std::int64_t v) { return v < 0 ? -v : v; };
  const std::int64_t modulation = abs(s0 - s2) + abs(s1 - s3);
  if (!(static_cast<double>(modulation) > threshold)) return false;
  const std::int64_t a = s1 - s2;
  const std::int64_t b = s2 - s3;
  // The larger difference is the denominator: near a fringe extremum one of the two vanishes and
  // would turn the ratio into noise.
  const bool first = abs(b) < abs(a);
  const std::int64_t numerator = first ? s0 - s3 : s1 - s4;
  const std::int64_t denominator = first ? a : b;
  if (denominator == 0) return false;
  const double r = static_cast<double>(numerator) / static_cast<double>(denominator);
  if (r < -1.0 || r > 3.0) return false;
  value = r * 128.0 - 128.0;
  return true;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail

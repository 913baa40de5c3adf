#pragma once

#include <cstdint>

#include "Psi/CorvaneAlgorithm.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail {

// The step value of five equally spaced samples s0..s4 of one sinusoid (single frames of a 7-frame
// stack or pair sums of a 13-frame stack): true with `value` = 128 r - 128 = 256 cos(alpha), or
// false when the pixel has no usable step (modulation not above `threshold`, a zero denominator,
// or a ratio outside [-1, 3]).
//
// Differences are formed exactly in 64-bit integers: for 8- and 16-bit samples this gives the same
// numbers as 32-bit arithmetic, while a pair sum of two 32-bit samples, or the difference of two
// such sums, would wrap in 32 bits and turn a bright pixel's step into noise. One conversion to
// double follows.
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

template <typename Sample>
void CorvaneRatioAlgorithm::StoreStep(int thread, int pixel, const Sample* samples, int framesRead,
                                      const std::int64_t (&s)[5]) {
  for (int k = 0; k < framesRead; ++k) {
    if (static_cast<int>(samples[k]) >= saturationLevel_) {
      outData_[pixel] = Analysis::Core::kNoDataDouble;
      return;
    }
  }
  double value = 0.0;
  if (!CorvaneStepValue(s[0], s[1], s[2], s[3], s[4], modulationThreshold_, value)) {
    outData_[pixel] = Analysis::Core::kNoDataDouble;
    return;
  }
  outData_[pixel] = value;
  ++counters_[thread].validPixels;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail

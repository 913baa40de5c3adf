// The FDA's height fold: the AVX2 kernel against the one-pixel reference bit for bit (differences
// exactly at and one ulp either side of half a wavelength, thousands of wavelengths away, beyond
// 2^52 wavelengths, infinities and NaN in the fit, missing coherence heights, ranges that start and
// end inside a vector), and the reference's own promise: each phase height ends within half a
// wavelength of its coherence height, moved by whole wavelengths.
#include "Swli/detail/HeightFold.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "Synthetic/SeededRandom.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {
namespace {

using Analysis::Core::AdcPoint;
const double kNoData = Analysis::Core::NoDataTraits<double>::Value();

struct Pixels {
  std::vector<double> coherence;
  std::vector<AdcPoint> fits;
  void Add(double held, AdcPoint fit) {
    coherence.push_back(held);
    fits.push_back(fit);
  }
};

// With c = delta = k0 = 1 and no slope a pixel's phase height is z + x and its coherence height
// the one held, so the difference a fold sees is chosen directly: 1000 + offset against 1000.
HeightFoldStep UnitStep(double wavelength) {
  HeightFoldStep step;
  step.c = step.delta = step.k0 = 1.0;
  step.wavelength = wavelength;
  step.halfWavelength = wavelength / 2.0;
  step.canFold = true;
  return step;
}

// A 64-frame FDA at 80 nm: c = 64 x 80 / 2 pi, a mean peak bin of 17.3 (a wavelength of 296 nm).
HeightFoldStep FdaStep() {
  HeightFoldStep step;
  step.delta = 80.0;
  step.c = 64 * 80.0 / (2.0 * 3.141592653589793);
  step.k0 = 17.3;
  step.wavelength = 64 * 80.0 / 17.3;
  step.halfWavelength = step.wavelength / 2.0;
  step.canFold = true;
  return step;
}

Pixels EdgeCases(double wavelength) {
  Pixels p;
  const double half = wavelength / 2.0;
  const double inf = std::numeric_limits<double>::infinity();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (const double offset : {0.0, -0.0, half, -half, std::nextafter(half, 1e9), std::nextafter(-half, -1e9),
                              std::nextafter(half, 0.0), std::nextafter(-half, 0.0), 3.0 * wavelength + half,
                              -7.0 * wavelength - half, 1234.5678 * wavelength, -98765.4321 * wavelength,
                              1e6 * wavelength + std::nextafter(half, 1e9), wavelength * 9007199254740992.0,
                              -1e300, inf, -inf, nan})
    p.Add(1000.0, AdcPoint{offset, 0.0, 1000.0});
  p.Add(kNoData, AdcPoint{5.0, 0.0, 1000.0});
  p.Add(std::nextafter(kNoData, 0.0), AdcPoint{5.0, 0.0, 1000.0});
  p.Add(nan, AdcPoint{5.0, 0.0, 1000.0});
  p.Add(1000.0, AdcPoint{kNoData, 0.0, 1000.0});
  p.Add(1000.0, AdcPoint{0.0, nan, 1000.0});
  p.Add(1000.0, AdcPoint{0.0, 1e-300, -0.0});
  return p;
}

Pixels RandomPixels(Testing::SeededRandom& random, int count, const HeightFoldStep& step) {
  Pixels p;
  for (int i = 0; i < count; ++i) {
    const double frame = random.UniformInt(32, 200);
    const double held = random.UniformInt(0, 9) == 0 ? kNoData : frame * step.delta;
    // Slopes of a bin or two either way and intercepts of many turns: phase heights many
    // wavelengths from the coherence height, on both sides.
    p.Add(held, AdcPoint{random.Uniform(-40.0, 40.0), random.Uniform(-2.0, 2.0), frame});
  }
  return p;
}

void ExpectSameBits(const Pixels& p, HeightFoldStep step, std::int64_t first, std::int64_t end) {
  const std::size_t n = p.coherence.size();
  std::vector<double> coherence[2] = {p.coherence, p.coherence};
  std::vector<double> phase[2];
  for (int k = 0; k < 2; ++k) {
    for (std::size_t i = 0; i < n; ++i)
      phase[k].push_back(-1.0 - static_cast<double>(i));  // what skipped pixels must keep
    step.coherence = coherence[k].data();
    step.phase = phase[k].data();
    step.fits = p.fits.data();
    (k == 0 ? FoldHeights : FoldHeightsAvx2)(step, first, end);
  }
  for (std::size_t i = 0; i < n; ++i) {
    for (const std::vector<double>* v : {coherence, phase}) {
      const double reference = v[0][i], vector = v[1][i];
      // A NaN's sign and payload are the compiler's choice of operand order, not the arithmetic's.
      if (std::isnan(reference) && std::isnan(vector)) continue;
      ASSERT_EQ(std::bit_cast<std::uint64_t>(vector), std::bit_cast<std::uint64_t>(reference))
          << (v == coherence ? "coherence" : "phase") << " height of pixel " << i << " of [" << first << ", "
          << end << "): fit " << p.fits[i].x << ", " << p.fits[i].y << ", " << p.fits[i].z << ", held "
          << p.coherence[i] << "; reference " << reference << ", vector " << vector;
    }
  }
}

TEST(HeightFoldTest, TheVectorKernelGivesTheReferencesBits) {
  __builtin_cpu_init();
  if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "no AVX2 on this processor";
  for (const double wavelength : {300.0, 0.1, 612.345}) {
    const Pixels edges = EdgeCases(wavelength);
    const auto n = static_cast<std::int64_t>(edges.coherence.size());
    HeightFoldStep step = UnitStep(wavelength);
    for (const bool fold : {true, false}) {
      step.canFold = fold;
      for (const auto& [first, end] :
           {std::pair<std::int64_t, std::int64_t>{0, n}, {1, n - 2}, {3, 6}, {2, 3}})
        ExpectSameBits(edges, step, first, end);
    }
  }

  const HeightFoldStep step = FdaStep();
  Testing::SeededRandom random(44);
  SCOPED_TRACE(random.Describe());
  const Pixels field = RandomPixels(random, 4099, step);
  ExpectSameBits(field, step, 0, 4099);
  ExpectSameBits(field, step, 5, 4001);
}

// The reference's promise, on the same kind of field: every phase height within half a wavelength
// of its pixel's coherence height (the boundary itself belongs to the upper side), a whole number of
// wavelengths from where the fit put it, and both heights untouched where the coherence is missing.
TEST(HeightFoldTest, PutsEachPhaseHeightWithinHalfAWavelengthOfItsCoherenceHeight) {
  HeightFoldStep step = FdaStep();
  Testing::SeededRandom random(45);
  SCOPED_TRACE(random.Describe());
  const Pixels field = RandomPixels(random, 2000, step);
  const std::size_t n = field.fits.size();
  for (const FoldHeightsFunction foldHeights : {&FoldHeights, SelectFoldHeights()}) {
    std::vector<double> unfolded(n, -1.0), folded(n, -1.0);
    std::vector<double> coherence = field.coherence;
    step.coherence = coherence.data();
    step.fits = field.fits.data();
    step.canFold = false;
    step.phase = unfolded.data();
    foldHeights(step, 0, static_cast<std::int64_t>(n));
    coherence = field.coherence;
    step.canFold = true;
    step.phase = folded.data();
    foldHeights(step, 0, static_cast<std::int64_t>(n));
    for (std::size_t i = 0; i < n; ++i) {
      const AdcPoint& fit = field.fits[i];
      if (field.coherence[i] == kNoData) {
        EXPECT_EQ(coherence[i], kNoData);
        EXPECT_EQ(folded[i], -1.0);
        continue;
      }
      EXPECT_DOUBLE_EQ(coherence[i], field.coherence[i] + step.c * fit.y);
      EXPECT_NEAR(unfolded[i], fit.z * step.delta + step.c * (fit.y + fit.x / step.k0), 1e-9);
      EXPECT_LE(folded[i] - coherence[i], step.halfWavelength) << "pixel " << i;
      EXPECT_GT(folded[i] - coherence[i], -step.halfWavelength - 1e-9) << "pixel " << i;
      const double turns = (unfolded[i] - folded[i]) / step.wavelength;
      EXPECT_NEAR(turns, std::round(turns), 1e-9) << "pixel " << i;
    }
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

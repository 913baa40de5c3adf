// The fringe-order step's AVX2 kernel against the one-pixel reference, bit for bit, on the values
// where a vector rewrite of rounding and selects goes wrong: halves of a wavelength either side of
// zero, offsets just inside and outside half a wavelength, negative offsets that round to -0,
// quotients beyond 2^52, infinities and NaN, no-data in either height, residuals exactly at the
// limit, and ranges that start and end inside a vector.
#include "Swli/detail/FringeOrders.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/NoData.h"
#include "Synthetic/SeededRandom.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {
namespace {

constexpr double kLambda = 300.0;
const double kNoData = Analysis::Core::NoDataTraits<double>::Value();

struct Heights {
  std::vector<double> coherence, phase;
  void Add(double c, double p) {
    coherence.push_back(c);
    phase.push_back(p);
  }
};

Heights EdgeCases() {
  Heights h;
  const double inf = std::numeric_limits<double>::infinity();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (const double offset : {0.0,
                              -0.0,
                              0.5 * kLambda,
                              -0.5 * kLambda,
                              1.5 * kLambda,
                              -2.5 * kLambda,
                              std::nextafter(0.5 * kLambda, 0.0),
                              std::nextafter(-0.5 * kLambda, 0.0),
                              -0.3 * kLambda,
                              0.3 * kLambda,
                              0.25 * kLambda,
                              -0.25 * kLambda,
                              1e60,
                              -1e60,
                              kLambda * 4503599627370496.0,
                              inf,
                              -inf,
                              nan,
                              1e-300,
                              -1e-300})
    h.Add(1000.0, 1000.0 + offset);
  h.Add(kNoData, 50.0);
  h.Add(50.0, kNoData);
  h.Add(kNoData, kNoData);
  h.Add(nan, 10.0);
  h.Add(10.0, nan);
  h.Add(std::nextafter(kNoData, 0.0), 10.0);
  h.Add(-kNoData, 10.0);
  h.Add(10.0, -0.0);  // order -0: the height is -0 - (-0 x lambda) = +0
  return h;
}

Heights RandomHeights(Testing::SeededRandom& random, int count) {
  Heights h;
  for (int i = 0; i < count; ++i) {
    const double c = random.Uniform(-1e4, 1e4);
    const double e = random.UniformInt(0, 9) == 0 ? kNoData : c;
    h.Add(e, c + random.Uniform(-0.6, 0.6) * kLambda + random.UniformInt(-5, 5) * kLambda);
  }
  return h;
}

void ExpectSameBits(const Heights& h, double gap, double limitFraction, std::int64_t first,
                    std::int64_t end) {
  const std::size_t n = h.coherence.size();
  std::vector<double> reference(n), vector(n);
  for (std::size_t i = 0; i < n; ++i)
    reference[i] = vector[i] = -1.0 - static_cast<double>(i);  // what skipped pixels must keep
  FringeOrderStep step;
  step.coherence = h.coherence.data();
  step.phase = h.phase.data();
  step.gap = gap;
  step.wavelength = kLambda;
  step.limit = limitFraction * kLambda;
  step.surface = reference.data();
  ChooseFringeOrders(step, first, end);
  step.surface = vector.data();
  ChooseFringeOrdersAvx2(step, first, end);
  for (std::size_t i = 0; i < n; ++i) {
    // A NaN's sign and payload are not defined by the arithmetic (x86 keeps one operand's, and which
    // operand comes first is the compiler's choice), so a NaN need only meet a NaN.
    if (std::isnan(vector[i]) && std::isnan(reference[i])) continue;
    ASSERT_EQ(std::bit_cast<std::uint64_t>(vector[i]), std::bit_cast<std::uint64_t>(reference[i]))
        << "pixel " << i << " of [" << first << ", " << end << "): coherence " << h.coherence[i] << ", phase "
        << h.phase[i] << ", gap " << gap << ", limit " << limitFraction << " lambda; reference "
        << reference[i] << ", vector " << vector[i];
  }
}

TEST(FringeOrdersTest, TheVectorKernelGivesTheReferencesBits) {
  __builtin_cpu_init();
  if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "no AVX2 on this processor";
  const Heights edges = EdgeCases();
  const auto n = static_cast<std::int64_t>(edges.coherence.size());
  for (const double gap : {0.0, -0.0, 0.5 * kLambda, 17.25})
    for (const double limit : {0.5, 0.25, 0.2})
      for (const auto& [first, end] :
           {std::pair<std::int64_t, std::int64_t>{0, n}, {1, n - 2}, {3, 6}, {2, 3}})
        ExpectSameBits(edges, gap, limit, first, end);

  Testing::SeededRandom random(43);
  SCOPED_TRACE(random.Describe());
  const Heights field = RandomHeights(random, 4099);
  ExpectSameBits(field, random.Uniform(-150.0, 150.0), 0.3, 0, 4099);
  ExpectSameBits(field, 0.0, 0.5, 5, 4000);
}

// The reference itself on a few values worked by hand: a phase height moved onto the order nearest
// the coherence height plus the gap, halves rounded away from zero, doubtful orders rejected.
TEST(FringeOrdersTest, MovesEachPhaseHeightToTheNearestOrder) {
  const std::vector<double> coherence{100.0, 100.0, 100.0, 100.0, kNoData};
  const std::vector<double> phase{100.0 + 3 * kLambda + 20.0, 100.0 - 2 * kLambda - 20.0, 100.0 + 150.0,
                                  100.0 + 0.4 * kLambda, 7.0};
  std::vector<double> surface(5, -1.0);
  FringeOrderStep step;
  step.coherence = coherence.data();
  step.phase = phase.data();
  step.surface = surface.data();
  step.wavelength = kLambda;
  for (const ChooseFringeOrdersFunction choose : {&ChooseFringeOrders, SelectChooseFringeOrders()}) {
    step.limit = 0.5 * kLambda;  // every order stands
    std::fill(surface.begin(), surface.end(), -1.0);
    choose(step, 0, 5);
    EXPECT_DOUBLE_EQ(surface[0], 120.0);
    EXPECT_DOUBLE_EQ(surface[1], 80.0);
    EXPECT_DOUBLE_EQ(surface[2], 100.0 + 150.0 - kLambda);  // offset of exactly half: order 1
    EXPECT_DOUBLE_EQ(surface[3], 100.0 + 0.4 * kLambda);
    EXPECT_EQ(surface[4], -1.0);  // no coherence height: left alone
    step.limit = 0.3 * kLambda;   // orders more than 0.3 lambda off are doubtful
    choose(step, 0, 5);
    EXPECT_EQ(surface[2], kNoData);
    EXPECT_EQ(surface[3], kNoData);
    EXPECT_DOUBLE_EQ(surface[0], 120.0);
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

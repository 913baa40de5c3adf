// The vector atan2 kernels against libm's scalar atan2.
#include "Swli/detail/VectorAtan2.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <numbers>
#include <vector>

#include <gtest/gtest.h>

#include "Synthetic/SeededRandom.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {
namespace {

// Distance in units in the last place between two finite doubles of the same sign.
std::int64_t UlpDistance(double a, double b) {
  const auto ordered = [](double v) {
    const auto bits = std::bit_cast<std::int64_t>(v);
    return bits < 0 ? std::numeric_limits<std::int64_t>::min() - bits : bits;
  };
  const std::int64_t d = ordered(a) - ordered(b);
  return d < 0 ? -d : d;
}

// The phases of band bins as the FDA forms them: parts from a fraction of a count to some 10^7 (16-bit
// fringes over 128 samples), every quadrant, with the axes, signed zeros and parts of very different
// size among them. SLEEF's kernels promise 3.5 ulp from the exact angle and libm's atan2 stays within
// one, so each result must lie within 4 ulp of libm's (a lane mixed up with its neighbour, a swapped
// argument or a quadrant lost would be off by far more). Counts not a multiple of the widest vector
// reach the kernels' tails; the last element must be untouched past `count`.
TEST(VectorAtan2Test, EveryImplementationIsWithinFourUlpOfLibm) {
  Testing::SeededRandom random(61);
  SCOPED_TRACE(random.Describe());
  std::vector<double> y, x;
  const double specials[] = {0.0, -0.0, 1.0, -1.0, 3e6, -3e6, 1e-3, -1e-3};
  for (double a : specials) {
    for (double b : specials) {
      y.push_back(a);
      x.push_back(b);
    }
  }
  while (y.size() < 4092) {
    const double magnitude = std::exp(random.Uniform(std::log(1e-2), std::log(1e7)));
    const double angle = random.Uniform(-std::numbers::pi, std::numbers::pi);
    const double squash = random.UniformInt(0, 4) == 0 ? random.Uniform(1e-9, 1e-3) : 1.0;
    y.push_back(magnitude * std::sin(angle));
    x.push_back(magnitude * std::cos(angle) * squash);
  }
  const int count = static_cast<int>(y.size());
  __builtin_cpu_init();
  const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
  const struct {
    const char* name;
    VectorAtan2Function kernel;
    bool runs;
  } kernels[] = {{"SSE2", &VectorAtan2Sse2, true},
                 {"AVX2", &VectorAtan2Avx2, avx2},
                 {"AVX-512", &VectorAtan2Avx512, __builtin_cpu_supports("avx512f") != 0}};
  for (const auto& k : kernels) {
    if (!k.runs) continue;
    SCOPED_TRACE(k.name);
    std::vector<double> out(static_cast<std::size_t>(count) + 1, 7.0);
    k.kernel(y.data(), x.data(), out.data(), count);
    std::int64_t worst = 0;
    for (int i = 0; i < count; ++i) {
      const double exact = std::atan2(y[static_cast<std::size_t>(i)], x[static_cast<std::size_t>(i)]);
      const double got = out[static_cast<std::size_t>(i)];
      ASSERT_EQ(std::signbit(got), std::signbit(exact))
          << "y " << y[static_cast<std::size_t>(i)] << ", x " << x[static_cast<std::size_t>(i)];
      const std::int64_t ulps = UlpDistance(got, exact);
      worst = std::max(worst, ulps);
      ASSERT_LE(ulps, 4) << "y " << y[static_cast<std::size_t>(i)] << ", x "
                         << x[static_cast<std::size_t>(i)];
    }
    EXPECT_EQ(out.back(), 7.0);
    std::printf("%s: at most %lld ulp from libm\n", k.name, static_cast<long long>(worst));
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

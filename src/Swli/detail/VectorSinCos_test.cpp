// The vector sine and cosine kernels against libm's.
#include "Swli/detail/VectorSinCos.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <numbers>
#include <vector>

#include <gtest/gtest.h>

#include "Synthetic/SeededRandom.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {
namespace {

// The angles of the fringe-order gap, 2 pi (phase - coherence) / lambda: mostly within a turn of
// zero, some many turns away (heights not yet folded), with the axes, signed zeros and tiny angles
// among them. SLEEF's kernels promise 3.5 ulp from the exact value and libm stays within one, so
// each result must lie within 5 ulp of libm's, counted against the larger of the value and 2^-30
// (near a zero of the function an ulp of the value is no measure of an error in the angle; a lane
// mixed up with its neighbour or a sine swapped for a cosine is off by far more). Counts not a
// multiple of the widest vector reach the kernels' tails; nothing past `count` may be written.
TEST(VectorSinCosTest, EveryImplementationIsWithinFiveUlpOfLibm) {
  Testing::SeededRandom random(62);
  SCOPED_TRACE(random.Describe());
  std::vector<double> angles = {0.0,
                                -0.0,
                                1e-300,
                                -1e-12,
                                std::numbers::pi / 2,
                                -std::numbers::pi,
                                std::numbers::pi,
                                2 * std::numbers::pi,
                                1.0,
                                -3.0};
  while (angles.size() < 4092) {
    const double turns = random.UniformInt(0, 9) == 0 ? 200.0 : 1.0;
    angles.push_back(random.Uniform(-turns, turns) * std::numbers::pi);
  }
  const int count = static_cast<int>(angles.size());
  __builtin_cpu_init();
  const struct {
    const char* name;
    VectorSinCosFunction kernel;
    bool runs;
  } kernels[] = {{"SSE2", &VectorSinCosSse2, true},
                 {"AVX2", &VectorSinCosAvx2, __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")},
                 {"AVX-512", &VectorSinCosAvx512, __builtin_cpu_supports("avx512f") != 0}};
  const double floor = std::ldexp(1.0, -30);
  for (const auto& k : kernels) {
    if (!k.runs) continue;
    SCOPED_TRACE(k.name);
    std::vector<double> sine(static_cast<std::size_t>(count) + 1, 7.0), cosine(sine);
    k.kernel(angles.data(), sine.data(), cosine.data(), count);
    double worst = 0.0;
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
      const double exact[2] = {std::sin(angles[i]), std::cos(angles[i])};
      const double got[2] = {sine[i], cosine[i]};
      for (int f = 0; f < 2; ++f) {
        const double ulp =
            std::nextafter(std::max(std::abs(exact[f]), floor), 1e9) - std::max(std::abs(exact[f]), floor);
        const double ulps = std::abs(got[f] - exact[f]) / ulp;
        worst = std::max(worst, ulps);
        ASSERT_LE(ulps, 5.0) << (f == 0 ? "sin " : "cos ") << angles[i] << ": " << got[f]
                             << " against libm's " << exact[f];
      }
    }
    EXPECT_EQ(sine.back(), 7.0);
    EXPECT_EQ(cosine.back(), 7.0);
    std::printf("%s: at most %.2f ulp from libm\n", k.name, worst);
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

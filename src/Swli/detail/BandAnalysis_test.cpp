// The block band analysis (both instruction sets) against a plain pixel-by-pixel statement of the
// same rules: the strongest bin, the unwrapping outwards from it, the weighted fit and the refined
// peak.
#include "Swli/detail/BandAnalysis.h"

#include <cmath>
#include <numbers>
#include <vector>

#include <gtest/gtest.h>

#include "Synthetic/SeededRandom.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {
namespace {

constexpr double kPi = std::numbers::pi;

// One pixel's results, as the plain path computes them: bins one at a time, branches where the rules
// branch.
struct PixelResult {
  double top = 0.0;
  int at = -1, lower = -1, upper = -1;
  double k0 = 0.0, intercept = 0.0, slope = 0.0;
  // A run with bins on both sides of the strongest: the only one whose k0 and fit mean anything.
  bool Fits() const { return at >= 0 && lower < at && upper > at; }
};

PixelResult Plain(const std::vector<double>& power, const std::vector<double>& wrapped, int firstBin) {
  PixelResult r;
  const int bins = static_cast<int>(power.size());
  for (int b = 0; b < bins; ++b) {
    if (power[static_cast<std::size_t>(b)] > r.top) {
      r.top = power[static_cast<std::size_t>(b)];
      r.at = b;
    }
  }
  if (r.at < 0) return r;
  std::vector<double> phase(power.size(), 0.0);
  const auto unwrap = [&](int b, int inner) {
    const double w = wrapped[static_cast<std::size_t>(b)], d = w - phase[static_cast<std::size_t>(inner)];
    phase[static_cast<std::size_t>(b)] = d > kPi ? w - 2.0 * kPi : (d < -kPi ? w + 2.0 * kPi : w);
  };
  phase[static_cast<std::size_t>(r.at)] = wrapped[static_cast<std::size_t>(r.at)];
  r.lower = r.upper = r.at;
  for (int b = r.at - 1; b >= 0 && power[static_cast<std::size_t>(b)] > 0.0; --b) {
    unwrap(b, b + 1);
    r.lower = b;
  }
  for (int b = r.at + 1; b < bins && power[static_cast<std::size_t>(b)] > 0.0; ++b) {
    unwrap(b, b - 1);
    r.upper = b;
  }
  double sw = 0.0, sk = 0.0, skk = 0.0, sy = 0.0, sky = 0.0;
  for (int b = r.lower; b <= r.upper; ++b) {
    const double w = power[static_cast<std::size_t>(b)], y = phase[static_cast<std::size_t>(b)];
    const double k = firstBin + b;
    sw += w;
    sk += w * k;
    skk += w * k * k;
    sy += w * y;
    sky += w * y * k;
  }
  const double d = skk * sw - sk * sk;
  r.intercept = (sy * skk - sky * sk) / d;
  r.slope = (sky * sw - sy * sk) / d;
  if (r.Fits()) {
    const double below = power[static_cast<std::size_t>(r.at - 1)],
                 centre = power[static_cast<std::size_t>(r.at)];
    const double above = power[static_cast<std::size_t>(r.at + 1)];
    r.k0 = (firstBin + r.at) + (below - above) / (2.0 * (above + below - 2.0 * centre));
  }
  return r;
}

// Random blocks whose lanes cover the cases the selects must get right: bins below the threshold
// anywhere (runs cut short on either side, lanes with no bin at all), equal powers (the first wins),
// the strongest bin at either end of the band, phases that step by nearly pi either way (unwrapping
// decisions), one-bin bands. Every lane must match the plain statement bit for bit: the kernels do
// the same arithmetic in the same order, and the sums add exact zeros outside a lane's run.
TEST(BandAnalysisTest, EveryLaneIsThePlainPixelsResultBitForBit) {
  Testing::SeededRandom random(53);
  SCOPED_TRACE(random.Describe());
  // Every implementation this processor runs (the widest is the one chosen).
  __builtin_cpu_init();
  std::vector<BandAnalysisFunctions> kernels = {BandAnalysisSse2()};
  if (__builtin_cpu_supports("avx2")) kernels.push_back(BandAnalysisAvx2());
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq"))
    kernels.push_back(BandAnalysisAvx512());
  for (const int bins : {1, 2, 3, 9, 17}) {
    for (int trial = 0; trial < 40; ++trial) {
      const std::size_t cells = static_cast<std::size_t>(bins) * kBandLanes;
      std::vector<double> re(cells), im(cells), power(cells), wrapped(cells), phase(cells);
      const double threshold = 100.0;
      for (std::size_t c = 0; c < cells; ++c) {
        const int kind = random.UniformInt(0, 9);
        // Below the threshold, at it (empty too), a tie value, or a random strength.
        const double magnitude = kind == 0   ? 5.0
                                 : kind == 1 ? 10.0
                                 : kind == 2 ? 40.0
                                             : random.Uniform(10.0, 60.0);
        const double angle = random.Uniform(-kPi, kPi);
        re[c] = magnitude * std::cos(angle);
        im[c] = magnitude * std::sin(angle);
        if (kind == 2) re[c] = 40.0, im[c] = 0.0;  // exact ties
        if (kind == 1) re[c] = 10.0, im[c] = 0.0;  // power exactly at the threshold: empty
      }
      BandAnalysisBlock block;
      block.bins = bins;
      block.firstBin = 13;
      block.threshold = threshold;
      block.re = re.data();
      block.im = im.data();
      block.power = power.data();
      block.wrapped = wrapped.data();
      block.phase = phase.data();
      for (std::size_t kernel = 0; kernel < kernels.size(); ++kernel) {
        double lanes[7][kBandLanes];
        block.top = lanes[0];
        block.at = lanes[1];
        block.lower = lanes[2];
        block.upper = lanes[3];
        block.k0 = lanes[4];
        block.intercept = lanes[5];
        block.slope = lanes[6];
        kernels[kernel].powers(block);
        for (std::size_t c = 0; c < cells; ++c)
          wrapped[c] = std::atan2(im[c], re[c]);
        kernels[kernel].unwrapAndSum(block);
        for (int i = 0; i < kBandLanes; ++i) {
          std::vector<double> lanePower(static_cast<std::size_t>(bins)),
              laneWrapped(static_cast<std::size_t>(bins));
          for (int b = 0; b < bins; ++b) {
            const std::size_t c = static_cast<std::size_t>(b) * kBandLanes + static_cast<std::size_t>(i);
            const double p = re[c] * re[c] + im[c] * im[c];
            ASSERT_EQ(power[c], p > threshold ? p : 0.0) << "lane " << i << " bin " << b;
            lanePower[static_cast<std::size_t>(b)] = power[c];
            laneWrapped[static_cast<std::size_t>(b)] = wrapped[c];
          }
          const PixelResult r = Plain(lanePower, laneWrapped, 13);
          SCOPED_TRACE("kernel " + std::to_string(kernel) + ", " + std::to_string(bins) + " bins, lane " +
                       std::to_string(i));
          ASSERT_EQ(lanes[0][i], r.top);
          ASSERT_EQ(lanes[1][i], r.at);
          if (r.at < 0) continue;
          ASSERT_EQ(lanes[2][i], r.lower);
          ASSERT_EQ(lanes[3][i], r.upper);
          if (!r.Fits()) continue;
          ASSERT_EQ(lanes[4][i], r.k0);
          ASSERT_EQ(lanes[5][i], r.intercept);
          ASSERT_EQ(lanes[6][i], r.slope);
        }
      }
    }
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

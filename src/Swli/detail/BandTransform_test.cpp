// The band transform against an extended-precision sum and against the whole FFT it replaces.
#include "Swli/detail/BandTransform.h"

#include <cmath>
#include <complex>
#include <cstdio>
#include <numbers>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/Fft1DReal.h"
#include "Synthetic/SeededRandom.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {
namespace {

struct BandCase {
  int size;
  int first, last;
  int maxSample;  // 255: 8-bit samples, 65535: 16-bit
};

void PrintTo(const BandCase& c, std::ostream* os) {
  *os << c.size << " samples, bins " << c.first << ".." << c.last << ", samples to " << c.maxSample;
}

class BandTransformTest : public ::testing::TestWithParam<BandCase> {};

// White-light-like signals (an offset, fringes of a random wavenumber under a Gaussian envelope,
// noise), rounded to integer samples as the loaders deliver them. Each bin of the band is compared
// with the sum over all samples in long double (64-bit mantissa, its own error some 2^11 times below
// a double's), with the bin's convention applied independently: re = (-1)^k Re X, im = -(-1)^k Im X
// of the FFT's X.
//
// Both kernels (AVX2 with FMA where the machine has it, and SSE2) and FFTW's whole transform are
// measured on the same signals. The band transform must be at least as accurate as FFTW: its RMS
// error over all bins and signals no larger (a transform that confused a twiddle's sign or octant,
// or dropped the n/4 term, would be off by whole counts), and its largest error within twice
// FFTW's largest (a maximum over some ten thousand bins is a noisy statistic; the RMS is the
// claim). The FFT's own errors set the scale: some 1e-13 of a bin's magnitude for 8-bit samples.
TEST_P(BandTransformTest, IsAtLeastAsAccurateAsTheWholeTransform) {
  const BandCase& c = GetParam();
  Testing::SeededRandom random(41);
  SCOPED_TRACE(random.Describe());
  BandTransform band;
  ASSERT_TRUE(band.Plan(c.size, c.first, c.last));
  Analysis::Core::Fft1DReal fft(c.size);
  const int bins = c.last - c.first + 1;
  const BandBinsFunction kernels[2] = {SelectBandBins(), &BandBinsSse2};
  double sumSquares[3] = {0.0, 0.0, 0.0}, largest[3] = {0.0, 0.0, 0.0};
  long count = 0;
  std::vector<double> x(static_cast<std::size_t>(c.size));
  std::vector<double> re(static_cast<std::size_t>(bins)), im(static_cast<std::size_t>(bins));
  for (int signal = 0; signal < 400; ++signal) {
    const double offset = random.Uniform(0.3, 0.5) * c.maxSample;
    const double amplitude = random.Uniform(0.05, 0.45) * c.maxSample;
    const double cycles = random.Uniform(1.0, c.size / 2.0 - 1.0);
    const double centre = random.Uniform(0.3, 0.7) * c.size;
    const double width = random.Uniform(4.0, c.size / 3.0);
    for (int j = 0; j < c.size; ++j) {
      const double envelope = std::exp(-0.5 * (j - centre) * (j - centre) / (width * width));
      const double value = offset +
                           amplitude * envelope * std::cos(2.0 * std::numbers::pi * cycles * j / c.size) +
                           random.Normal(0.01 * c.maxSample);
      x[static_cast<std::size_t>(j)] = std::round(std::clamp(value, 0.0, static_cast<double>(c.maxSample)));
    }
    std::vector<long double> exactRe(static_cast<std::size_t>(bins)), exactIm(static_cast<std::size_t>(bins));
    for (int k = c.first; k <= c.last; ++k) {
      const long double sign = (k % 2 == 0) ? 1.0L : -1.0L;
      long double sumRe = 0.0L, sumIm = 0.0L;
      for (int j = 0; j < c.size; ++j) {
        const long double angle =
            2.0L * std::numbers::pi_v<long double> * static_cast<long double>((j * k) % c.size) / c.size;
        sumRe += x[static_cast<std::size_t>(j)] * std::cos(angle);
        sumIm += x[static_cast<std::size_t>(j)] * std::sin(angle);
      }
      exactRe[static_cast<std::size_t>(k - c.first)] = sign * sumRe;
      exactIm[static_cast<std::size_t>(k - c.first)] = sign * sumIm;
    }
    const auto accumulate = [&](int method, int b, double binRe, double binIm) {
      const double error = static_cast<double>(std::hypot(binRe - exactRe[static_cast<std::size_t>(b)],
                                                          binIm - exactIm[static_cast<std::size_t>(b)]));
      sumSquares[method] += error * error;
      largest[method] = std::max(largest[method], error);
    };
    std::copy(x.begin(), x.end(), fft.Input());
    fft.Forward();
    for (int k = c.first; k <= c.last; ++k) {
      const double sign = (k % 2 == 0) ? 1.0 : -1.0;
      const std::complex<double> bin = fft.Output()[k];
      accumulate(2, k - c.first, sign * bin.real(), -sign * bin.imag());
    }
    for (int kernel = 0; kernel < 2; ++kernel) {
      kernels[kernel](band, x.data(), re.data(), im.data(), 1);
      for (int b = 0; b < bins; ++b)
        accumulate(kernel, b, re[static_cast<std::size_t>(b)], im[static_cast<std::size_t>(b)]);
    }
    count += bins;
  }
  const char* names[3] = {"selected kernel", "SSE2 kernel", "FFTW"};
  for (int m = 0; m < 3; ++m) {
    std::printf("%s: rms %.3g, max %.3g\n", names[m], std::sqrt(sumSquares[m] / count), largest[m]);
  }
  for (int kernel = 0; kernel < 2; ++kernel) {
    SCOPED_TRACE(names[kernel]);
    EXPECT_LE(std::sqrt(sumSquares[kernel] / count), std::sqrt(sumSquares[2] / count));
    EXPECT_LE(largest[kernel], 2.0 * largest[2]);
  }
}

INSTANTIATE_TEST_SUITE_P(Bands, BandTransformTest,
                         ::testing::Values(BandCase{64, 13, 21, 255}, BandCase{64, 13, 21, 65535},
                                           BandCase{128, 26, 42, 255}, BandCase{64, 0, 32, 255},
                                           BandCase{128, 1, 64, 65535}, BandCase{64, 14, 14, 255},
                                           BandCase{8, 0, 4, 255}));

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

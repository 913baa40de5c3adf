#include "SwliMba/Search/LibraryResampler.h"

#include <fftw3.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Synthetic/SeededRandom.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {
namespace {

using Analysis::Core::DoubleMatrix2D;
namespace StatusCode = Analysis::Core::StatusCode;

constexpr const char* kHalfWidth =
    "Input library matrix is not admissible: half the width of a library matrix must be an odd number";

DoubleMatrix2D RandomLibrary(int rows, int bins, unsigned seed) {
  Testing::SeededRandom random(seed);
  DoubleMatrix2D m(rows, 2 * bins);
  for (int r = 0; r < rows; ++r)
    for (int c = 0; c < 2 * bins; ++c)
      m(r, c) = random.Uniform(-1.0, 1.0);
  return m;
}

TEST(LibraryResamplerTest, OutputSampleCountMustBeEven) {
  LibraryResampler resampler;
  resampler.SetNumberOfOutputSamples(512);
  EXPECT_EQ(resampler.GetNumberOfOutputBins(), 257);
  resampler.SetNumberOfOutputSamples(513);
  EXPECT_EQ(resampler.GetStatus().GetCode(), StatusCode::kNotSet);
  EXPECT_EQ(resampler.GetStatus().GetMessage(), "Number of output samples must be an even number");
  EXPECT_EQ(resampler.GetNumberOfOutputSamples(), 512);
  EXPECT_EQ(resampler.GetNumberOfOutputBins(), 257);
}

struct FailureCase {
  const char* name;
  bool setInputSlope, setOutputSlope;
  int rows, columns;
  bool zeroFirstRow;
  unsigned code;
  std::string message;
};

// Names the case in test listings (instead of its bytes).
[[maybe_unused]] void PrintTo(const FailureCase& c, std::ostream* os) {
  *os << c.name;
}

class LibraryResamplerFailureTest : public testing::TestWithParam<FailureCase> {};

// Wiring is checked before admissibility, admissibility in the order width, height, even, odd half.
TEST_P(LibraryResamplerFailureTest, RecordsCodeAndMessage) {
  const FailureCase& c = GetParam();
  LibraryResampler resampler;
  if (c.setInputSlope) resampler.SetInputRampSlope(0.08);
  if (c.setOutputSlope) resampler.SetOutputRampSlope(0.07);
  DoubleMatrix2D input = RandomLibrary(c.rows, c.columns / 2, 1);
  input.Resize(c.rows, c.columns);
  if (c.zeroFirstRow)
    for (int k = 0; k < c.columns; ++k)
      input(0, k) = 0.0;
  DoubleMatrix2D output;
  resampler.Execute(input, output);
  EXPECT_EQ(resampler.GetStatus().GetCode(), c.code);
  EXPECT_EQ(resampler.GetStatus().GetMessage(), c.message);
  EXPECT_EQ(resampler.GetStatus().GetFile(), "SwliMba\\Search\\LibraryResampler");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LibraryResamplerFailureTest,
    testing::Values(
        FailureCase{"NoInputSlope", false, true, 3, 10, false, StatusCode::kCallFailed,
                    "Input ramp slope is unset"},
        FailureCase{"NoOutputSlope", true, false, 3, 10, false, StatusCode::kCallFailed,
                    "Output ramp slope is unset"},
        FailureCase{"ZeroWidth", true, true, 3, 0, false, StatusCode::kNotSet,
                    "Input library matrix is not admissible: width must be positive"},
        FailureCase{"ZeroHeight", true, true, 0, 10, false, StatusCode::kNotSet,
                    "Input library matrix is not admissible: height must be positive"},
        FailureCase{
            "OddWidth", true, true, 3, 9, false, StatusCode::kNotSet,
            "Input library matrix is not admissible: the width of a library matrix must be an even number"},
        FailureCase{"EvenBins", true, true, 3, 12, false, StatusCode::kNotSet, kHalfWidth},
        FailureCase{"FirstRowZero", true, true, 3, 10, true, StatusCode::kCallFailed,
                    "Determination of first valid library bin failed"}),
    [](const testing::TestParamInfo<FailureCase>& info) { return std::string(info.param.name); });

// With equal samplings every output bin falls on an input bin, so the valid bins come back: bit
// for bit in the interior (t = 0, the value is y1), and to rounding in the first interval and the
// last two, which evaluate the edge stencil at its nodes t = -1, 1, 2. The bins outside the first
// row's valid band become 0.
TEST(LibraryResamplerTest, EqualSamplingReproducesValidBins) {
  DoubleMatrix2D input = RandomLibrary(4, 9, 7);
  for (int r = 0; r < 4; ++r)
    for (int j : {0, 1, 8})
      input(r, 2 * j) = input(r, 2 * j + 1) = r == 0 ? 0.0 : 5.0;
  LibraryResampler resampler;
  resampler.SetInputRampSlope(0.08);
  resampler.SetOutputRampSlope(0.08);
  DoubleMatrix2D output;
  resampler.Execute(input, output);
  ASSERT_TRUE(resampler.GetStatus().IsOk()) << resampler.GetStatus().GetPrintString();
  EXPECT_EQ(resampler.GetFirstValidInputBin(), 2);
  EXPECT_EQ(resampler.GetLastValidInputBin(), 7);
  ASSERT_EQ(output.GetRows(), 4);
  ASSERT_EQ(output.GetColumns(), 18);
  for (int r = 0; r < 4; ++r)
    for (int j = 0; j < 9; ++j) {
      const bool valid = j >= 2 && j <= 7;
      const bool interior = j >= 3 && j <= 5;
      for (int part : {0, 1}) {
        const double want = valid ? input(r, 2 * j + part) : 0.0;
        if (interior || !valid)
          EXPECT_EQ(output(r, 2 * j + part), want) << r << "," << j;
        else
          EXPECT_NEAR(output(r, 2 * j + part), want, 1e-14) << r << "," << j;
      }
    }
}

// A cubic in the bin index is reproduced exactly by a four-point cubic, in the interior and in the
// extrapolated first and last intervals alike: this pins the stencil choice and the coefficients.
TEST(LibraryResamplerTest, InterpolationIsExactForCubics) {
  auto f = [](double x) { return std::complex<double>(0.5 * x * x * x - 2 * x * x + x - 3, -x * x + 4); };
  std::vector<std::complex<double>> bins(12);
  for (int k = 0; k < 12; ++k)
    bins[k] = f(k);
  const int first = 2, last = 9;
  for (double x = 2.0; x <= 9.0; x += 0.125) {
    const std::complex<double> v = LibraryResampler::Interpolate(bins.data(), 12, first, last, x);
    EXPECT_NEAR(v.real(), f(x).real(), 1e-11) << x;
    EXPECT_NEAR(v.imag(), f(x).imag(), 1e-11) << x;
  }
  EXPECT_EQ(LibraryResampler::Interpolate(bins.data(), 12, first, last, 1.999),
            std::complex<double>(0.0, 0.0));
  EXPECT_EQ(LibraryResampler::Interpolate(bins.data(), 12, first, last, 9.001),
            std::complex<double>(0.0, 0.0));
}

TEST(LibraryResamplerTest, NormalizeDividesByComplexL2Norm) {
  DoubleMatrix2D library(2, 10);
  library.SetAll(0.0);
  library(0, 2) = 3.0;  // bin 1 of row 0: 3 + 4i
  library(0, 3) = 4.0;
  library(1, 4) = 0.0;  // row 1 all zero: stays zero
  LibraryResampler resampler;
  resampler.SetInputRampSlope(0.08);
  resampler.SetOutputRampSlope(0.08);
  DoubleMatrix2D copy;
  resampler.Execute(library, copy);  // valid bins 1 … 1
  ASSERT_TRUE(resampler.GetStatus().IsOk());
  resampler.NormalizeLibrary(library);
  ASSERT_TRUE(resampler.GetStatus().IsOk());
  EXPECT_DOUBLE_EQ(library(0, 2), 0.6);
  EXPECT_DOUBLE_EQ(library(0, 3), 0.8);
  for (int c = 0; c < 10; ++c)
    EXPECT_EQ(library(1, c), 0.0);

  DoubleMatrix2D bad(2, 12);
  bad.SetAll(1.0);
  resampler.NormalizeLibrary(bad);
  EXPECT_EQ(resampler.GetStatus().GetMessage(), kHalfWidth);
  EXPECT_EQ(bad(0, 0), 1.0);
}

// Spectrum of a white-light fringe packet centred at zeta0 (µm), scanned with `samples` frames of
// `stepUm` at zeta_j = (j - N/2) step, transformed with the origin at the middle frame
// (zeta = 0), as library spectra are. Row r has the packet at zeta0 = 0.2 r.
DoubleMatrix2D PacketLibrary(int rows, int samples, double stepUm) {
  const int bins = samples / 2 + 1;
  DoubleMatrix2D m(rows, 2 * bins);
  std::vector<double> trace(static_cast<std::size_t>(samples));
  std::vector<std::complex<double>> spectrum(static_cast<std::size_t>(bins));
  fftw_plan plan = fftw_plan_dft_r2c_1d(samples, trace.data(),
                                        reinterpret_cast<fftw_complex*>(spectrum.data()), FFTW_ESTIMATE);
  const double k0 = 2 * std::numbers::pi / 0.6;  // 600 nm centre wavelength
  const double coherenceUm = 1.0;
  for (int r = 0; r < rows; ++r) {
    const double zeta0 = 0.2 * r;
    for (int j = 0; j < samples; ++j) {
      // Circular shift by N/2: the middle frame becomes sample 0 of the transform.
      const int jj = (j + samples / 2) % samples;
      const double zeta = (jj - samples / 2) * stepUm - zeta0;
      trace[static_cast<std::size_t>(j)] =
          std::exp(-zeta * zeta / (coherenceUm * coherenceUm)) * std::cos(2 * k0 * zeta);
    }
    fftw_execute(plan);
    for (int j = 0; j < bins; ++j) {
      m(r, 2 * j) = spectrum[static_cast<std::size_t>(j)].real();
      m(r, 2 * j + 1) = spectrum[static_cast<std::size_t>(j)].imag();
    }
  }
  fftw_destroy_plan(plan);
  return m;
}

struct Sampling {
  int inSamples;
  double inStep;
  int outSamples;
  double outStep;
  double tolerance;  // relative to the largest magnitude of the directly computed spectrum
};

// Names the case in test listings (instead of its bytes).
[[maybe_unused]] void PrintTo(const Sampling& c, std::ostream* os) {
  *os << c.inSamples << "x" << c.inStep << "_to_" << c.outSamples << "x" << c.outStep;
}

class LibraryResamplerPhysicsTest : public testing::TestWithParam<Sampling> {};

// A library computed for one sampling, resampled to another, equals the library computed directly
// at the other sampling. A DFT of samples at step s approximates the continuous transform divided
// by s, so the direct spectrum is the resampled one times s_in / s_out. Equal scan lengths
// (N·s) put every output bin on an input bin: equal up to the different aliasing of the two
// steps (the Gaussian tails beyond the coarser Nyquist frequency, below 1e-9 of the peak). Otherwise the
// cubic's error is h⁴ |f''''| / 24-sized: the packets (1 µm coherence length, up to 0.6 µm off centre in a ≥
// 10 µm scan) give spectra that vary over several bins; the largest error is 0.1-0.5 % of the peak, tested
// against 1 % of the peak; a wrong slope ratio, sign or stencil gives errors of order 100 %.
TEST_P(LibraryResamplerPhysicsTest, MatchesDirectComputation) {
  const Sampling& s = GetParam();
  const int rows = 4;
  DoubleMatrix2D input = PacketLibrary(rows, s.inSamples, s.inStep);
  DoubleMatrix2D direct = PacketLibrary(rows, s.outSamples, s.outStep);
  for (bool threads : {false, true}) {
    LibraryResampler resampler;
    resampler.SetAllowMultiThreads(threads);
    resampler.SetInputRampSlope(s.inStep * 1000.0);  // nm: only the ratio matters
    resampler.SetOutputRampSlope(s.outStep * 1000.0);
    resampler.SetNumberOfOutputSamples(s.outSamples);
    DoubleMatrix2D output;
    resampler.Execute(input, output);
    ASSERT_TRUE(resampler.GetStatus().IsOk()) << resampler.GetStatus().GetPrintString();
    ASSERT_EQ(output.GetColumns(), direct.GetColumns());
    const double factor = s.inStep / s.outStep;
    for (int r = 0; r < rows; ++r) {
      double peak = 0.0, worst = 0.0;
      for (int j = 0; j < direct.GetColumns() / 2; ++j) {
        const std::complex<double> want(direct(r, 2 * j), direct(r, 2 * j + 1));
        const std::complex<double> got(output(r, 2 * j) * factor, output(r, 2 * j + 1) * factor);
        peak = std::max(peak, std::abs(want));
        // Bins beyond the input's band are 0 by construction; the packet has no energy there.
        worst = std::max(worst, std::abs(want - got));
      }
      EXPECT_LT(worst, s.tolerance * peak) << "row " << r << " threads " << threads;
    }
  }
}

std::string SamplingName(const testing::TestParamInfo<Sampling>& info) {
  const Sampling& s = info.param;
  return std::to_string(s.inSamples) + "x" + std::to_string(static_cast<int>(s.inStep * 1000 + 0.5)) +
         "nm_to_" + std::to_string(s.outSamples) + "x" +
         std::to_string(static_cast<int>(s.outStep * 1000 + 0.5)) + "nm";
}

INSTANTIATE_TEST_SUITE_P(Samplings, LibraryResamplerPhysicsTest,
                         testing::Values(Sampling{256, 0.04, 128, 0.08, 1e-8},  // same length
                                         Sampling{128, 0.08, 160, 0.07, 1e-2},
                                         Sampling{128, 0.08, 128, 0.075, 1e-2},
                                         Sampling{160, 0.07, 128, 0.08, 1e-2}),
                         SamplingName);

// Threads change nothing: each row is resampled by one worker with the same arithmetic.
TEST(LibraryResamplerTest, ThreadedEqualsSingleThreaded) {
  DoubleMatrix2D input = RandomLibrary(37, 65, 11);
  DoubleMatrix2D one, many;
  for (bool threads : {false, true}) {
    LibraryResampler resampler;
    resampler.SetAllowMultiThreads(threads);
    resampler.SetInputRampSlope(80.0);
    resampler.SetOutputRampSlope(70.0);
    resampler.SetNumberOfOutputSamples(100);
    resampler.Execute(input, threads ? many : one);
    ASSERT_TRUE(resampler.GetStatus().IsOk());
    resampler.NormalizeLibrary(threads ? many : one);
  }
  ASSERT_EQ(one.GetCount(), many.GetCount());
  for (std::int64_t i = 0; i < one.GetCount(); ++i)
    ASSERT_EQ(one.At(i), many.At(i)) << i;
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search

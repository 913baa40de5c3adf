// Frequency-domain analysis on synthetic scans of known surfaces, and the fringe-order analysis.
#include "Swli/PhaseAlgorithmFda.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <numbers>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/NoData.h"
#include "Analysis/Core/UnitNumber.h"
#include "Swli/PhaseGenerator.h"
#include "Swli/detail/Rounding.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticScan.h"
#include "Testing/ImageEquivalence.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {
namespace {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::LinearConverter;
using Analysis::Core::UnitNumber;
using Analysis::Core::Window2D;
namespace Units = Analysis::Core::Units;
using Testing::SphereWithStepNm;

constexpr double kStepNm = 80.0;
constexpr double kTwoPi = 2.0 * std::numbers::pi;

Testing::ScanSettings Settings(double noise, double reflectionPhaseRad = 0.0) {
  Testing::ScanSettings s;
  s.rows = 24;
  s.cols = 32;
  s.noiseSigmaCounts = noise;
  s.reflectionPhaseRad = reflectionPhaseRad;
  return s;
}

// Scans the surface (noise seeded with `seed`) and evaluates every pixel with `fda`.
DoubleMatrix2D Measure(const Testing::ScanSettings& s, const std::function<double(int, int)>& height,
                       std::uint64_t seed, PhaseAlgorithmFda& fda) {
  Testing::DiscriminatedScan scan;
  EXPECT_TRUE(Testing::MakeDiscriminatedScan(scan, s, height, seed));
  fda.SetScanIncrement(UnitNumber(s.scanStepNm, LinearConverter(Units::kNanometers)));
  PhaseGenerator generator(&fda);
  DoubleMatrix2D surface(s.rows, s.cols);
  surface.SetAll(0.0);
  EXPECT_TRUE(generator.Process(scan.frames, scan.peaks, scan.auxiliary, surface).IsOk());
  return surface;
}

struct Errors {
  double rms = 0.0;
  double max = 0.0;
  int valid = 0;
};

// The errors of the valid pixels against the surface shifted by `offset`.
Errors Compare(const DoubleMatrix2D& surface, const std::function<double(int, int)>& height, double offset) {
  Errors e;
  double sumSquares = 0.0;
  for (int r = 0; r < surface.GetRows(); ++r) {
    for (int c = 0; c < surface.GetColumns(); ++c) {
      if (!DoubleMatrix2D::IsDataValid(surface(r, c))) continue;
      const double error = surface(r, c) - height(r, c) - offset;
      sumSquares += error * error;
      e.max = std::max(e.max, std::abs(error));
      ++e.valid;
    }
  }
  e.rms = e.valid ? std::sqrt(sumSquares / e.valid) : 0.0;
  return e;
}

// A reflection phase phi moves the fringes under the envelope: the phase heights read
// -phi / 2pi x lambda (mod lambda, in (-lambda/2, lambda/2]) from the surface, lambda = 300 nm.
double PhaseOffsetNm(double phaseRad) {
  return std::remainder(-phaseRad / kTwoPi * 300.0, 300.0);
}

struct AccuracyCase {
  double noiseCounts;
  double reflectionPhaseRad;
  double rmsNm;
  double maxNm;
};

class FdaAccuracyTest : public ::testing::TestWithParam<AccuracyCase> {};

// The surface itself, absolute, to a nanometre or two. (Were the transform's sign convention taken
// the wrong way round, the phase slope would change sign and heights would be off by hundreds of
// nanometres.) A reflection phase near pi puts the phase heights half a fringe from the coherence
// heights: folded around each pixel's noisy coherence height, some would land one fringe up, some one
// fringe down. The fringe-order analysis measures the common gap (from 768 pixels, to well under a
// nanometre) and puts every pixel on its order: the surface shifted by the gap.
//
// Tolerances: a sample noise of sigma counts (plus 0.29 of rounding) puts sigma sqrt(q/2) = 8.5
// sigma counts on the real and imaginary parts of every bin; the strongest bin of fringes of 60
// counts under an envelope of about 21 samples holds 60/2 x 21 ~ 630, so its phase wanders by about
// 0.014 sigma rad, and the power-weighted fit over the five bins above the threshold roughly halves
// that: some 0.3 nm per count of noise at lambda/2pi = 48 nm per radian. Without noise the rounding
// of the samples leaves about 0.1 nm. The bounds allow for the estimate's looseness: the RMS at
// about 1.5 times the prediction, every pixel at five times it.
//
// The equivalent wavelength is the light's: fringes of half the centre wavelength, 300 nm, at
// 80 / 300 x 64 = 17.07 cycles per signal. The parabola through the three strongest bins of the
// Gaussian peak is biased towards the nearest bin by a few hundredths of a bin (0.1 %); 0.2 % allows
// twice that and still fails the nearest bin itself (0.4 % off).
TEST_P(FdaAccuracyTest, RecoversTheSurfaceToANanometre) {
  const AccuracyCase& c = GetParam();
  SCOPED_TRACE(Testing::SeededRandom(17).Describe());
  PhaseAlgorithmFda fda;
  const DoubleMatrix2D surface =
      Measure(Settings(c.noiseCounts, c.reflectionPhaseRad), SphereWithStepNm, 17, fda);
  const double offset = PhaseOffsetNm(c.reflectionPhaseRad);
  const Errors e = Compare(surface, SphereWithStepNm, offset);
  EXPECT_EQ(e.valid, 24 * 32);
  EXPECT_LT(e.rms, c.rmsNm);
  EXPECT_LT(e.max, c.maxNm);
  EXPECT_NEAR(fda.GetAverageGap(), offset, 1.0);
  EXPECT_NEAR(fda.GetWaveLength(), 300.0, 0.002 * 300.0);
}

INSTANTIATE_TEST_SUITE_P(Noise, FdaAccuracyTest,
                         ::testing::Values(AccuracyCase{0.0, 0.0, 0.15, 0.5},
                                           AccuracyCase{1.5, 0.0, 0.7, 2.5},
                                           AccuracyCase{1.5, 3.08, 0.7, 2.5}));

// The fast path (the band's bins of each pixel summed directly into blocks of 32 pixels, the band of
// a block analysed at once with SLEEF's vector atan2) against the plain per-pixel path (FFTW's whole
// transform, libm's atan2), with the house's equivalence check over thread counts; the run is not
// pixel-local (K0 and the gap are field means), so only whole images. The scan is noisy, has a
// reflection phase near pi (phases near the branch cut, where an ulp could flip an unwrapping
// decision), is forward and reversed, has a pixel count that leaves partial blocks on every thread
// and a few masked pixels inside blocks.
//
// Tolerances: the two transforms' bins each lie within some 3e-13 (largest, measured in
// BandTransform_test) of the exact sums; on the weakest bins of a run, just above the threshold of
// 153, that moves a phase by up to 4e-15 rad, and the atan2s differ by 3.5 ulp besides. The
// intercept is the fitted line's value at bin 0, some 17 bins from the power-weighted centre of a
// run a bin or two wide: the normal equations' cancellation multiplies the phases' differences by up
// to (17 / 1)^2 ~ 300, about 1e-12 rad (the largest seen), so 3e-12 rad absolute on the fit records
// (their ulp mean nothing for values near 0). Heights of some 8 um (ulp 1.8e-12 nm) take the
// intercept times c / K0 = 48 nm per radian and the slope times 815 nm: up to 5e-11 nm, some 30 ulp
// (45 seen); 128 ulp allow some three times that. The field's gap is the circular mean of the
// pixels' differences: 1e-11 nm. The fast path against itself on any number of threads: bit for bit.
TEST(PhaseAlgorithmFdaTest, TheBlockPathWithTheVectorAtan2AgreesWithThePlainPath) {
  for (const int direction : {1, -1}) {
    SCOPED_TRACE("direction " + std::to_string(direction));
    Testing::ScanSettings s = Settings(2.0, 3.1);
    s.rows = 9;
    s.cols = 37;
    s.scanDirection = direction;
    Testing::DiscriminatedScan scan;
    ASSERT_TRUE(Testing::MakeDiscriminatedScan(scan, s, SphereWithStepNm, 29));
    double gaps[2] = {0.0, 0.0};
    const auto run = [&](int threads, bool fast) {
      PhaseAlgorithmFda fda;
      fda.SetUseFastPath(fast);
      fda.SetScanIncrement(UnitNumber(s.scanStepNm, LinearConverter(Units::kNanometers)));
      PhaseGenerator generator(&fda);
      generator.SetAllowMultiThreads(threads > 1);
      generator.SetMaxNumThreads(std::max(threads, 1));
      DoubleMatrix2D surface(s.rows, s.cols);
      surface.SetAll(0.0);
      for (const int masked : {5, 40, 41, 200})
        surface.At(masked) = DoubleMatrix2D::NoData();
      const Analysis::Core::Status status =
          generator.Process(scan.frames, scan.peaks, scan.auxiliary, surface);
      EXPECT_TRUE(status.IsOk()) << status.GetPrintString();
      Testing::ImageMaps maps(4);
      for (std::int64_t i = 0; i < surface.GetCount(); ++i) {
        const Analysis::Core::AdcPoint fit = fda.GetFitRecords()->At(i);
        maps[0].push_back(surface.At(i));
        maps[1].push_back(fda.GetCoherenceHeight().At(i));
        maps[2].push_back(fit.x);
        maps[3].push_back(fit.y);
      }
      EXPECT_EQ(surface.CountValid(), s.rows * s.cols - 4);
      gaps[fast] = fda.GetAverageGap();
      return maps;
    };
    Testing::ImageMaps plain = run(1, false);
    const Testing::ImageMaps fast = run(1, true);
    EXPECT_NEAR(gaps[1], gaps[0], 1e-11);
    for (const int map : {2, 3}) {
      for (std::size_t i = 0; i < plain[2].size(); ++i) {
        if (!DoubleMatrix2D::IsDataValid(plain[map][i])) {
          ASSERT_TRUE(!DoubleMatrix2D::IsDataValid(fast[map][i])) << "pixel " << i;
          continue;
        }
        ASSERT_NEAR(fast[map][i], plain[map][i], 3e-12) << "pixel " << i << " map " << map;
      }
    }
    const Testing::EquivalenceSettings heights{
        s.rows, s.cols, {{"height", 128}, {"coherence", 128}}, {1, 2, 3, 8}, false};
    const auto firstTwo = [](Testing::ImageMaps maps) {
      maps.resize(2);
      return maps;
    };
    plain.resize(2);
    Testing::CheckImageEquivalence(
        heights, [&](const Window2D&) { return plain; },
        [&](const Window2D&, int threads) { return firstTwo(run(threads, true)); });
    Testing::CheckImageEquivalence(
        {s.rows, s.cols, {{"height", 0}, {"coherence", 0}, {"intercept", 0}, {"slope", 0}}, {2, 3, 8}, false},
        [&](const Window2D&) { return fast; },
        [&](const Window2D&, int threads) { return run(threads, true); });
  }
}

struct FrameBlockCase {
  Analysis::Core::FrameBuffer::ElementRes resolution;
  int signal;
  int fringeRemoval;
  int scanDirection;
};

class FdaFrameBlockTest : public ::testing::TestWithParam<FrameBlockCase> {};

// Blocks of pixels straight from the frame planes (windows folded in integers) against the same fast
// analysis fed pixel by pixel through the generator's reference loader: the folded sums are exact
// either way, so every map (heights, coherence heights, fit records, intensities) must agree bit for
// bit, on any number of threads. The scan mixes what a block meets: peaks to be estimated (0, -3),
// peaks near either end and far outside the scan (clamped or mirrored windows, windows without a
// fit), stray peaks far from their neighbours (left to the pixel path), and masked pixels.
TEST_P(FdaFrameBlockTest, BlocksFromTheFramePlanesGiveThePixelPathBitForBit) {
  const FrameBlockCase& c = GetParam();
  Testing::ScanSettings s = Settings(2.0, 1.0);
  s.rows = 11;
  s.cols = 29;
  s.resolution = c.resolution;
  s.scanDirection = c.scanDirection;
  // Wide samples far from 8 bits, to reach their larger sums.
  const double scale = c.resolution == Analysis::Core::FrameBuffer::kRes16Bit ? 200.0 : 1.0;
  s.biasCounts *= scale;
  s.modulationCounts *= scale;
  s.noiseSigmaCounts *= scale;
  Testing::DiscriminatedScan scan;
  ASSERT_TRUE(Testing::MakeDiscriminatedScan(scan, s, SphereWithStepNm, 53));
  const int frames = s.framesScanned;
  const auto kind = [](int i) { return (i * 7) % 23; };
  for (int i = 0; i < s.rows * s.cols; ++i) {
    int& peak = scan.peaks.At(i);
    const int k = kind(i);
    peak = k == 0   ? 0
           : k == 1 ? -3
           : k == 2 ? 3
           : k == 3 ? frames - 2
           : k == 4 ? 2147483640
           : k == 5 ? peak + c.scanDirection * 90
           : k == 7 ? frames - c.signal / 2
           : k == 8 ? c.signal / 2 - 1
                    : peak;
  }
  const auto run = [&](int threads, bool blocks) {
    PhaseAlgorithmFda fda;
    fda.SetExpectedSignalSize(c.signal);
    fda.SetBand(c.signal / 64 * 13, c.signal / 64 * 21);
    fda.SetRemoveFringes(c.fringeRemoval);
    fda.SetScanIncrement(UnitNumber(s.scanStepNm, LinearConverter(Units::kNanometers)));
    PhaseGenerator generator(&fda);
    generator.SetUseFastPath(blocks);
    generator.SetAllowMultiThreads(threads > 1);
    generator.SetMaxNumThreads(std::max(threads, 1));
    DoubleMatrix2D surface(s.rows, s.cols);
    for (int i = 0; i < s.rows * s.cols; ++i)
      surface.At(i) = kind(i) == 6 ? DoubleMatrix2D::NoData() : 0.0;
    const Analysis::Core::Status status = generator.Process(scan.frames, scan.peaks, scan.auxiliary, surface);
    EXPECT_TRUE(status.IsOk()) << status.GetPrintString();
    Testing::ImageMaps maps(5);
    for (std::int64_t i = 0; i < surface.GetCount(); ++i) {
      const Analysis::Core::AdcPoint fit = fda.GetFitRecords()->At(i);
      maps[0].push_back(surface.At(i));
      maps[1].push_back(fda.GetCoherenceHeight().At(i));
      maps[2].push_back(fit.x);
      maps[3].push_back(fit.y);
      maps[4].push_back(c.fringeRemoval == FringeRemovalMethod::kNone ? 0.0 : fda.GetIntensityMatrix().At(i));
    }
    // Most pixels measured: only the odd peaks' kinds and the masked ones may fail.
    EXPECT_GT(surface.CountValid(), surface.GetCount() * 14 / 23);
    return maps;
  };
  const Testing::ImageMaps reference = run(1, false);
  Testing::CheckImageEquivalence(
      {s.rows,
       s.cols,
       {{"height", 0}, {"coherence", 0}, {"intercept", 0}, {"slope", 0}, {"intensity", 0}},
       {1, 3, 8},
       false},
      [&](const Window2D&) { return reference; },
      [&](const Window2D&, int threads) { return run(threads, true); });
}

INSTANTIATE_TEST_SUITE_P(
    SamplesSignalsDirections, FdaFrameBlockTest,
    ::testing::Values(
        FrameBlockCase{Analysis::Core::FrameBuffer::kRes8Bit, 64, FringeRemovalMethod::kStandard, 1},
        FrameBlockCase{Analysis::Core::FrameBuffer::kRes8Bit, 64, FringeRemovalMethod::kNone, -1},
        FrameBlockCase{Analysis::Core::FrameBuffer::kRes8Bit, 128, FringeRemovalMethod::kStandard, -1},
        FrameBlockCase{Analysis::Core::FrameBuffer::kRes16Bit, 64, FringeRemovalMethod::kStandard, -1},
        FrameBlockCase{Analysis::Core::FrameBuffer::kRes16Bit, 128, FringeRemovalMethod::kNone, 1},
        FrameBlockCase{Analysis::Core::FrameBuffer::kRes8Bit, 64, FringeRemovalMethod::k64Bucket, 1}));

// Without the gap removal each pixel's order is chosen against its coherence height alone, and with a
// reflection phase near pi a good part of the field lands a fringe off.
TEST(PhaseAlgorithmFdaTest, WithoutTheGapRemovalAReflectionPhaseNearPiSplitsTheField) {
  PhaseAlgorithmFda fda;
  FringeOrderParameters noGap;
  noGap.removeAverageGap = false;
  fda.SetFringeOrderParameters(noGap);
  const DoubleMatrix2D surface = Measure(Settings(1.5, 3.08), SphereWithStepNm, 17, fda);
  EXPECT_EQ(fda.GetAverageGap(), 0.0);
  EXPECT_GT(Compare(surface, SphereWithStepNm, PhaseOffsetNm(3.08)).max, 150.0);
}

// A whole scan of exactly one signal (64 frames): every pixel's transform covers the whole scan,
// whose centre, frame 32, is the origin of the phase and of the coherence height. The loader hands
// the algorithm a known peak in the first half of the scan as that centre, and one in the second
// half as frame 31 (the last window's rule, S - q/2 - 1); the phase height counts from the peak it
// is handed, so a surface in the second half reads one scan step low, while the coherence height,
// taken from the centre, is right everywhere.
//
// Tolerances: the phase heights are good to the accuracy test's 2.5 nm; the coherence heights, from
// the phase slope, scatter by some 10 nm, well within the 40 nm that tell the centre from the frame
// below it.
TEST(PhaseAlgorithmFdaTest, AScanOfOneSignalLengthIsMeasuredAboutItsCentre) {
  SCOPED_TRACE(Testing::SeededRandom(19).Describe());
  Testing::ScanSettings s = Settings(1.5);
  s.rows = 8;
  s.cols = 8;
  s.framesScanned = 64;
  // Frames 25 to 28 in columns 0 .. 3 (peaks 23 .. 30), 35 to 38 in columns 4 .. 7 (peaks 33 .. 40).
  const auto height = [](int r, int c) { return (c < 4 ? 2000.0 : 2800.0) + 20.0 * r + 15.0 * c; };
  PhaseAlgorithmFda fda;
  const DoubleMatrix2D surface = Measure(s, height, 19, fda);
  for (int r = 0; r < 8; ++r) {
    for (int c = 0; c < 8; ++c) {
      EXPECT_NEAR(surface(r, c), height(r, c) - (c < 4 ? 0.0 : kStepNm), 2.5) << r << "," << c;
      EXPECT_NEAR(fda.GetCoherenceHeight()(r, c), height(r, c), 40.0) << r << "," << c;
    }
  }
}

struct BandCase {
  int first, last;
  unsigned code;
};

class FdaBandTest : public ::testing::TestWithParam<BandCase> {};

// A pixel needs its strongest bin inside the band, with a bin above the power threshold on either
// side to fit the peak. The signal carries fringes of 20 counts at 13 cycles per 64 samples and of
// 10 counts at 11, 12, 14 and 15 cycles: bins of 32 x amplitude, all above the threshold of
// 4 x 15 % of 255 = 153. A band that cuts the strongest bin off at either end gives no height even
// though three of its bins hold fringes, and with no valid pixel the run fails with code 1; a band
// beyond the 33 bins of the transform is refused before any pixel.
TEST_P(FdaBandTest, ThePixelNeedsBinsAroundItsStrongestOne) {
  const BandCase& c = GetParam();
  PhaseAlgorithmFda fda;
  fda.SetBand(c.first, c.last);
  fda.SetScanIncrement(UnitNumber(kStepNm, LinearConverter(Units::kNanometers)));
  fda.Initialize(0, 256, 64, Analysis::Core::Window2D(0, 0, 1, 1));
  if (fda.GetStatus().IsOk()) {
    fda.InitializeThread(1);
    double* d = fda.GetDataArray(0);
    for (int j = 0; j < 64; ++j) {
      const auto fringe = [j](double cycles) { return std::cos(kTwoPi * cycles * j / 64.0); };
      d[j] = 100.0 + 20.0 * fringe(13) + 10.0 * (fringe(11) + fringe(12) + fringe(14) + fringe(15));
    }
    fda.ProcessPixel(0, 0, 100, 0);
    fda.PostProcess();
    fda.FinalizeThread();
  }
  EXPECT_EQ(fda.GetStatus().GetCode(), c.code) << fda.GetStatus().GetPrintString();
}

INSTANTIATE_TEST_SUITE_P(Bands, FdaBandTest,
                         ::testing::Values(BandCase{12, 14, 0}, BandCase{13, 21, 1}, BandCase{5, 13, 1},
                                           BandCase{20, 40, 20}));

// The per-pixel rounding of the wavenumber grid, the fringe order and the folding by whole
// wavelengths avoids the libm calls; the results must be libm's to the bit (sign of zero included),
// at halves, next to halves, at 2^52 and beyond, and for random values of every magnitude.
TEST(RoundingTest, RoundAndCeilAreTheLibraryFunctionsBitForBit) {
  std::vector<double> values = {0.0,
                                -0.0,
                                0.5,
                                -0.5,
                                1.5,
                                -2.5,
                                0.49999999999999994,
                                -0.49999999999999994,
                                4503599627370495.5,
                                4503599627370496.0,
                                -4503599627370497.0,
                                1e300,
                                std::numeric_limits<double>::infinity(),
                                -std::numeric_limits<double>::infinity(),
                                std::numeric_limits<double>::quiet_NaN(),
                                1.7976931348623157e308};
  Testing::SeededRandom random(51);
  SCOPED_TRACE(random.Describe());
  for (int i = 0; i < 2000; ++i)
    values.push_back(random.Uniform(-1.0, 1.0) * std::pow(2.0, random.UniformInt(-4, 60)));
  const auto bits = [](double x) { return std::bit_cast<std::uint64_t>(x); };
  for (const double x : values) {
    EXPECT_EQ(bits(detail::RoundHalfAway(x)), bits(std::round(x))) << x;
    EXPECT_EQ(bits(detail::Ceil(x)), bits(std::ceil(x))) << x;
  }
}

// The fringe-order analysis on maps built by hand: heights H, coherence heights H + e (|e| up to
// 0.2 lambda, four pixels 0.35 lambda), phase heights H + gap + n lambda for arbitrary whole n; two
// pixels have no coherence height. The coherence errors are symmetric, so their circular mean leaves
// the gap within a few nanometres; every pixel's order is then right (|e| < lambda/2 less that),
// gaps near half a fringe included. With a residual bound of a quarter fringe the pixels whose
// coherence height is 0.35 lambda off are dropped. The same with the gap's sines and cosines from
// the vector kernels.
TEST(FringeOrderAnalysisTest, PutsEveryPhaseHeightOnTheOrderOfTheFieldsGap) {
  constexpr double kLambda = 300.0;
  Testing::SeededRandom random(40);
  SCOPED_TRACE(random.Describe());
  for (const double gap : {0.0, 100.0, 145.0, -149.0}) {
    DoubleMatrix2D coherence(20, 20), phase(20, 20), truth(20, 20);
    for (int r = 0; r < 20; ++r) {
      for (int c = 0; c < 20; ++c) {
        const double h = 500.0 + 7.0 * r - 3.0 * c;
        const double e = (r == 3 && c < 4) ? 0.35 * kLambda : random.Uniform(-0.2, 0.2) * kLambda;
        truth(r, c) = h + gap;
        coherence(r, c) = h + e;
        phase(r, c) = h + gap + random.UniformInt(-3, 3) * kLambda;
      }
    }
    coherence(7, 7) = coherence(8, 8) = DoubleMatrix2D::NoData();
    for (const auto& [maximumResidual, fastPath] :
         {std::pair{0.5, false}, std::pair{0.25, false}, std::pair{0.5, true}, std::pair{0.25, true}}) {
      FringeOrderParameters parameters;
      parameters.maximumResidualFraction = maximumResidual;
      DoubleMatrix2D surface(20, 20);
      surface.SetAll(DoubleMatrix2D::NoData());
      const double measured = PhaseAlgorithmHigh2G::FringeOrderAnalysis(
          parameters, kTwoPi, std::numbers::pi, coherence, phase, surface, kLambda, fastPath);
      EXPECT_NEAR(measured, gap, 8.0) << "gap " << gap;
      EXPECT_EQ(surface.CountValid(), 400 - 2 - (maximumResidual < 0.5 ? 4 : 0)) << "gap " << gap;
      for (std::int64_t i = 0; i < surface.GetCount(); ++i) {
        if (DoubleMatrix2D::IsDataValid(surface.At(i))) {
          EXPECT_NEAR(surface.At(i), truth.At(i), 1e-9) << "pixel " << i << " gap " << gap;
        }
      }
    }
  }
}

// The analysis over a field of several runs of the gap's sums (96 x 120 pixels, one in seven without
// a coherence height), its pixel loops cut by a runner into uneven ranges that run on their own
// threads, in reverse order: gap and surface are the same bits as on one thread, on both paths.
TEST(FringeOrderAnalysisTest, GivesTheSameBitsHoweverThePixelLoopsAreCut) {
  constexpr double kLambda = 300.0;
  constexpr int kRows = 96, kCols = 120;
  Testing::SeededRandom random(41);
  SCOPED_TRACE(random.Describe());
  DoubleMatrix2D coherence(kRows, kCols), phase(kRows, kCols);
  for (std::int64_t i = 0; i < coherence.GetCount(); ++i) {
    const double h = random.Uniform(0.0, 5000.0);
    coherence.At(i) = i % 7 == 3 ? DoubleMatrix2D::NoData() : h + random.Uniform(-0.3, 0.3) * kLambda;
    phase.At(i) = h + 40.0 + random.UniformInt(-3, 3) * kLambda;
  }
  const RangeRunner threadsInReverse = [](std::int64_t count, const RangeBody& body) {
    std::vector<std::int64_t> cuts{0, count / 5, count / 5 + 1, count / 2, count};
    cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
    std::vector<std::thread> pieces;
    for (std::size_t k = cuts.size() - 1; k > 0; --k)
      pieces.emplace_back([&body, first = cuts[k - 1], end = cuts[k]] { body(first, end); });
    for (std::thread& piece : pieces)
      piece.join();
  };
  for (const bool fastPath : {false, true}) {
    FringeOrderParameters parameters;
    parameters.maximumResidualFraction = 0.4;
    DoubleMatrix2D alone(kRows, kCols), spread(kRows, kCols);
    alone.SetAll(DoubleMatrix2D::NoData());
    spread.SetAll(DoubleMatrix2D::NoData());
    const double gapAlone = PhaseAlgorithmHigh2G::FringeOrderAnalysis(
        parameters, kTwoPi, std::numbers::pi, coherence, phase, alone, kLambda, fastPath);
    const double gapSpread = PhaseAlgorithmHigh2G::FringeOrderAnalysis(
        parameters, kTwoPi, std::numbers::pi, coherence, phase, spread, kLambda, fastPath, threadsInReverse);
    EXPECT_NEAR(gapAlone, 40.0, 10.0);
    EXPECT_EQ(std::bit_cast<std::uint64_t>(gapSpread), std::bit_cast<std::uint64_t>(gapAlone)) << fastPath;
    EXPECT_GT(alone.CountValid(), kRows * kCols / 2);
    for (std::int64_t i = 0; i < alone.GetCount(); ++i) {
      ASSERT_EQ(std::bit_cast<std::uint64_t>(spread.At(i)), std::bit_cast<std::uint64_t>(alone.At(i)))
          << "pixel " << i << (fastPath ? " fast" : " plain");
    }
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

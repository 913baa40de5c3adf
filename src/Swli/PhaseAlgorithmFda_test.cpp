// Frequency-domain analysis on synthetic scans of known surfaces, and the fringe-order analysis.
#include "Swli/PhaseAlgorithmFda.h"

#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/NoData.h"
#include "Analysis/Core/UnitNumber.h"
#include "Swli/PhaseGenerator.h"
#include "Testing/SeededRandom.h"
#include "Testing/SyntheticScan.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {
namespace {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::LinearConverter;
using Analysis::Core::Status;
using Analysis::Core::UnitNumber;
namespace Units = Analysis::Core::Units;
using Testing::SphereWithStepNm;

constexpr double kStepNm = 80.0;

Testing::ScanSettings Settings(double noise) {
  Testing::ScanSettings s;
  s.rows = 24;
  s.cols = 32;
  s.noiseSigmaCounts = noise;
  return s;
}

// Scans the surface (noise seeded with `seed`) and evaluates every pixel with `fda`.
DoubleMatrix2D Measure(const Testing::ScanSettings& s, const std::function<double(int, int)>& height,
                       std::uint64_t seed, PhaseAlgorithmFda& fda, Status* status = nullptr) {
  Testing::DiscriminatedScan scan;
  EXPECT_TRUE(Testing::MakeDiscriminatedScan(scan, s, height, seed));
  fda.SetScanIncrement(UnitNumber(s.scanStepNm, LinearConverter(Units::kNanometers)));
  PhaseGenerator generator(&fda);
  DoubleMatrix2D surface(s.rows, s.cols);
  surface.SetAll(0.0);
  generator.Process(scan.frames, scan.peaks, scan.auxiliary, surface);
  if (status) {
    *status = generator.GetStatus();
  } else {
    EXPECT_TRUE(generator.GetStatus().IsOk()) << generator.GetStatus().GetPrintString();
  }
  return surface;
}

struct Errors {
  double rms = 0.0;
  double max = 0.0;
  double mean = 0.0;
  int valid = 0;
};

Errors Compare(const DoubleMatrix2D& surface, const std::function<double(int, int)>& height,
               double offset = 0.0) {
  Errors e;
  double sum = 0.0, sumSquares = 0.0;
  for (int r = 0; r < surface.GetRows(); ++r) {
    for (int c = 0; c < surface.GetColumns(); ++c) {
      if (!DoubleMatrix2D::IsDataValid(surface(r, c))) continue;
      const double error = surface(r, c) - height(r, c) - offset;
      sum += error;
      sumSquares += error * error;
      e.max = std::max(e.max, std::abs(error));
      ++e.valid;
    }
  }
  e.mean = e.valid ? sum / e.valid : 0.0;
  e.rms = e.valid ? std::sqrt(sumSquares / e.valid) : 0.0;
  return e;
}

struct AccuracyCase {
  double noiseCounts;
  double rmsNm;
  double maxNm;
};

class FdaAccuracyTest : public ::testing::TestWithParam<AccuracyCase> {};

// The surface itself, absolute, to a nanometre or two. (Were the transform's sign convention taken
// the wrong way round, the phase slope would change sign and heights would be off by hundreds of
// nanometres.)
//
// Tolerances: a sample noise of sigma counts (plus 0.29 of rounding) puts sigma sqrt(q/2) = 8.5
// sigma counts on the real and imaginary parts of every bin; the strongest bin of fringes of 60
// counts under an envelope of about 21 samples holds 60/2 x 21 ~ 630, so its phase wanders by about
// 0.014 sigma rad, and the power-weighted fit over the five bins above the threshold roughly halves
// that: some 0.3 nm per count of noise at lambda/2pi = 48 nm per radian. Without noise the rounding
// of the samples leaves about 0.1 nm. The bounds allow for the estimate's looseness: the RMS at
// about 1.5 times the prediction, every pixel at five times it.
TEST_P(FdaAccuracyTest, RecoversTheSurfaceToANanometre) {
  const AccuracyCase& c = GetParam();
  SCOPED_TRACE(Testing::SeededRandom(17).Describe());
  PhaseAlgorithmFda fda;
  EXPECT_EQ(fda.GetWaveLength(), 0.0) << "before any pixel";
  const DoubleMatrix2D surface = Measure(Settings(c.noiseCounts), SphereWithStepNm, 17, fda);
  const Errors e = Compare(surface, SphereWithStepNm);
  EXPECT_EQ(e.valid, 24 * 32);
  EXPECT_EQ(fda.GetValidCount(), 24 * 32);
  EXPECT_LT(e.rms, c.rmsNm);
  EXPECT_LT(e.max, c.maxNm);
  // The equivalent wavelength is the light's: fringes of half the centre wavelength, 300 nm, at
  // 80 / 300 cycles per sample. The spectrum's peak, refined by a parabola, sits within a few tenths
  // of a percent of its centre.
  EXPECT_NEAR(fda.GetWaveLength(), 300.0, 0.005 * 300.0);
  EXPECT_NEAR(fda.GetAverageK0(), kStepNm / fda.GetWaveLength(), 1e-12);
  // The coherence heights, from the phase slope, are some ten times noisier than the phase heights
  // (about 10 nm at 1.5 counts of noise), but stay within a quarter fringe (75 nm) of them, far from
  // the half fringe where the order would become doubtful.
  for (std::int64_t i = 0; i < surface.GetCount(); ++i) {
    EXPECT_NEAR(fda.GetCoherenceHeight().At(i), fda.GetPhaseHeight().At(i), 75.0) << "pixel " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Noise, FdaAccuracyTest,
                         ::testing::Values(AccuracyCase{0.0, 0.15, 0.5}, AccuracyCase{1.5, 0.7, 2.5}));

// A whole scan of exactly one signal (64 frames): every pixel's transform covers the whole scan,
// whose centre, frame 32, is the origin of the phase and of the coherence height. The loader hands
// the algorithm a known peak in the first half of the scan as that centre, and one in the second
// half as frame 31 (the last window's rule, S - q/2 - 1); the phase height counts from the peak it
// is handed, so a surface in the second half reads one scan step low, while the coherence height,
// taken from the centre, is right everywhere.
//
// Tolerances: the noise per bin is that of a window cut around the peak, so the phase heights are
// good to the accuracy test's 2.5 nm; the coherence heights, from the phase slope, scatter by some
// 10 nm (see above), well within the 40 nm that tell the centre from the frame below it.
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

// A reflection phase near pi puts the phase heights half a fringe from the coherence heights: folded
// around each pixel's noisy coherence height, some land one fringe up, some one fringe down. The
// fringe-order analysis measures the common gap and puts every pixel on one order: the surface is
// the true one shifted by the gap, -phi / 2pi x lambda (mod lambda). Without the gap removal a good
// part of the field jumps by a fringe.
TEST(PhaseAlgorithmFdaTest, AReflectionPhaseNearPiStaysOnOneFringeOrder) {
  constexpr double kPhase = 3.08;
  Testing::ScanSettings s = Settings(1.5);
  s.reflectionPhaseRad = kPhase;
  SCOPED_TRACE(Testing::SeededRandom(23).Describe());
  PhaseAlgorithmFda fda;
  const DoubleMatrix2D surface = Measure(s, SphereWithStepNm, 23, fda);
  const double lambda = fda.GetWaveLength();
  const double expectedGap = std::remainder(-kPhase / (2.0 * std::numbers::pi) * lambda, lambda);
  EXPECT_NEAR(std::remainder(fda.GetAverageGap() - expectedGap, lambda), 0.0, 1.0);
  const Errors e = Compare(surface, SphereWithStepNm, fda.GetAverageGap());
  EXPECT_EQ(e.valid, 24 * 32);
  EXPECT_LT(e.max, 3.0) << "every pixel on the gap's order";
  EXPECT_NEAR(e.mean, 0.0, 0.5);

  PhaseAlgorithmFda plain;
  FringeOrderParameters noGap;
  noGap.removeAverageGap = false;
  plain.SetFringeOrderParameters(noGap);
  const DoubleMatrix2D folded = Measure(s, SphereWithStepNm, 23, plain);
  EXPECT_EQ(plain.GetAverageGap(), 0.0);
  int jumped = 0;
  for (std::int64_t i = 0; i < folded.GetCount(); ++i) {
    const double difference = folded.At(i) - surface.At(i);
    // Each pixel is the same phase height, on this order or the next.
    EXPECT_NEAR(std::remainder(difference, lambda), 0.0, 1e-6) << "pixel " << i;
    jumped += std::abs(difference) > lambda / 2 ? 1 : 0;
  }
  EXPECT_GT(jumped, 24 * 32 / 20) << "the split the gap removal prevents";
}

// Strongest bin at the edge of the band, or only two bins above the threshold: no height, and the
// pixel adds nothing to the mean wavenumber. Fringes of 580 nm light scanned at 58 nm per frame put
// their strongest bin at 2 x 58 x 64 / 580 = 12.8, so within the default band 13 .. 21 the
// strongest is its first bin; a band of two bins never reaches three. When no pixel succeeds the
// run fails with code 1. A band beyond the transform's bins is refused before any pixel is read.
TEST(PhaseAlgorithmFdaTest, PixelsWithoutABandAroundTheirStrongestBinGetNoHeight) {
  Testing::ScanSettings s = Settings(0.5);
  s.scanStepNm = 58.0;
  s.light.centreWavelengthNm = 580.0;
  const auto height = [](int r, int c) { return 7000.0 + 5.0 * r + 3.0 * c; };
  struct Band {
    int first, last;
    unsigned code;
  };
  for (const Band band : {Band{13, 21, 1}, Band{12, 13, 1}, Band{20, 40, 20}}) {
    PhaseAlgorithmFda fda;
    fda.SetBand(band.first, band.last);
    Status status;
    Measure(s, height, 2, fda, &status);
    EXPECT_EQ(fda.GetSurfaceMatrix().CountValid(), 0) << band.first;
    EXPECT_EQ(fda.GetAverageK0(), 0.0) << band.first;
    EXPECT_EQ(status.GetCode(), band.code) << band.first;
  }
  // The same light in a band that holds it, 10 .. 16: every pixel succeeds.
  PhaseAlgorithmFda fda;
  fda.SetBand(10, 16);
  const DoubleMatrix2D surface = Measure(s, height, 2, fda);
  EXPECT_EQ(surface.CountValid(), 24 * 32);
  EXPECT_LT(Compare(surface, height).max, 2.0);
}

// ---------------------------------------------------------------------------------------------
// The fringe-order analysis on maps built by hand

struct OrderScene {
  DoubleMatrix2D coherence{20, 20};
  DoubleMatrix2D phase{20, 20};
  DoubleMatrix2D truth{20, 20};
};

// Heights H, coherence heights H + e (|e| up to 0.2 lambda, a few pixels 0.35 lambda), phase
// heights H + gap + n lambda for arbitrary whole n; two pixels have no coherence height.
OrderScene MakeOrderScene(double lambda, double gap, Testing::SeededRandom& random) {
  OrderScene scene;
  for (int r = 0; r < 20; ++r) {
    for (int c = 0; c < 20; ++c) {
      const double h = 500.0 + 7.0 * r - 3.0 * c;
      const double e = (r == 3 && c < 4) ? 0.35 * lambda : random.Uniform(-0.2, 0.2) * lambda;
      scene.truth(r, c) = h + gap;
      scene.coherence(r, c) = h + e;
      scene.phase(r, c) = h + gap + random.UniformInt(-3, 3) * lambda;
    }
  }
  scene.coherence(7, 7) = scene.coherence(8, 8) = DoubleMatrix2D::NoData();
  return scene;
}

// The coherence errors are symmetric, so their circular mean leaves the gap within a few nanometres;
// every pixel's order is then right (|e| < lambda/2 less that), gaps near half a fringe included.
// With a stricter residual bound the pixels whose coherence height is 0.35 lambda off are dropped.
TEST(FringeOrderAnalysisTest, PutsEveryPhaseHeightOnTheOrderOfTheFieldsGap) {
  constexpr double kLambda = 300.0;
  Testing::SeededRandom random(40);
  SCOPED_TRACE(random.Describe());
  FringeOrderParameters strict;
  strict.maximumResidualFraction = 0.25;
  for (const double gap : {0.0, 100.0, 145.0, -149.0}) {
    const OrderScene scene = MakeOrderScene(kLambda, gap, random);
    for (const bool isStrict : {false, true}) {
      DoubleMatrix2D surface(20, 20);
      surface.SetAll(DoubleMatrix2D::NoData());
      const double measured = PhaseAlgorithmHigh2G::FringeOrderAnalysis(
          isStrict ? strict : FringeOrderParameters{}, 2 * std::numbers::pi, std::numbers::pi,
          scene.coherence, scene.phase, surface, kLambda);
      EXPECT_NEAR(measured, gap, 8.0) << "gap " << gap;
      EXPECT_EQ(surface.CountValid(), 400 - 2 - (isStrict ? 4 : 0)) << "gap " << gap;
      for (int r = 0; r < 20; ++r) {
        for (int c = 0; c < 20; ++c) {
          if (DoubleMatrix2D::IsDataValid(surface(r, c))) {
            EXPECT_NEAR(surface(r, c), scene.truth(r, c), 1e-9) << r << "," << c << " gap " << gap;
          }
        }
      }
    }
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

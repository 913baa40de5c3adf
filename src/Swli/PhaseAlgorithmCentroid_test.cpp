// The envelope centroid on synthetic scans of known surfaces.
#include "Swli/PhaseAlgorithmCentroid.h"

#include <cmath>
#include <vector>

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
using Analysis::Core::FrameBuffer;
using Analysis::Core::IntMatrix2D;
using Analysis::Core::LinearConverter;
using Analysis::Core::UnitNumber;
using Analysis::Core::Window2D;
namespace Units = Analysis::Core::Units;

constexpr double kStepNm = 80.0;

// A sphere with a 300 nm step, heights 8.0 to 8.7 um: frames 100 to 109 of a 256-frame scan.
double SphereWithStep(int r, int c) {
  const double x = c - 16.0, y = r - 12.0;
  return 8000.0 + 0.6 * (x * x + y * y) + (c >= 20 ? 300.0 : 0.0);
}

struct Result {
  DoubleMatrix2D surface;
  IntMatrix2D intensity;
};

// Scans the surface and evaluates it; the discriminator's peak frames are the true ones off by up
// to two frames in a fixed pattern.
Result Measure(Testing::ScanSettings s, const std::function<double(int, int)>& height,
               Testing::SeededRandom& random, PhaseAlgorithmCentroid& centroid,
               const IntMatrix2D* peakOverride = nullptr) {
  IntMatrix2D peaks(s.rows, s.cols), aux(s.rows, s.cols);
  aux.SetAll(0);
  for (int r = 0; r < s.rows; ++r) {
    for (int c = 0; c < s.cols; ++c)
      peaks(r, c) = Testing::TruePeakFrame(s, height(r, c)) + (r + 2 * c) % 5 - 2;
  }
  if (peakOverride) peaks = *peakOverride;
  FrameBuffer frames;
  EXPECT_TRUE(Testing::MakeSyntheticScan(frames, s, height, &random, &peaks));
  if (s.resolution == FrameBuffer::kRes16Bit) frames.SetMaxValue(4095);  // a 12-bit camera
  centroid.SetScanIncrement(UnitNumber(kStepNm, LinearConverter(Units::kNanometers)));
  PhaseGenerator generator(&centroid);
  Result result{DoubleMatrix2D(s.rows, s.cols), IntMatrix2D()};
  result.surface.SetAll(0.0);
  generator.Process(frames, peaks, aux, result.surface);
  result.intensity = centroid.GetIntensityMatrix();
  return result;
}

struct AccuracyCase {
  double noiseCounts;  // at 8 bits; scaled by 16 for the 12-bit camera
  FrameBuffer::ElementRes resolution;
  double maxFraction;  // of the coherence length, per pixel
  double rmsFraction;
};

class CentroidAccuracyTest : public ::testing::TestWithParam<AccuracyCase> {};

// The centroid lands within a small fraction of the coherence length (1.6 um for 600 nm light of
// 100 nm bandwidth). Its heights count scan positions from one, so they sit one scan step above the
// surface; that offset is part of the expected value.
//
// Tolerances: without noise only the rounding of the samples and the |cos| ripple of the envelope
// move the centroid (a few nanometres). With noise sigma, each of the 64 samples of |d - mu| carries
// about sigma of noise: the centroid moves by about sigma x sqrt(64 x 64^2 / 12) / sum|d - mu|,
// with sum|d - mu| about 2/pi x 60 counts x 21 samples of envelope ~ 800: 0.2 sigma frames (24 nm at
// sigma 1.5), and the noise floor pulls the centroid towards the window centre, a bias of about a
// tenth of the discriminator's error (up to 2 frames). The bounds are about twice what that predicts.
TEST_P(CentroidAccuracyTest, LandsWithinAFractionOfTheCoherenceLength) {
  const AccuracyCase& c = GetParam();
  Testing::SeededRandom random(31);
  SCOPED_TRACE(random.Describe());
  Testing::ScanSettings s;
  s.rows = 24;
  s.cols = 32;
  s.scanStepNm = kStepNm;
  s.resolution = c.resolution;
  const double scale = c.resolution == FrameBuffer::kRes16Bit ? 16.0 : 1.0;
  s.biasCounts = 100.0 * scale;
  s.modulationCounts = 60.0 * scale;
  s.noiseSigmaCounts = c.noiseCounts * scale;
  PhaseAlgorithmCentroid centroid;
  const Result result = Measure(s, SphereWithStep, random, centroid);
  const double coherence = Testing::CoherenceLengthNm(s.light);
  double sumSquares = 0.0;
  for (int r = 0; r < s.rows; ++r) {
    for (int col = 0; col < s.cols; ++col) {
      ASSERT_TRUE(DoubleMatrix2D::IsDataValid(result.surface(r, col))) << r << "," << col;
      const double error = result.surface(r, col) - (SphereWithStep(r, col) + kStepNm);
      EXPECT_LT(std::abs(error), c.maxFraction * coherence) << r << "," << col;
      sumSquares += error * error;
    }
  }
  EXPECT_LT(std::sqrt(sumSquares / (s.rows * s.cols)), c.rmsFraction * coherence);
}

INSTANTIATE_TEST_SUITE_P(Noise, CentroidAccuracyTest,
                         ::testing::Values(AccuracyCase{0.0, FrameBuffer::kRes8Bit, 0.01, 0.003},
                                           AccuracyCase{1.5, FrameBuffer::kRes8Bit, 0.1, 0.025},
                                           AccuracyCase{1.5, FrameBuffer::kRes16Bit, 0.1, 0.025}));

// A ring keeps 64 frames around each peak; a peak within 32 frames of either end of the scan leaves
// no centred window, so the pixel gets no height, but its intensity is still made.
TEST(PhaseAlgorithmCentroidTest, PeaksNearTheEndsOfTheScanGetNoHeightButAnIntensity) {
  Testing::SeededRandom random(5);
  SCOPED_TRACE(random.Describe());
  Testing::ScanSettings s;
  s.rows = 1;
  s.cols = 4;
  s.framesStored = 64;
  s.noiseSigmaCounts = 1.0;
  const double heights[4] = {20 * kStepNm, 31 * kStepNm, 120 * kStepNm, 230 * kStepNm};
  const auto height = [&](int, int c) { return heights[c]; };
  IntMatrix2D peaks(1, 4);
  for (int c = 0; c < 4; ++c)
    peaks(0, c) = Testing::TruePeakFrame(s, heights[c]);
  PhaseAlgorithmCentroid centroid;
  const Result result = Measure(s, height, random, centroid, &peaks);
  EXPECT_TRUE(DoubleMatrix2D::IsNoData(result.surface(0, 0)));
  EXPECT_TRUE(DoubleMatrix2D::IsNoData(result.surface(0, 1)));
  EXPECT_NEAR(result.surface(0, 2), heights[2] + kStepNm, 0.05 * Testing::CoherenceLengthNm(s.light));
  EXPECT_TRUE(DoubleMatrix2D::IsNoData(result.surface(0, 3)));
  for (int c = 0; c < 4; ++c) {
    EXPECT_TRUE(IntMatrix2D::IsDataValid(result.intensity(0, c))) << c;
    // Fringes of 3.75 samples per period leave a little of themselves in the 8-sample window.
    EXPECT_NEAR(result.intensity(0, c), s.biasCounts, 8.0) << c;
  }
}

// The modulation test: weak fringes (amplitude 3 counts, m about 12 to 17) fail the default 15 %
// of 255 (76.5) but pass a minimum modulation of 0, and then land where strong ones do. A scan
// without fringes (every |d - mu| zero) has no centroid at any threshold.
TEST(PhaseAlgorithmCentroidTest, MinimumModulationDecidesWhichFringesCount) {
  Testing::ScanSettings s;
  s.rows = 4;
  s.cols = 4;
  s.modulationCounts = 3.0;
  const auto height = [](int r, int c) { return 8000.0 + 10.0 * r + 20.0 * c; };
  for (const double minimum : {15.0, 0.0}) {
    Testing::SeededRandom random(8);
    PhaseAlgorithmCentroid centroid;
    centroid.SetMinimumModulation(minimum);
    const Result result = Measure(s, height, random, centroid);
    for (int r = 0; r < 4; ++r) {
      for (int c = 0; c < 4; ++c) {
        if (minimum > 0.0) {
          EXPECT_TRUE(DoubleMatrix2D::IsNoData(result.surface(r, c))) << r << "," << c;
        } else {
          // Three-count fringes in rounded samples: the envelope is coarse, within a tenth of the
          // coherence length still.
          EXPECT_NEAR(result.surface(r, c), height(r, c) + kStepNm,
                      0.1 * Testing::CoherenceLengthNm(s.light));
        }
      }
    }
  }
  s.modulationCounts = 0.0;
  Testing::SeededRandom random(8);
  PhaseAlgorithmCentroid centroid;
  centroid.SetMinimumModulation(0.0);
  const Result flat = Measure(s, height, random, centroid);
  EXPECT_EQ(flat.surface.CountValid(), 0);
}

// A modulation measure equal to the threshold passes; one just below does not. The signal is a
// bright pair of samples at window indices 31 and 32 (the window holds frames 68 .. 131 around the
// peak frame 100): m = |2 d32| + |2 d31| = 20 for d31 = d32 = 5, and the threshold with a saturation
// level of 100 and a minimum modulation of 10 % is 10 x 2 x 100 / 100 = 20. The envelope is
// symmetric about frame 99.5, reported one step above: 100.5 steps.
TEST(PhaseAlgorithmCentroidTest, AModulationEqualToTheThresholdPasses) {
  for (const double pair : {10.0, 9.999}) {
    PhaseAlgorithmCentroid centroid;
    centroid.SetMinimumModulation(10.0);
    centroid.SetMaxScanValue(100.0);
    centroid.SetScanIncrement(UnitNumber(kStepNm, LinearConverter(Units::kNanometers)));
    centroid.Initialize(0, 256, 64, Window2D(0, 0, 1, 1));
    centroid.InitializeThread(1);
    double* d = centroid.GetDataArray(0);
    for (int k = 0; k < 64; ++k)
      d[k] = 0.0;
    d[31] = d[32] = pair / 2.0;
    centroid.ProcessPixel(0, 0, 100, 0);
    if (pair == 10.0) {
      EXPECT_DOUBLE_EQ(centroid.GetSurfaceMatrix()(0, 0), 100.5 * kStepNm);
    } else {
      EXPECT_TRUE(DoubleMatrix2D::IsNoData(centroid.GetSurfaceMatrix()(0, 0)));
    }
    centroid.FinalizeThread();
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

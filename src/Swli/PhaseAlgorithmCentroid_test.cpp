// The envelope centroid on synthetic scans of known surfaces.
#include "Swli/PhaseAlgorithmCentroid.h"

#include <cmath>

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
using Analysis::Core::Status;
using Analysis::Core::UnitNumber;
using Analysis::Core::Window2D;
namespace Units = Analysis::Core::Units;

constexpr double kStepNm = 80.0;

// Evaluates every pixel of the scan; returns the generator's status.
Status Measure(Testing::DiscriminatedScan& scan, PhaseAlgorithmCentroid& centroid, DoubleMatrix2D& surface) {
  centroid.SetScanIncrement(UnitNumber(scan.settings.scanStepNm, LinearConverter(Units::kNanometers)));
  PhaseGenerator generator(&centroid);
  surface.Resize(0, 0, scan.settings.rows, scan.settings.cols);
  surface.SetAll(0.0);
  return generator.Process(scan.frames, scan.peaks, scan.auxiliary, surface);
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
  SCOPED_TRACE(Testing::SeededRandom(31).Describe());
  Testing::ScanSettings s;
  s.rows = 24;
  s.cols = 32;
  s.resolution = c.resolution;
  const double scale = c.resolution == FrameBuffer::kRes16Bit ? 16.0 : 1.0;
  s.biasCounts = 100.0 * scale;
  s.modulationCounts = 60.0 * scale;
  s.noiseSigmaCounts = c.noiseCounts * scale;
  Testing::DiscriminatedScan scan;
  ASSERT_TRUE(Testing::MakeDiscriminatedScan(scan, s, Testing::SphereWithStepNm, 31));
  if (c.resolution == FrameBuffer::kRes16Bit) scan.frames.SetMaxValue(4095);  // a 12-bit camera
  PhaseAlgorithmCentroid centroid;
  DoubleMatrix2D surface;
  ASSERT_TRUE(Measure(scan, centroid, surface).IsOk());
  const double coherence = Testing::CoherenceLengthNm(s.light);
  double sumSquares = 0.0;
  for (int r = 0; r < s.rows; ++r) {
    for (int col = 0; col < s.cols; ++col) {
      ASSERT_TRUE(DoubleMatrix2D::IsDataValid(surface(r, col))) << r << "," << col;
      const double error = surface(r, col) - (Testing::SphereWithStepNm(r, col) + kStepNm);
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

// A pixel whose peak lies within half a signal (32 frames) of either end of the scan has no centred
// window, so it gets no height, but its intensity is still made. A ring of 64 frames keeps the frames
// around each peak; a whole scan of only 64 frames has every peak within 32 frames of an end, so no
// pixel gets a height and the run ends with code 1.
TEST(PhaseAlgorithmCentroidTest, PeaksNearTheEndsOfTheScanGetNoHeightButAnIntensity) {
  SCOPED_TRACE(Testing::SeededRandom(5).Describe());
  Testing::ScanSettings s;
  s.rows = 1;
  s.cols = 4;
  s.framesStored = 64;
  s.noiseSigmaCounts = 1.0;
  // Peaks 18, 31, 122 and 229 (the discriminator's pattern adds -2, 0, 2, -1).
  const double frames[4] = {20, 31, 120, 230};
  const auto height = [&](int, int c) { return frames[c] * kStepNm; };
  for (const int scanned : {256, 64}) {
    s.framesScanned = scanned;
    s.framesStored = scanned == 256 ? 64 : 0;
    Testing::DiscriminatedScan scan;
    ASSERT_TRUE(Testing::MakeDiscriminatedScan(scan, s, height, 5));
    PhaseAlgorithmCentroid centroid;
    DoubleMatrix2D surface;
    const Status status = Measure(scan, centroid, surface);
    for (int c = 0; c < 4; ++c) {
      if (c == 2 && scanned == 256) {
        EXPECT_NEAR(surface(0, c), height(0, c) + kStepNm, 0.05 * Testing::CoherenceLengthNm(s.light));
      } else {
        EXPECT_TRUE(DoubleMatrix2D::IsNoData(surface(0, c))) << c << " of " << scanned;
      }
      // Fringes of 3.75 samples per period leave a little of themselves in the 8-sample window.
      EXPECT_NEAR(centroid.GetIntensityMatrix()(0, c), s.biasCounts, 8.0) << c << " of " << scanned;
    }
    EXPECT_EQ(status.GetCode(), scanned == 64 ? 1u : 0u);
  }
}

// The modulation test: weak fringes (amplitude 3 counts, m about 12 to 17) fail the default 15 %
// of 255 (76.5) but pass a minimum modulation of 0, and then land where strong ones do. A scan
// without fringes (every |d - mu| zero) has no centroid at any threshold.
TEST(PhaseAlgorithmCentroidTest, MinimumModulationDecidesWhichFringesCount) {
  Testing::ScanSettings s;
  s.rows = 4;
  s.cols = 4;
  const auto height = [](int r, int c) { return 8000.0 + 10.0 * r + 20.0 * c; };
  for (const double modulation : {3.0, 0.0}) {
    s.modulationCounts = modulation;
    Testing::DiscriminatedScan scan;
    ASSERT_TRUE(Testing::MakeDiscriminatedScan(scan, s, height, 8));
    for (const double minimum : {15.0, 0.0}) {
      PhaseAlgorithmCentroid centroid;
      centroid.SetMinimumModulation(minimum);
      DoubleMatrix2D surface;
      Measure(scan, centroid, surface);
      for (int r = 0; r < 4; ++r) {
        for (int c = 0; c < 4; ++c) {
          if (minimum > 0.0 || modulation == 0.0) {
            EXPECT_TRUE(DoubleMatrix2D::IsNoData(surface(r, c))) << r << "," << c;
          } else {
            // Three-count fringes in rounded samples: the envelope is coarse, within a tenth of the
            // coherence length still.
            EXPECT_NEAR(surface(r, c), height(r, c) + kStepNm, 0.1 * Testing::CoherenceLengthNm(s.light));
          }
        }
      }
    }
  }
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

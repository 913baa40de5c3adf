// The envelope centroid on synthetic scans of known surfaces.
#include "Swli/PhaseAlgorithmCentroid.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/NoData.h"
#include "Analysis/Core/UnitNumber.h"
#include "Swli/PhaseGenerator.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticScan.h"
#include "Testing/ImageEquivalence.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {
namespace {

using Analysis::Core::DoubleMatrix2D;
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
  double noiseCounts;
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
  s.noiseSigmaCounts = c.noiseCounts;
  Testing::DiscriminatedScan scan;
  ASSERT_TRUE(Testing::MakeDiscriminatedScan(scan, s, Testing::SphereWithStepNm, 31));
  PhaseAlgorithmCentroid centroid;
  DoubleMatrix2D surface;
  ASSERT_TRUE(Measure(scan, centroid, surface).IsOk());
  const double coherence = Testing::CoherenceLengthNm(s.light);
  double sumSquares = 0.0;
  for (int r = 0; r < s.rows; ++r) {
    for (int col = 0; col < s.cols; ++col) {
      const double error = surface(r, col) - (Testing::SphereWithStepNm(r, col) + kStepNm);
      EXPECT_LT(std::abs(error), c.maxFraction * coherence) << r << "," << col;
      sumSquares += error * error;
    }
  }
  EXPECT_LT(std::sqrt(sumSquares / (s.rows * s.cols)), c.rmsFraction * coherence);
}

INSTANTIATE_TEST_SUITE_P(Noise, CentroidAccuracyTest,
                         ::testing::Values(AccuracyCase{0.0, 0.01, 0.003}, AccuracyCase{1.5, 0.1, 0.025}));

// The modulation at the window centre, m = |2 d32 - d30 - d34| + |2 (d31 - d33)|, must reach minimum
// modulation x 2 x saturation / 100. A bright pair of samples at window indices 31 and 32 gives m = 20
// for d31 = d32 = 5, and a saturation of 100 with a minimum of 10 % sets the threshold at 20 too:
// equal passes, a hair less does not. The envelope is symmetric about window index 31.5: around the
// peak frame 100 (the window holds frames 68 .. 131) that is frame 99.5, reported one step above,
// 100.5 steps. A signal without fringes passes a threshold of 0 but has no centroid. A peak within
// half a signal (32 frames) of either end of the 256-frame scan has no centred window. Every pixel
// gets its intensity, the standard window's 3 (d31 + d32) / 16 = 1.875.
TEST(PhaseAlgorithmCentroidTest, ThresholdAndScanEndsDecideWhichPixelsGetAHeight) {
  struct Case {
    double pair, minimum;
    int peak;
    double heightSteps;  // 0: no height
  };
  for (const Case c : {Case{10.0, 10.0, 100, 100.5}, Case{9.999, 10.0, 100, 0.0}, Case{0.0, 0.0, 100, 0.0},
                       Case{10.0, 10.0, 32, 32.5}, Case{10.0, 10.0, 31, 0.0}, Case{10.0, 10.0, 223, 223.5},
                       Case{10.0, 10.0, 224, 0.0}}) {
    PhaseAlgorithmCentroid centroid;
    centroid.SetMinimumModulation(c.minimum);
    centroid.SetMaxScanValue(100.0);
    centroid.SetScanIncrement(UnitNumber(kStepNm, LinearConverter(Units::kNanometers)));
    centroid.Initialize(0, 256, 64, Window2D(0, 0, 1, 1));
    centroid.InitializeThread(1);
    double* d = centroid.GetDataArray(0);
    std::fill(d, d + 64, 0.0);
    d[31] = d[32] = c.pair / 2.0;
    centroid.ProcessPixel(0, 0, c.peak, 0);
    const double height = centroid.GetSurfaceMatrix()(0, 0);
    if (c.heightSteps > 0.0) {
      EXPECT_DOUBLE_EQ(height, c.heightSteps * kStepNm) << c.pair << " at " << c.peak;
    } else {
      EXPECT_TRUE(DoubleMatrix2D::IsNoData(height)) << c.pair << " at " << c.peak;
    }
    EXPECT_EQ(centroid.GetIntensityMatrix()(0, 0), c.pair > 0.0 ? 2 : 0) << c.pair << " at " << c.peak;
    centroid.FinalizeThread();
  }
}

// The vector envelope sums against the scalar ones, with the house's equivalence check (thread
// counts, sub-windows, one row): bit for bit, on a noisy scan cut into 64- and 128-sample windows.
TEST(CentroidPathTest, TheVectorSumsAreTheScalarSumsBitForBit) {
  const int count = 256;
  for (const int signal : {64, 128}) {
    SCOPED_TRACE("signal " + std::to_string(signal));
    Testing::ScanSettings s;
    s.rows = 9;
    s.cols = 13;
    s.framesScanned = count;
    s.noiseSigmaCounts = 2.0;
    Testing::DiscriminatedScan whole;
    ASSERT_TRUE(Testing::MakeDiscriminatedScan(whole, s, Testing::SphereWithStepNm, 47));
    const auto run = [&](const Window2D& w, int threads, bool fast) {
      // The window's part of the scan: its frames, peaks and auxiliary values.
      Analysis::Core::FrameBuffer frames;
      EXPECT_TRUE(frames.Allocate(w, count, Analysis::Core::FrameBuffer::kRes8Bit));
      Analysis::Core::IntMatrix2D peaks, auxiliary;
      peaks.Resize(w);
      auxiliary.Resize(w);
      auxiliary.SetAll(0);
      for (int slot = 0; slot < count; ++slot) {
        const auto* from = static_cast<const std::uint8_t*>(whole.frames.GetFrameData(slot));
        auto* to = static_cast<std::uint8_t*>(frames.GetFrameData(slot));
        for (int r = 0; r < w.GetRows(); ++r) {
          for (int c = 0; c < w.GetCols(); ++c)
            to[r * w.GetCols() + c] = from[(r + w.GetStartRow()) * s.cols + c + w.GetStartCol()];
        }
      }
      for (int r = 0; r < w.GetRows(); ++r) {
        for (int c = 0; c < w.GetCols(); ++c)
          peaks.At(r * w.GetCols() + c) = whole.peaks(r + w.GetStartRow(), c + w.GetStartCol());
      }
      PhaseAlgorithmCentroid centroid;
      centroid.SetUseFastPath(fast);
      centroid.SetExpectedSignalSize(signal);
      centroid.SetScanIncrement(UnitNumber(s.scanStepNm, LinearConverter(Units::kNanometers)));
      PhaseGenerator generator(&centroid);
      generator.SetAllowMultiThreads(threads > 1);
      generator.SetMaxNumThreads(std::max(threads, 1));
      DoubleMatrix2D surface;
      surface.Resize(w);
      surface.SetAll(0.0);
      const Analysis::Core::Status status = generator.Process(frames, peaks, auxiliary, surface);
      EXPECT_TRUE(status.IsOk()) << status.GetPrintString();
      Testing::ImageMaps maps(1);
      for (std::int64_t i = 0; i < surface.GetCount(); ++i)
        maps[0].push_back(surface.At(i));
      return maps;
    };
    Testing::CheckImageEquivalence(
        {s.rows, s.cols, {{"height", 0}}}, [&](const Window2D& w) { return run(w, 1, false); },
        [&](const Window2D& w, int threads) { return run(w, threads, true); });
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

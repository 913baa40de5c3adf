// The per-pixel framework shared by the white-light algorithms: signal sizes, the fringe-free
// intensity estimators and the surface that cannot be redirected.
#include "Swli/PhaseAlgorithm.h"

#include <cmath>
#include <functional>
#include <numbers>
#include <string>

#include <gtest/gtest.h>

#include "Analysis/Core/NoData.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {
namespace {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::IntMatrix2D;
using Analysis::Core::Window2D;

// An algorithm that only makes intensities, driven by hand: one pixel, one thread.
class IntensityProbe : public PhaseAlgorithm {
 public:
  int ProcessPixel(int thread, int pixel, int peakFrame, int) override {
    return RemoveFringes(thread, pixel, peakFrame);
  }

  // Prepares one pass over a single pixel with `signal` as its q samples and returns the intensity.
  int Estimate(FringeRemovalMethod method, int frames, const std::vector<double>& signal, int peak) {
    SetRemoveFringes(method);
    const int q = static_cast<int>(signal.size());
    Initialize(0, frames, q, Window2D(0, 0, 1, 1));
    InitializeThread(1);
    std::copy(signal.begin(), signal.end(), GetDataArray(0));
    const int intensity = ProcessPixel(0, 0, peak, 0);
    EXPECT_EQ(GetIntensityMatrix().At(0), intensity) << "the estimate is also stored at the pixel";
    FinalizeThread();
    return intensity;
  }
};

// Fringes of four samples per period (a scan step of an eighth of the wavelength, the usual white-
// light setting) on a fringe-free level that may change along the signal: level(j) +
// amplitude cos(pi j / 2 + 0.4).
std::vector<double> FringesOnLevel(int q, double amplitude, const std::function<double(int)>& level) {
  std::vector<double> d(static_cast<std::size_t>(q));
  for (int j = 0; j < q; ++j)
    d[static_cast<std::size_t>(j)] = level(j) + amplitude * std::cos(std::numbers::pi / 2 * j + 0.4);
  return d;
}

struct EstimatorCase {
  std::string name;
  int method;
  int frames;  // frames scanned; equal to q for a whole-scan signal
  int q;
  std::function<double(int)> level;
  int peak;
  int expected;  // the fringe-free level the window should read
};

void PrintTo(const EstimatorCase& c, std::ostream* os) {
  *os << c.name;
}

class FringeRemovalTest : public ::testing::TestWithParam<EstimatorCase> {};

// Each estimator reads the fringe-free level of a known signal. At four samples per fringe the
// standard weights 1 1 3 3 3 3 1 1 cancel a fringe exactly, and 64 samples hold 16 whole fringes,
// so the fringes contribute nothing but rounding noise (1e-13) and the expected values are the
// levels the windows cover, exact to the count.
TEST_P(FringeRemovalTest, ReadsTheFringeFreeLevel) {
  const EstimatorCase& c = GetParam();
  IntensityProbe probe;
  EXPECT_EQ(probe.Estimate(c.method, c.frames, FringesOnLevel(c.q, 45.0, c.level), c.peak), c.expected);
}

const auto kStep40 = [](int j) { return j < 40 ? 50.0 : 100.0; };
const auto kBright = [](int j) { return j >= 40 && j < 120 ? 100.0 : 50.0; };

INSTANTIATE_TEST_SUITE_P(
    Estimators, FringeRemovalTest,
    ::testing::Values(
        // Whole scan: the window sits on the peak; a peak closer than four samples to an end uses the
        // centre instead.
        EstimatorCase{"StandardOnThePeak", 1, 64, 64, kStep40, 50, 100},
        EstimatorCase{"StandardOnThePeakLeft", 1, 64, 64, kStep40, 20, 50},
        EstimatorCase{"StandardPeakAtTheEndUsesTheCentre", 1, 64, 64, kStep40, 61, 50},
        EstimatorCase{"StandardPeakAtTheStartUsesTheCentre", 1, 64, 64, kStep40, 3, 50},
        // Any method value other than -1 and 2 is the standard one.
        EstimatorCase{"UnknownMethodIsStandard", 7, 64, 64, kStep40, 50, 100},
        // A window cut around a known peak: its centre.
        EstimatorCase{"StandardWindowCentre", 1, 256, 64, [](int j) { return j < 20 ? 160.0 : 140.0; }, 100,
                      140},
        // No peak: the brightest window position over the circular signal.
        EstimatorCase{"StandardNoPeakTakesTheBrightestWindow", 1, 256, 64,
                      [](int j) { return j < 32 ? 90.0 : 130.0; }, 0, 130},
        EstimatorCase{"StandardNoPeakWrapsAround", 1, 256, 64,
                      [](int j) { return j < 6 || j >= 62 ? 170.0 : 90.0; }, 0, 170},
        // 64 samples around the peak of a whole-scan signal, clamped to the signal.
        EstimatorCase{"Bucket64AroundThePeak", 2, 128, 128, kBright, 80, 100},
        EstimatorCase{"Bucket64ClampedAtTheStart", 2, 128, 128, kBright, 10, 69},  // (40*50 + 24*100) / 64
        EstimatorCase{"Bucket64ClampedAtTheEnd", 2, 128, 128, kBright, 127, 94},   // (56*100 + 8*50) / 64
        // A cut window: all of it, over 64 (twice the mean for a 128-sample window, by design).
        EstimatorCase{"Bucket64WindowMean", 2, 256, 64, [](int) { return 77.0; }, 100, 77},
        EstimatorCase{"Bucket64LongWindowCountsTwice", 2, 256, 128, [](int) { return 77.0; }, 100, 154}),
    [](const ::testing::TestParamInfo<EstimatorCase>& info) { return info.param.name; });

TEST(FringeRemovalTest, RoundsHalfAwayFromZero) {
  IntensityProbe probe;
  EXPECT_EQ(probe.Estimate(1, 64, std::vector<double>(64, 2.5), 30), 3);
  EXPECT_EQ(probe.Estimate(1, 64, std::vector<double>(64, -2.5), 30), -3);
  EXPECT_EQ(probe.Estimate(1, 64, std::vector<double>(64, 2.4375), 30), 2);
}

TEST(FringeRemovalTest, NoneMakesNoIntensityMap) {
  IntensityProbe probe;
  probe.SetRemoveFringes(FringeRemovalMethod::kNone);
  probe.Initialize(0, 64, 64, Window2D(0, 0, 2, 3));
  EXPECT_EQ(probe.GetIntensityMatrix().GetCount(), 0) << "not sized";
  probe.InitializeThread(1);
  EXPECT_EQ(probe.ProcessPixel(0, 0, 30, 0), Analysis::Core::kNoDataInt);
}

// The signal size rule: the configured (or expected) size becomes 128 only when it is exactly 128;
// everything else becomes 64. The method handed in is kept.
struct QSizeCase {
  int expectedSignalSize;  // 0: leave the default (64)
  int signalSize;
  int q;
};

class CalculateQSizeTest : public ::testing::TestWithParam<QSizeCase> {};

TEST_P(CalculateQSizeTest, RoundsToTheSupportedSizes) {
  const QSizeCase& c = GetParam();
  IntensityProbe probe;
  probe.SetExpectedSignalSize(c.expectedSignalSize);
  EXPECT_EQ(probe.CalculateQSize(256, c.signalSize, FringeRemovalMethod::k64Bucket), c.q);
  EXPECT_EQ(probe.GetRemoveFringes(), FringeRemovalMethod::k64Bucket);
}

INSTANTIATE_TEST_SUITE_P(Sizes, CalculateQSizeTest,
                         ::testing::Values(QSizeCase{0, -1, 64}, QSizeCase{0, 128, 128},
                                           QSizeCase{0, 129, 64}, QSizeCase{128, 0, 128},
                                           QSizeCase{256, -1, 64}));

// The surface cannot be redirected (the generator always copies the algorithm's own surface); the
// intensity can, until the next Reset.
TEST(PhaseAlgorithmTest, OnlyTheIntensityFollowsACallersMatrix) {
  IntensityProbe probe;
  DoubleMatrix2D outside(2, 3);
  IntMatrix2D outsideInt(2, 3);
  probe.SetSurfaceMatrix(outside);
  EXPECT_NE(&probe.GetSurfaceMatrix(), &outside);
  probe.SetIntensityMatrix(outsideInt);
  EXPECT_EQ(&probe.GetIntensityMatrix(), &outsideInt);
  probe.Reset();
  EXPECT_NE(&probe.GetIntensityMatrix(), &outsideInt);
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

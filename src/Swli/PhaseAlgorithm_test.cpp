// The per-pixel framework shared by the white-light algorithms: signal sizes, the fringe-free
// intensity estimators and the caller's intensity matrix.
#include "Swli/PhaseAlgorithm.h"

#include <cmath>
#include <functional>
#include <numbers>
#include <string>

#include <gtest/gtest.h>

#include "Analysis/Core/NoData.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {
namespace {

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
// levels the windows cover, exact to the count. Levels that step just inside a window's outer sample
// (weight 1/16) pin where the window sits to the sample.
TEST_P(FringeRemovalTest, ReadsTheFringeFreeLevel) {
  const EstimatorCase& c = GetParam();
  IntensityProbe probe;
  EXPECT_EQ(probe.Estimate(c.method, c.frames, FringesOnLevel(c.q, 45.0, c.level), c.peak), c.expected);
}

const auto kStep35 = [](int j) { return j < 35 ? 50.0 : 100.0; };
const auto kBright = [](int j) { return j >= 40 && j < 120 ? 100.0 : 50.0; };

INSTANTIATE_TEST_SUITE_P(
    Estimators, FringeRemovalTest,
    ::testing::Values(
        // Whole scan: the window sits on the peak; a peak closer than four samples to an end uses the
        // centre instead (samples 28 .. 35: (15 x 50 + 100) / 16 = 53.1).
        EstimatorCase{"StandardOnThePeak", 1, 64, 64, kStep35, 50, 100},
        EstimatorCase{"StandardPeakAtTheEndUsesTheCentre", 1, 64, 64, kStep35, 61, 53},
        EstimatorCase{"StandardPeakAtTheStartUsesTheCentre", 1, 64, 64, kStep35, 3, 53},
        // Any method value other than -1 and 2 is the standard one.
        EstimatorCase{"UnknownMethodIsStandard", 7, 64, 64, kStep35, 50, 100},
        // A window cut around a known peak: its centre ((160 + 15 x 140) / 16 = 141.25).
        EstimatorCase{"StandardWindowCentre", 1, 256, 64, [](int j) { return j < 29 ? 160.0 : 140.0; }, 100,
                      141},
        // No peak: the brightest window position over the circular signal, here across its ends.
        EstimatorCase{"StandardNoPeakWrapsAround", 1, 256, 64,
                      [](int j) { return j < 6 || j >= 62 ? 170.0 : 90.0; }, 0, 170},
        // 64 samples around the peak of a whole-scan signal, clamped to the signal.
        EstimatorCase{"Bucket64AroundThePeak", 2, 128, 128, kBright, 80, 100},
        EstimatorCase{"Bucket64ClampedAtTheStart", 2, 128, 128, kBright, 10, 69},  // (40*50 + 24*100) / 64
        EstimatorCase{"Bucket64ClampedAtTheEnd", 2, 128, 128, kBright, 127, 94},   // (56*100 + 8*50) / 64
        // A cut window: all of it, over 64 (twice the mean for a 128-sample window, by design).
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
TEST(PhaseAlgorithmTest, CalculateQSizeRoundsToTheSupportedSizes) {
  struct Case {
    int expectedSignalSize, signalSize, q;  // expectedSignalSize 0: the default (64)
  };
  for (const Case c :
       {Case{0, -1, 64}, Case{0, 128, 128}, Case{0, 129, 64}, Case{128, 0, 128}, Case{256, -1, 64}}) {
    IntensityProbe probe;
    probe.SetExpectedSignalSize(c.expectedSignalSize);
    EXPECT_EQ(probe.CalculateQSize(256, c.signalSize, FringeRemovalMethod::k64Bucket), c.q)
        << c.expectedSignalSize << ", " << c.signalSize;
    EXPECT_EQ(probe.GetRemoveFringes(), FringeRemovalMethod::k64Bucket);
  }
}

// A caller's intensity matrix receives the estimates until the next Reset hands the algorithm its own
// again (the caller's matrix may be gone by the next run).
TEST(PhaseAlgorithmTest, ACallersIntensityMatrixIsFilledUntilReset) {
  IntensityProbe probe;
  IntMatrix2D outside(1, 1);
  probe.SetIntensityMatrix(outside);
  probe.Estimate(1, 64, std::vector<double>(64, 7.0), 30);
  EXPECT_EQ(outside(0, 0), 7);
  probe.Reset();
  EXPECT_NE(&probe.GetIntensityMatrix(), &outside);
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

#include "Psi/GainCorrectionCalculator.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Psi/GainCorrectionPmi.h"
#include "Psi/GainCorrectionSinPsi.h"
#include "Testing/SeededRandom.h"
#include "Testing/SyntheticPsi.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {
namespace {

using Analysis::Core::FrameBuffer;
using Analysis::Core::RegionIdMatrix2D;
using Analysis::Core::Window2D;
namespace StatusCode = Analysis::Core::StatusCode;

constexpr double kNoData = Analysis::Core::kNoDataDouble;

double SurfacePhase(int row, int col) {
  return 0.29 * col + 0.41 * row + 0.003 * row * col;
}

// The nominal shifts of each algorithm's stack, every shift scaled by 1 + gainError.
std::vector<double> Shifts(int frames, double gainError) {
  if (frames == 7) return Testing::ShiftsFor7(gainError);
  if (frames == 13) return Testing::ShiftsFor13(gainError);
  std::vector<double> shifts = Testing::ShiftsFor20(gainError);
  // Frames beyond one drive period repeat it, as a shifter driven on would deliver them.
  for (int k = 20; k < frames; ++k)
    shifts.push_back(shifts[static_cast<std::size_t>(k - 20)]);
  return shifts;
}

void FillStack(FrameBuffer& frames, double gainError, double bias, double amplitude, double noiseSigma = 0.0,
               Testing::SeededRandom* random = nullptr) {
  Testing::FillPsiStack(
      frames, Shifts(frames.GetNumberOfFrames(), gainError),
      [&](int r, int c) {
        return Testing::PixelFringe{bias, amplitude, SurfacePhase(r, c)};
      },
      noiseSigma, random);
}

double RunGain(GainCorrection& algorithm, FrameBuffer& frames, int threads = 1, int period = 1,
               RegionIdMatrix2D* mask = nullptr, unsigned expectedCode = StatusCode::kSuccess) {
  GainCorrectionCalculator calculator;
  calculator.SetAlgorithm(&algorithm);
  calculator.SetScanPeriod(period);
  if (threads == 0) {
    calculator.SetAllowMultipleThreads(false);
  } else {
    calculator.SetNumberOfThreads(threads);
  }
  calculator.Calculate(frames, mask);
  EXPECT_EQ(calculator.GetStatus().GetCode(), expectedCode) << calculator.GetStatus().GetPrintString();
  return calculator.GetGainCorrection();
}

// Writes the seven samples J0..J6 of pixel `pixel` of a 7-frame stack, or of the even frames of a
// 13-frame stack (the odd frames then get `oddValue`).
void SetPixel(FrameBuffer& frames, int pixel, const std::vector<int>& J, int oddValue = 0) {
  const int stride = frames.GetNumberOfFrames() == 13 ? 2 : 1;
  for (int f = 0; f < frames.GetNumberOfFrames(); ++f) {
    const int value = f % stride == 0 ? J[static_cast<std::size_t>(f / stride)] : oddValue;
    static_cast<unsigned char*>(frames.GetFrameData(f))[pixel] = static_cast<unsigned char>(value);
  }
}

// ----------------------------------------------------------------------------------------------
// The integer arithmetic of the 7-/13-frame estimate.

TEST(GainCorrectionPmiTest, IntegerMeanComesBeforeTheDivisionBy316) {
  // J2 - J4 = 128 makes the denominator 2a = 256, so r = J1 - J5 exactly; c = J1 - 2 J3 + J5 stays
  // small, so that branch is taken. Pixel 0: r = 100, pixel 1: r = 101. Their integer mean is 100.
  for (const int frameCount : {7, 13}) {
    for (const int threads : {1, 2}) {
      FrameBuffer frames;
      ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 1, 2), frameCount, FrameBuffer::kRes8Bit));
      // In the 13-frame stack the odd frames are clipped: they are not among the samples, so they
      // must not matter.
      SetPixel(frames, 0, {100, 150, 200, 100, 72, 50, 120}, 255);
      SetPixel(frames, 1, {100, 150, 200, 100, 72, 49, 120}, 255);
      GainCorrectionPmi algorithm;
      EXPECT_EQ(RunGain(algorithm, frames, threads), 100 / 316.0) << frameCount << " frames";
      EXPECT_EQ(algorithm.GetContributingPixelCount(), 2);
    }
  }
}

TEST(GainCorrectionPmiTest, FourSamplesSummingTo14AreTooDarkAnd15AreNot) {
  for (const int sum : {14, 15}) {
    FrameBuffer frames;
    ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 1, 1), 7, FrameBuffer::kRes8Bit));
    // a = 7, c = 14 - 2 J3: the first branch gives r = 256 (J1 - J5) / (2 a) = -256.
    SetPixel(frames, 0, {0, 0, 7, sum - 7, 0, 14, 0});
    GainCorrectionPmi algorithm;
    GainCorrectionCalculator calculator;
    calculator.SetAlgorithm(&algorithm);
    calculator.SetMinimumModulation(0.0);
    calculator.Calculate(frames);
    if (sum == 14) {
      EXPECT_EQ(calculator.GetStatus().GetCode(), StatusCode::kNoValidResult);
      EXPECT_EQ(calculator.GetGainCorrection(), kNoData);
    } else {
      EXPECT_TRUE(calculator.GetStatus().IsOk());
      EXPECT_EQ(calculator.GetGainCorrection(), -256 / 316.0);
    }
  }
  EXPECT_FALSE(GainCorrectionPmi::PixelIntensityInRange(255, 0, 0, 0, 0, 0, 0, 255));
  EXPECT_TRUE(GainCorrectionPmi::PixelIntensityInRange(255, 254, 0, 0, 0, 0, 0, 254));
}

// ----------------------------------------------------------------------------------------------
// Physics: the gain correction follows the step error in sign and size.

struct GainCase {
  std::string name;
  int frames;
  bool sinPsi;
};

void PrintTo(const GainCase& c, std::ostream* os) {
  *os << c.name;
}

class GainFollowsErrorTest : public ::testing::TestWithParam<GainCase> {
 protected:
  double Measure(double gainError, int threads = 2) {
    FrameBuffer frames;
    EXPECT_TRUE(frames.Allocate(Window2D(0, 0, 64, 96), GetParam().frames, FrameBuffer::kRes16Bit));
    FillStack(frames, gainError, 30000.0, 25000.0);
    GainCorrectionPmi pmi;
    GainCorrectionSinPsi sinPsi;
    GainCorrection& algorithm = GetParam().sinPsi ? static_cast<GainCorrection&>(sinPsi) : pmi;
    return RunGain(algorithm, frames, threads);
  }
};

TEST_P(GainFollowsErrorTest, SignOppositeToTheErrorAndGrowingWithIt) {
  const std::vector<double> errors = {0.02, 0.05, 0.10, 0.20};
  double previousAbove = 0.0, previousBelow = 0.0;
  for (const double error : errors) {
    const double above = Measure(+error);  // the shifter moves too far
    const double below = Measure(-error);  // too little
    EXPECT_LT(above, 0.0) << error;
    EXPECT_GT(below, 0.0) << error;
    EXPECT_LT(above, previousAbove) << error;
    EXPECT_GT(below, previousBelow) << error;
    previousAbove = above;
    previousBelow = below;
  }
}

TEST_P(GainFollowsErrorTest, SizeMatchesTheStepError) {
  if (!GetParam().sinPsi) {
    // Each pixel's r = 256 cos(alpha) with alpha = 90 deg (1 + error), truncated towards zero (less
    // than 1), and the integer mean truncated again (less than 1): 316 x gain lies within 2 of
    // 256 cos(alpha), on the side of zero. Rounding 16-bit samples of amplitude 25000 adds less than
    // 0.05.
    for (const double error : {-0.2, -0.1, -0.05, -0.02, 0.0, 0.02, 0.05, 0.1, 0.2}) {
      const double truth = 256.0 * std::cos(std::numbers::pi / 2 * (1.0 + error));
      const double measured = 316.0 * Measure(error);
      EXPECT_LE(std::abs(measured), std::abs(truth) + 0.05) << error;
      EXPECT_GT(std::abs(measured), std::abs(truth) - 2.05) << error;
    }
    return;
  }
  // The sinusoidal estimate has no closed form here; what it must show is proportionality. Its
  // coefficients, given to three or four digits, leave an offset of about 1e-3 at the nominal gain;
  // beyond that the response per unit of error stays within 10 % of its small-error value over
  // +-10 % (the response curves slightly, as the sinusoid's harmonics do).
  const double offset = Measure(0.0);
  EXPECT_LT(std::abs(offset), 3e-3);
  const double slope = (Measure(0.02) - Measure(-0.02)) / 0.04;
  EXPECT_LT(slope, -0.5);
  for (const double error : {-0.1, -0.05, 0.05, 0.1}) {
    EXPECT_NEAR((Measure(error) - offset) / error, slope, 0.1 * std::abs(slope)) << error;
  }
}

TEST_P(GainFollowsErrorTest, NoisyEightBitCameraStillShowsTheSign) {
  Testing::SeededRandom random(4242);
  SCOPED_TRACE(random.Describe());
  for (const double error : {-0.05, 0.05}) {
    FrameBuffer frames;
    ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 128, 128), GetParam().frames, FrameBuffer::kRes8Bit));
    FillStack(frames, error, 120.0, 90.0, 1.5, &random);
    GainCorrectionPmi pmi;
    GainCorrectionSinPsi sinPsi;
    GainCorrection& algorithm = GetParam().sinPsi ? static_cast<GainCorrection&>(sinPsi) : pmi;
    const double gain = RunGain(algorithm, frames, 2);
    // 5 % of error gives about 0.06 (Pmi) or 0.04 (SinPsi); noise of 1.5 counts on 90 scatters
    // single pixels by a few per cent of a step, which 16384 pixels average to well below 0.01.
    EXPECT_GT(-gain * error / 0.05, 0.03) << error;
  }
}

INSTANTIATE_TEST_SUITE_P(AllAlgorithms, GainFollowsErrorTest,
                         ::testing::Values(GainCase{"Pmi7", 7, false}, GainCase{"Pmi13", 13, false},
                                           GainCase{"SinPsi20", 20, true}, GainCase{"SinPsi25", 25, true}),
                         [](const auto& info) { return info.param.name; });

TEST(GainCorrectionSinPsiTest, FramesAfterTheTwentiethAreNotUsed) {
  FrameBuffer twenty, more;
  ASSERT_TRUE(twenty.Allocate(Window2D(0, 0, 32, 40), 20, FrameBuffer::kRes8Bit));
  ASSERT_TRUE(more.Allocate(Window2D(0, 0, 32, 40), 25, FrameBuffer::kRes8Bit));
  FillStack(twenty, 0.04, 120.0, 90.0);
  FillStack(more, 0.04, 120.0, 90.0);
  // Clipped extra frames would spoil every pixel if they were read.
  for (int f = 20; f < 25; ++f)
    std::memset(more.GetFrameData(f), 255, 32 * 40);
  GainCorrectionSinPsi a, b;
  const double first = RunGain(a, twenty);
  EXPECT_EQ(RunGain(b, more), first);
  EXPECT_EQ(b.GetContributingPixelCount(), 32 * 40);
}

// ----------------------------------------------------------------------------------------------
// The pixel walk and threads.

// Records the pixels it is given: frame 0 of the stack holds each pixel's own index.
class RecordingAlgorithm final : public GainCorrection {
 public:
  double GetModulationScale() const override { return 0.0; }
  double GetGainCorrection() const override { return 0.0; }
  void SetFrameBuffer(FrameBuffer*) override {}
  void SetMinimumModulation(double) override {}
  void ProcessPixel(int thread, const int* samples) override {
    visited_[static_cast<std::size_t>(thread)].push_back(samples[0]);
  }
  void ProcessPixel(int thread, const unsigned char* samples) override {
    visited_[static_cast<std::size_t>(thread)].push_back(samples[0]);
  }
  void Intialize(int numberOfThreads) override {
    visited_.assign(static_cast<std::size_t>(numberOfThreads), {});
  }
  void PostProcess() override {}
  Analysis::Core::Status& GetStatus() override { return status_; }

  std::vector<int> Visited() const {
    std::vector<int> all;
    for (const auto& perThread : visited_)
      all.insert(all.end(), perThread.begin(), perThread.end());
    std::sort(all.begin(), all.end());
    return all;
  }

 private:
  std::vector<std::vector<int>> visited_;
  Analysis::Core::Status status_;
};

const Window2D kFrameWindow(5, 7, 19, 27);

struct WalkCase {
  int threads;
  int period;
  int mask;  // 0 none, 1 same window, 2 shifted window, 3 narrowed window
};

void PrintTo(const WalkCase& c, std::ostream* os) {
  *os << "threads " << c.threads << ", period " << c.period << ", mask " << c.mask;
}

RegionIdMatrix2D MakeMask(int kind) {
  RegionIdMatrix2D mask;
  mask.Resize(kind == 2 ? Window2D(0, 20, 15, 30) : kFrameWindow);
  for (int r = 0; r < mask.GetRows(); ++r) {
    for (int c = 0; c < mask.GetColumns(); ++c)
      mask(r, c) = (3 * r + 2 * c) % 7 < 4 ? 1 : RegionIdMatrix2D::NoData();
  }
  if (kind == 3) mask.SetWindow(Window2D(9, 12, 8, 13));
  return mask;
}

bool ShouldVisit(int p, int period, const RegionIdMatrix2D* mask, int workers) {
  // The stride grid starts at the first pixel of each worker's chunk; the dispatcher gives worker i
  // the pixels [i n / W, (i + 1) n / W) of n.
  const std::int64_t n = static_cast<std::int64_t>(kFrameWindow.GetRows()) * kFrameWindow.GetCols();
  std::int64_t chunkFirst = 0;
  for (int i = 0; i < workers; ++i) {
    if (i * n / workers <= p) chunkFirst = i * n / workers;
  }
  if ((p - chunkFirst) % period != 0) return false;
  if (!mask) return true;
  const int row = kFrameWindow.GetStartRow() + p / kFrameWindow.GetCols();
  const int col = kFrameWindow.GetStartCol() + p % kFrameWindow.GetCols();
  return mask->GetWindow().Contains(row, col) &&
         RegionIdMatrix2D::IsValid((*mask)(row - mask->GetStartRow(), col - mask->GetStartCol()));
}

class GainWalkTest : public ::testing::TestWithParam<WalkCase> {};

TEST_P(GainWalkTest, VisitsExactlyTheStrideAndMaskPixels) {
  const WalkCase& param = GetParam();
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(kFrameWindow, 7, FrameBuffer::kRes32Bit));
  const int pixels = frames.GetPixelCount();
  for (int p = 0; p < pixels; ++p)
    frames.GetFrame<std::int32_t>(0)[p] = p;
  RegionIdMatrix2D maskStorage = MakeMask(param.mask);
  RegionIdMatrix2D* mask = param.mask == 0 ? nullptr : &maskStorage;

  RecordingAlgorithm recorder;
  RunGain(recorder, frames, param.threads, param.period, mask);
  std::vector<int> expected;
  for (int p = 0; p < pixels; ++p) {
    if (ShouldVisit(p, param.period, mask, param.threads == 0 ? 1 : param.threads)) expected.push_back(p);
  }
  ASSERT_FALSE(expected.empty());
  EXPECT_EQ(recorder.Visited(), expected) << "each pixel once, and only those";
}

std::vector<WalkCase> WalkCases() {
  std::vector<WalkCase> cases;
  for (const int threads : {0, 1, 2, 3, 8}) {
    for (const int period : {1, 2, 5}) {
      for (const int mask : {0, 1, 2, 3})
        cases.push_back({threads, period, mask});
    }
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(ThreadsStridesMasks, GainWalkTest, ::testing::ValuesIn(WalkCases()),
                         [](const auto& info) {
                           return std::string("T") + std::to_string(info.param.threads) + "_P" +
                                  std::to_string(info.param.period) + "_M" + std::to_string(info.param.mask);
                         });

TEST(GainCorrectionCalculatorTest, ResultsDoNotDependOnTheNumberOfThreads) {
  Testing::SeededRandom random(99);
  SCOPED_TRACE(random.Describe());
  FrameBuffer seven, twenty;
  ASSERT_TRUE(seven.Allocate(Window2D(0, 0, 50, 61), 7, FrameBuffer::kRes8Bit));
  ASSERT_TRUE(twenty.Allocate(Window2D(0, 0, 50, 61), 20, FrameBuffer::kRes8Bit));
  FillStack(seven, 0.07, 120.0, 90.0, 2.0, &random);
  FillStack(twenty, 0.07, 120.0, 90.0, 2.0, &random);
  RegionIdMatrix2D mask(50, 61);
  for (int i = 0; i < 50 * 61; ++i)
    mask.At(i) = i % 11 < 8 ? 0 : RegionIdMatrix2D::NoData();

  // A scan period of 1: with a longer one each worker's chunk has its own grid, so the sampled pixels
  // (and the mean over them) depend on the number of workers.
  for (const int period : {1}) {
    for (RegionIdMatrix2D* regions : {static_cast<RegionIdMatrix2D*>(nullptr), &mask}) {
      GainCorrectionPmi pmi;
      GainCorrectionSinPsi sinPsi;
      const double pmiSerial = RunGain(pmi, seven, 0, period, regions);
      const double sinSerial = RunGain(sinPsi, twenty, 0, period, regions);
      for (const int threads : {1, 2, 3, 8}) {
        // Integer sums: identical for every thread count.
        EXPECT_EQ(RunGain(pmi, seven, threads, period, regions), pmiSerial) << threads;
        // Double sums in another grouping: equal to rounding (1e-12 relative covers the 3000
        // terms of about 1e-1 each, summed with a relative error of a few 1e-16 per addition).
        const double sin = RunGain(sinPsi, twenty, threads, period, regions);
        EXPECT_NEAR(sin, sinSerial, 1e-12 * std::abs(sinSerial)) << threads;
        // The same thread count repeats itself bit for bit.
        EXPECT_EQ(RunGain(sinPsi, twenty, threads, period, regions), sin) << threads;
      }
    }
  }
}

// ----------------------------------------------------------------------------------------------
// Statuses.

TEST(GainCorrectionCalculatorTest, MissingAlgorithmAndUnsupportedFrameCountsAreCode6) {
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 4, 4), 7, FrameBuffer::kRes8Bit));
  FillStack(frames, 0.0, 120.0, 90.0);
  GainCorrectionCalculator calculator;
  calculator.Calculate(frames);
  EXPECT_EQ(calculator.GetStatus().GetCode(), StatusCode::kCallFailed);
  EXPECT_EQ(calculator.GetStatus().GetFile(), "Psi\\GainCorrectionCalculator");
  EXPECT_EQ(calculator.GetGainCorrection(), kNoData);

  for (const int frameCount : {6, 8, 12, 14, 20}) {
    FrameBuffer wrong;
    ASSERT_TRUE(wrong.Allocate(Window2D(0, 0, 4, 4), frameCount, FrameBuffer::kRes8Bit));
    GainCorrectionPmi pmi;
    RunGain(pmi, wrong, 1, 1, nullptr, StatusCode::kCallFailed);
    EXPECT_EQ(pmi.GetStatus().GetFile(), "Psi\\GainCorrectionPmi");
  }
  for (const int frameCount : {7, 13, 19}) {
    FrameBuffer wrong;
    ASSERT_TRUE(wrong.Allocate(Window2D(0, 0, 4, 4), frameCount, FrameBuffer::kRes8Bit));
    GainCorrectionSinPsi sinPsi;
    RunGain(sinPsi, wrong, 1, 1, nullptr, StatusCode::kCallFailed);
    EXPECT_EQ(sinPsi.GetStatus().GetFile(), "Psi\\GainCorrectionSinPsi");
  }
  GainCorrectionPmi noFrames;
  noFrames.Intialize(1);
  EXPECT_EQ(noFrames.GetStatus().GetCode(), StatusCode::kCallFailed);
}

TEST(GainCorrectionCalculatorTest, NoContributingPixelIsCode1AndNoData) {
  for (const int frameCount : {7, 13, 20}) {
    FrameBuffer frames;
    ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 8, 9), frameCount, FrameBuffer::kRes8Bit));
    FillStack(frames, 0.05, 120.0, 3.0);  // modulation far below 15 % of 255
    GainCorrectionPmi pmi;
    GainCorrectionSinPsi sinPsi;
    GainCorrection& algorithm = frameCount == 20 ? static_cast<GainCorrection&>(sinPsi) : pmi;
    EXPECT_EQ(RunGain(algorithm, frames, 2, 1, nullptr, StatusCode::kNoValidResult), kNoData) << frameCount;
    EXPECT_EQ(algorithm.GetGainCorrection(), kNoData);
    EXPECT_EQ(algorithm.GetStatus().GetFile(),
              frameCount == 20 ? "Psi\\GainCorrectionSinPsi" : "Psi\\GainCorrectionPmi");

    // Well-modulated frames outside the mask count for nothing either.
    FillStack(frames, 0.05, 120.0, 90.0);
    RegionIdMatrix2D empty(8, 9);
    empty.SetAll(RegionIdMatrix2D::NoData());
    EXPECT_EQ(RunGain(algorithm, frames, 2, 1, &empty, StatusCode::kNoValidResult), kNoData);
    // ... and the same objects succeed on the next run.
    EXPECT_NE(RunGain(algorithm, frames, 2), kNoData);
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

#include "Psi/CorvaneCalculator.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "Psi/Corvane13.h"
#include "Psi/Corvane7.h"
#include "Testing/PhaseShifterCases.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {
namespace {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::FrameBuffer;
using Analysis::Core::RegionIdMatrix2D;
using Analysis::Core::Window2D;
namespace StatusCode = Analysis::Core::StatusCode;

constexpr double kNoData = Analysis::Core::kNoDataDouble;
// Written into the map before a run: a pixel still holding it was not visited.
constexpr double kUntouched = -12345.0;

// The walk cases ask for more workers than processors, and a calculator takes at most one per
// processor: the processor count is pinned (before the first dispatcher reads it) to 8.
const bool kEightProcessors = [] { return setenv("QUARN_NUM_PROCESSORS", "8", 1) == 0; }();

// A stack whose checked step is `stepDeg`: between frames of a 7-frame stack, between frame pairs of
// a 13-frame stack (whose frames are half of it apart).
void FillStack(FrameBuffer& frames, double stepDeg, double bias, double amplitude) {
  Testing::FillTiltedStack(frames, stepDeg / 90.0 - 1.0, bias, amplitude);
}

struct RunSettings {
  int threads = 1;
  bool allowThreads = true;
  int period = 1;
  RegionIdMatrix2D* mask = nullptr;
  double minimumModulation = 15.0;
};

void RunCheck(CorvaneAlgorithm& algorithm, FrameBuffer& frames, DoubleMatrix2D& out,
              const RunSettings& settings = {}) {
  CorvaneCalculator calculator;
  calculator.SetAlgorithm(&algorithm);
  calculator.SetScanPeriod(settings.period);
  calculator.SetMinimumModulation(settings.minimumModulation);
  calculator.SetAllowMultipleThreads(settings.allowThreads);
  calculator.SetNumberOfThreads(settings.threads);
  calculator.Calculate(frames, settings.mask, out);
  EXPECT_TRUE(calculator.GetStatus().IsOk()) << calculator.GetStatus().GetPrintString();
}

// ----------------------------------------------------------------------------------------------
// Worked pixels. Five values s0..s4 of one sinusoid: frames 0-4 of the 7-frame check, pair sums of
// the 13-frame one (each value split over its two frames; frames 10-12, which it does not read, are
// clipped). a = s1 - s2, b = s2 - s3; |b| < |a| gives r = (s0 - s3) / a, otherwise r = (s1 - s4) / b;
// the value is 128 r - 128. Where both ratios exist the rows make them differ, so each comparison is
// pinned. The run asks for 10 % of a saturation level of 250: the modulation |s0 - s2| + |s1 - s3|
// must exceed 25.

struct WorkedPixel {
  const char* what;
  int s[5];
  double expected;         // kNoData: the pixel must be rejected
  bool clipLastReadFrame;  // frame 6 of the 7-frame stack, frame 9 of the 13-frame stack at 250
};

const WorkedPixel kWorkedPixels[] = {
    {"quarter period: r = 1", {100, 200, 100, 0, 100}, 0.0, false},
    {"|a| = |b| takes the second ratio (the first gives 64)", {150, 200, 100, 0, 100}, 0.0, false},
    {"|b| < |a|: the first ratio (the second gives 128)", {200, 200, 100, 50, 100}, 64.0, false},
    {"|b| > |a|: the second ratio (the first gives 128)", {100, 150, 100, 0, 100}, -64.0, false},
    {"|b| < |a| with a < 0 < b (a signed comparison gives -128)", {0, 0, 100, 50, 0}, -64.0, false},
    {"a = b = 0: zero denominator although well modulated", {0, 150, 150, 150, 60}, kNoData, false},
    {"r = 3 is kept", {240, 150, 100, 90, 0}, 256.0, false},
    {"r = 3.02 is no cosine", {241, 150, 100, 90, 0}, kNoData, false},
    {"r = -1 is kept", {0, 100, 110, 10, 200}, -256.0, false},
    {"r = -1.01 is no cosine", {0, 100, 110, 10, 201}, kNoData, false},
    {"modulation 25 is not above the threshold", {100, 112, 100, 87, 100}, kNoData, false},
    {"modulation 26 is", {100, 113, 100, 87, 100}, 0.0, false},
    {"the last frame read is clipped (s4, unused by the first ratio)",
     {200, 200, 100, 50, 100},
     kNoData,
     true},
};

TEST(CorvanePixelTest, WorkedPixelsGiveTheirStepValueOrNoData) {
  constexpr int kPixels = static_cast<int>(std::size(kWorkedPixels));
  // 8-bit frames, and 16-bit frames of a camera that saturates at 250: the threshold and the
  // saturation test must follow the saturation level, not the sample type.
  for (const auto resolution : {FrameBuffer::kRes8Bit, FrameBuffer::kRes16Bit}) {
    for (const int frameCount : {7, 13}) {
      FrameBuffer frames;
      ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 1, kPixels), frameCount, resolution));
      frames.SetMaxValue(250);
      const int lastRead = frameCount == 7 ? 6 : 9;
      ASSERT_TRUE(Testing::FillStackBySample(frames, [&](int p, int k) {
        const WorkedPixel& row = kWorkedPixels[p];
        if (k >= 10 || (k == lastRead && row.clipLastReadFrame)) return 250;
        if (frameCount == 7) return k < 5 ? row.s[k] : 0;
        return k % 2 == 0 ? row.s[k / 2] / 2 : row.s[k / 2] - row.s[k / 2] / 2;
      }));
      Corvane7 seven;
      Corvane13 thirteen;
      CorvaneAlgorithm& algorithm = frameCount == 7 ? static_cast<CorvaneAlgorithm&>(seven) : thirteen;
      DoubleMatrix2D out(1, kPixels);
      RunCheck(algorithm, frames, out, {.minimumModulation = 10.0});
      for (int p = 0; p < kPixels; ++p) {
        EXPECT_NEAR(out.At(p), kWorkedPixels[p].expected, 1e-9)
            << frameCount << " frames of " << 8 * resolution << " bits: " << kWorkedPixels[p].what;
      }
    }
  }
}

// ----------------------------------------------------------------------------------------------
// Physics: a stack with a known step alpha gives 256 cos(alpha), for each sample width. 32-bit
// fringes span most of the range, so that pair sums (up to 1.8 x 2^31) and their differences need
// 64 bits.

class CorvaneStepTest : public ::testing::TestWithParam<std::tuple<int, FrameBuffer::ElementRes, double>> {};

TEST_P(CorvaneStepTest, StepValuesAre256CosOfTheStep) {
  const auto [frameCount, resolution, stepDeg] = GetParam();
  const int rows = 96, cols = 128;
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, rows, cols), frameCount, resolution));
  const double amplitude = 0.39 * frames.GetMaxValue();
  FillStack(frames, stepDeg, 0.5 * frames.GetMaxValue(), amplitude);
  Corvane7 seven;
  Corvane13 thirteen;
  CorvaneAlgorithm& algorithm = frameCount == 7 ? static_cast<CorvaneAlgorithm&>(seven) : thirteen;
  DoubleMatrix2D out(rows, cols);
  RunCheck(algorithm, frames, out, {.threads = 3});

  // Rounding each sample moves a frame difference by at most 1 count. The larger of the two
  // differences is at least 2 b sin^2(alpha / 2) (b the frame amplitude), so r = 1 + 2 cos(alpha)
  // moves by at most (1 + |r|) / (2 b sin^2(alpha / 2)) and the step value by 128 times that. Pair
  // sums have twice the rounding and an amplitude of 2 b cos(alpha / 4) >= 1.73 b, still within the
  // 4 / (2 b sin^2) used here: 10 step units at 8 bits and 60 degrees (b = 100). The errors of
  // neighbouring pixels are unrelated, so the mean over 12288 pixels stays within 5 % of that bound.
  const double stepRad = stepDeg * std::numbers::pi / 180.0;
  const double truth = 256.0 * std::cos(stepRad);
  const double pixelBound = 128.0 * 4.0 / (2.0 * amplitude * std::pow(std::sin(stepRad / 2.0), 2));
  double sum = 0.0;
  for (int i = 0; i < rows * cols; ++i) {
    // No pixel may be lost: the fringes are well modulated and these steps keep every ratio far
    // from the edges of [-1, 3].
    ASSERT_NEAR(out.At(i), truth, pixelBound) << "pixel " << i;
    sum += out.At(i);
  }
  EXPECT_NEAR(sum / (rows * cols), truth, 0.05 * pixelBound);
}

// The nominal quarter period, +-5 % and +-10 % gain, and steps far from it.
INSTANTIATE_TEST_SUITE_P(BothAlgorithms, CorvaneStepTest,
                         ::testing::Combine(::testing::Values(7, 13),
                                            ::testing::Values(FrameBuffer::kRes8Bit, FrameBuffer::kRes16Bit,
                                                              FrameBuffer::kRes32Bit),
                                            ::testing::Values(90.0, 85.5, 94.5, 81.0, 99.0, 60.0, 120.0)));

// ----------------------------------------------------------------------------------------------
// Threads, stride and masks: the map holds, bit for bit, the single-thread value of exactly the
// pixels the walk must visit, each counted once, and nothing is written elsewhere. The calculator
// takes at least one worker, at most one per processor, and one when multiple threads are not allowed.

TEST(CorvaneCalculatorTest, EveryThreadCountStrideAndMaskWritesTheSameValuesOnItsPixels) {
  const Window2D frameWindow(10, 20, 23, 31);  // camera coordinates, as the masks'
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(frameWindow, 7, FrameBuffer::kRes8Bit));
  FillStack(frames, 80.0, 120.0, 90.0);
  Corvane7 algorithm;
  DoubleMatrix2D reference(frameWindow.GetRows(), frameWindow.GetCols());
  RunCheck(algorithm, frames, reference);

  struct Threads {
    int requested;
    bool allowed;
    int workers;
  };
  for (const Testing::WalkMask kind : {Testing::WalkMask::kNone, Testing::WalkMask::kSameWindow,
                                       Testing::WalkMask::kOtherWindow, Testing::WalkMask::kNarrowed}) {
    RegionIdMatrix2D maskStorage = Testing::MakeWalkMask(kind, frameWindow);
    RegionIdMatrix2D* mask = kind == Testing::WalkMask::kNone ? nullptr : &maskStorage;
    for (const Threads threads : {Threads{3, false, 1}, Threads{-2, true, 1}, Threads{2, true, 2},
                                  Threads{3, true, 3}, Threads{12, true, 8}}) {
      for (const int period : {1, 3}) {
        SCOPED_TRACE(std::string(Testing::WalkMaskName(kind)) + ", threads " +
                     std::to_string(threads.requested) + (threads.allowed ? "" : " not allowed") +
                     ", period " + std::to_string(period));
        DoubleMatrix2D out(frameWindow.GetRows(), frameWindow.GetCols());
        out.SetAll(kUntouched);
        RunCheck(algorithm, frames, out, {threads.requested, threads.allowed, period, mask});
        const std::vector<int> expected = Testing::ExpectedWalk(frameWindow, period, mask, threads.workers);
        std::vector<int> written;
        for (int p = 0; p < frames.GetPixelCount(); ++p) {
          if (out.At(p) == kUntouched) continue;
          written.push_back(p);
          ASSERT_EQ(std::memcmp(&out.At(p), &reference.At(p), sizeof(double)), 0) << "pixel " << p;
        }
        ASSERT_EQ(written, expected);
        EXPECT_EQ(algorithm.GetValidPixelCount(), static_cast<std::int64_t>(expected.size()));
      }
    }
  }
}

// ----------------------------------------------------------------------------------------------
// Statuses: a refused run writes nothing, a run without a valid pixel is code 1 and leaves every
// pixel without data.

TEST(CorvaneCalculatorTest, FailuresAreStatusRecords) {
  struct Case {
    int frames;
    int algorithm;  // 7: Corvane7, 13: Corvane13, 0: none
    int period;     // below 1 it would never advance
    double amplitude;
    unsigned code;
    const char* source;
  };
  std::vector<Case> cases = {{7, 0, 1, 90.0, StatusCode::kCallFailed, "Psi\\CorvaneCalculator"},
                             {7, 7, 0, 90.0, StatusCode::kArgumentOutOfRange, "Psi\\CorvaneCalculator"},
                             {13, 13, 1, 3.0, StatusCode::kNoValidResult, "Psi\\Corvane13"}};
  for (const int frames : {6, 8, 13})
    cases.push_back({frames, 7, 1, 90.0, StatusCode::kCallFailed, "Psi\\Corvane7"});
  for (const int frames : {7, 12, 14})
    cases.push_back({frames, 13, 1, 90.0, StatusCode::kCallFailed, "Psi\\Corvane13"});
  Corvane7 seven;
  Corvane13 thirteen;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.frames) + " frames, algorithm " + std::to_string(c.algorithm));
    FrameBuffer frames;
    ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 4, 5), c.frames, FrameBuffer::kRes8Bit));
    FillStack(frames, 90.0, 120.0, c.amplitude);
    CorvaneAlgorithm* algorithm = c.algorithm == 7    ? static_cast<CorvaneAlgorithm*>(&seven)
                                  : c.algorithm == 13 ? &thirteen
                                                      : nullptr;
    CorvaneCalculator calculator;
    if (algorithm) calculator.SetAlgorithm(algorithm);
    calculator.SetScanPeriod(c.period);
    DoubleMatrix2D out(4, 5);
    out.SetAll(kUntouched);
    calculator.Calculate(frames, out);
    EXPECT_EQ(calculator.GetStatus().GetCode(), c.code);
    EXPECT_EQ(calculator.GetStatus().GetFile(), c.source);
    for (int i = 0; i < 20; ++i)
      EXPECT_EQ(out.At(i), c.code == StatusCode::kNoValidResult ? kNoData : kUntouched) << "pixel " << i;
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

#include "Psi/CorvaneCalculator.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/Threading/CpuCounter.h"
#include "Psi/Corvane13.h"
#include "Psi/Corvane7.h"
#include "Psi/GainCorrectionCalculator.h"
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

// The walk cases ask for up to 8 workers, and a calculator takes at most one per processor: the
// processor count is pinned (before the first dispatcher reads it) so that they run on any machine.
const bool kEightProcessors = [] { return setenv("QUARN_NUM_PROCESSORS", "8", 0) == 0; }();

// A stack whose checked step is `stepDeg`: between frames of a 7-frame stack, between frame pairs of
// a 13-frame stack (whose frames are half of it apart).
void FillStack(FrameBuffer& frames, double stepDeg, double bias, double amplitude) {
  Testing::FillTiltedStack(frames, stepDeg / 90.0 - 1.0, bias, amplitude);
}

// Runs a check (threads 0: multiple threads not allowed) and returns the number of workers it used.
int RunCheck(CorvaneAlgorithm& algorithm, FrameBuffer& frames, DoubleMatrix2D& out, int threads = 1,
             int period = 1, RegionIdMatrix2D* mask = nullptr, double minimumModulation = 15.0) {
  CorvaneCalculator calculator;
  calculator.SetAlgorithm(&algorithm);
  calculator.SetScanPeriod(period);
  calculator.SetMinimumModulation(minimumModulation);
  calculator.SetAllowMultipleThreads(threads != 0);
  calculator.SetNumberOfThreads(threads);
  calculator.Calculate(frames, mask, out);
  EXPECT_TRUE(calculator.GetStatus().IsOk()) << calculator.GetStatus().GetPrintString();
  return calculator.GetNumberOfThreads();
}

// ----------------------------------------------------------------------------------------------
// Worked pixels. Five values s0..s4 of one sinusoid: frames 0-4 of the 7-frame check, pair sums of
// the 13-frame one (each value split over its two frames; frames 10-12, which it does not read, are
// clipped). a = s1 - s2, b = s2 - s3; |b| < |a| gives r = (s0 - s3) / a, otherwise r = (s1 - s4) / b;
// the value is 128 r - 128. Where both ratios exist the rows make them differ, so each comparison is
// pinned. The run asks for 10 % of a saturation level of 255: the modulation |s0 - s2| + |s1 - s3|
// must exceed 25.5.

struct WorkedPixel {
  const char* what;
  int s[5];
  double expected;         // kNoData: the pixel must be rejected
  bool clipLastReadFrame;  // frame 6 of the 7-frame stack, frame 9 of the 13-frame stack at 255
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
  // 8-bit frames, and 16-bit frames of a camera that saturates at 255: the threshold and the
  // saturation test must follow the saturation level, not the sample type.
  for (const auto resolution : {FrameBuffer::kRes8Bit, FrameBuffer::kRes16Bit}) {
    for (const int frameCount : {7, 13}) {
      FrameBuffer frames;
      ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 1, kPixels), frameCount, resolution));
      frames.SetMaxValue(255);
      const auto put = [&](int frame, int pixel, int value) {
        if (resolution == FrameBuffer::kRes8Bit) {
          frames.GetFrame<std::uint8_t>(frame)[pixel] = static_cast<std::uint8_t>(value);
        } else {
          frames.GetFrame<std::uint16_t>(frame)[pixel] = static_cast<std::uint16_t>(value);
        }
      };
      for (int p = 0; p < kPixels; ++p) {
        const WorkedPixel& row = kWorkedPixels[p];
        for (int k = 0; k < 5; ++k) {
          if (frameCount == 7) {
            put(k, p, row.s[k]);
          } else {
            put(2 * k, p, row.s[k] / 2);
            put(2 * k + 1, p, row.s[k] - row.s[k] / 2);
          }
        }
        for (int f = 10; f < frameCount; ++f)
          put(f, p, 255);
        if (row.clipLastReadFrame) put(frameCount == 7 ? 6 : 9, p, 255);
      }
      Corvane7 seven;
      Corvane13 thirteen;
      CorvaneAlgorithm& algorithm = frameCount == 7 ? static_cast<CorvaneAlgorithm&>(seven) : thirteen;
      DoubleMatrix2D out(1, kPixels);
      RunCheck(algorithm, frames, out, 1, 1, nullptr, 10.0);
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
  RunCheck(algorithm, frames, out, 3);

  // Rounding each sample to an integer moves a frame difference by at most 1 count. The larger of
  // the two differences is at least 2 b sin^2(alpha / 2) (b the frame amplitude), so the ratio
  // r = 1 + 2 cos(alpha) moves by at most (1 + |r|) / (2 b sin^2(alpha / 2)) <= 3 / (2 b sin^2) and
  // the step value by 128 times that. Pair sums have twice the rounding and an amplitude of
  // 2 b cos(alpha / 4) >= 1.73 b, 15 % more error, still within the 4 / (2 b sin^2) used here:
  // 10 step units per pixel at 8 bits and 60 degrees (b = 100). The errors of neighbouring pixels are
  // unrelated, so the mean over the 12288 pixels stays within 5 % of that bound.
  const double stepRad = stepDeg * std::numbers::pi / 180.0;
  const double truth = 256.0 * std::cos(stepRad);
  const double pixelBound = 128.0 * 4.0 / (2.0 * amplitude * std::pow(std::sin(stepRad / 2.0), 2));
  double sum = 0.0;
  for (int i = 0; i < rows * cols; ++i) {
    // Ideal fringes well above the threshold: no pixel may be lost (these steps keep every ratio
    // far from the edges of [-1, 3]).
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
                                            ::testing::Values(90.0, 85.5, 94.5, 81.0, 99.0, 60.0, 70.0,
                                                              120.0)));

// ----------------------------------------------------------------------------------------------
// Threads, stride and masks: the map holds, bit for bit, the single-thread value of exactly the
// pixels the walk must visit, each counted once, and nothing is written elsewhere. The workers the
// walk is computed for are those the calculator reports after the run.

TEST(CorvaneCalculatorTest, ThreadsAreAtLeastOneAndAtMostOnePerProcessor) {
  const int processors = Analysis::Core::Threading::CpuCounter::Instance().GetNumberOfProcessors();
  CorvaneCalculator corvane;
  GainCorrectionCalculator gain;
  for (const int requested : {-3, 0, 1, 3, processors + 5}) {
    corvane.SetNumberOfThreads(requested);
    gain.SetNumberOfThreads(requested);
    EXPECT_EQ(corvane.GetNumberOfThreads(), requested <= 0 ? 1 : std::min(requested, processors))
        << requested;
    EXPECT_EQ(gain.GetNumberOfThreads(), corvane.GetNumberOfThreads()) << requested;
  }
}

TEST(CorvaneCalculatorTest, EveryThreadCountStrideAndMaskWritesTheSameValuesOnItsPixels) {
  const Window2D frameWindow(10, 20, 23, 31);  // camera coordinates, as the masks'
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(frameWindow, 7, FrameBuffer::kRes8Bit));
  FillStack(frames, 80.0, 120.0, 90.0);
  Corvane7 algorithm;
  DoubleMatrix2D reference(frameWindow.GetRows(), frameWindow.GetCols());
  RunCheck(algorithm, frames, reference, 0);

  for (const Testing::WalkMask kind : {Testing::WalkMask::kNone, Testing::WalkMask::kSameWindow,
                                       Testing::WalkMask::kOtherWindow, Testing::WalkMask::kNarrowed}) {
    RegionIdMatrix2D maskStorage = Testing::MakeWalkMask(kind, frameWindow);
    RegionIdMatrix2D* mask = kind == Testing::WalkMask::kNone ? nullptr : &maskStorage;
    for (const int threads : {0, 1, 2, 3, 8}) {
      for (const int period : {1, 3}) {
        SCOPED_TRACE(std::string(Testing::WalkMaskName(kind)) + ", threads " + std::to_string(threads) +
                     ", period " + std::to_string(period));
        DoubleMatrix2D out(frameWindow.GetRows(), frameWindow.GetCols());
        out.SetAll(kUntouched);
        const int workers = RunCheck(algorithm, frames, out, threads, period, mask);
        const std::vector<int> expected = Testing::ExpectedWalk(frameWindow, period, mask, workers);
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
// Statuses.

TEST(CorvaneCalculatorTest, MissingAlgorithmWrongFrameCountOrScanPeriodWritesNothing) {
  DoubleMatrix2D out(4, 5);
  out.SetAll(kUntouched);
  struct Case {
    int frames;
    int algorithm;  // 7: Corvane7, 13: Corvane13, 0: none
    int period;
    unsigned code;
    const char* source;
  };
  // A scan period below 1 would never advance.
  std::vector<Case> cases = {{7, 0, 1, StatusCode::kCallFailed, "Psi\\CorvaneCalculator"},
                             {7, 7, 0, StatusCode::kArgumentOutOfRange, "Psi\\CorvaneCalculator"}};
  for (const int frames : {6, 8, 13})
    cases.push_back({frames, 7, 1, StatusCode::kCallFailed, "Psi\\Corvane7"});
  for (const int frames : {7, 12, 14})
    cases.push_back({frames, 13, 1, StatusCode::kCallFailed, "Psi\\Corvane13"});
  for (const Case& c : cases) {
    FrameBuffer frames;
    ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 4, 5), c.frames, FrameBuffer::kRes8Bit));
    FillStack(frames, 90.0, 120.0, 90.0);
    Corvane7 seven;
    Corvane13 thirteen;
    CorvaneCalculator calculator;
    if (c.algorithm != 0)
      calculator.SetAlgorithm(c.algorithm == 7 ? static_cast<CorvaneAlgorithm*>(&seven) : &thirteen);
    calculator.SetScanPeriod(c.period);
    calculator.Calculate(frames, out);
    EXPECT_EQ(calculator.GetStatus().GetCode(), c.code) << c.frames << " frames";
    EXPECT_EQ(calculator.GetStatus().GetFile(), c.source) << c.frames << " frames";
  }
  for (int i = 0; i < 20; ++i)
    EXPECT_EQ(out.At(i), kUntouched);
}

TEST(CorvaneCalculatorTest, NoValidPixelIsCode1AndTheNextRunStartsAfresh) {
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 6, 7), 13, FrameBuffer::kRes8Bit));
  FillStack(frames, 90.0, 120.0, 3.0);  // far below 15 %
  Corvane13 algorithm;
  CorvaneCalculator calculator;
  calculator.SetAlgorithm(&algorithm);
  DoubleMatrix2D out(6, 7);
  calculator.Calculate(frames, out);
  EXPECT_EQ(calculator.GetStatus().GetCode(), StatusCode::kNoValidResult);
  EXPECT_EQ(calculator.GetStatus().GetFile(), "Psi\\Corvane13");
  EXPECT_EQ(out.CountValid(), 0);

  // The algorithm keeps no failure from the last run: a fresh calculator with it succeeds.
  FillStack(frames, 90.0, 120.0, 90.0);
  CorvaneCalculator again;
  again.SetAlgorithm(&algorithm);
  again.Calculate(frames, out);
  EXPECT_TRUE(again.GetStatus().IsOk()) << again.GetStatus().GetPrintString();
  EXPECT_EQ(out.CountValid(), 6 * 7);
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

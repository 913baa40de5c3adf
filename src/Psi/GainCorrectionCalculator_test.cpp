#include "Psi/GainCorrectionCalculator.h"

#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Psi/Convert20.h"
#include "Psi/GainCorrectionPmi.h"
#include "Psi/GainCorrectionSinPsi.h"
#include "Synthetic/SyntheticPsi.h"
#include "Testing/PhaseShifterCases.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {
namespace {

using Analysis::Core::FrameBuffer;
using Analysis::Core::RegionIdMatrix2D;
using Analysis::Core::Window2D;
namespace StatusCode = Analysis::Core::StatusCode;

constexpr double kNoData = Analysis::Core::kNoDataDouble;

// Runs the calculator (threads 0: multiple threads not allowed), expects `expectedCode` and returns
// the gain correction.
double RunGain(GainCorrection& algorithm, FrameBuffer& frames, int threads = 1,
               unsigned expectedCode = StatusCode::kSuccess, double minimumModulation = 15.0) {
  GainCorrectionCalculator calculator;
  calculator.SetAlgorithm(&algorithm);
  calculator.SetMinimumModulation(minimumModulation);
  calculator.SetAllowMultipleThreads(threads != 0);
  calculator.SetNumberOfThreads(threads);
  calculator.Calculate(frames);
  EXPECT_EQ(calculator.GetStatus().GetCode(), expectedCode) << calculator.GetStatus().GetPrintString();
  return calculator.GetGainCorrection();
}

// Gives every pixel p the seven samples J(p)[0..6]: the frames of a 7-frame stack, or the even frames
// of a 13-frame stack, whose odd frames, which the estimate does not read, are clipped.
template <typename Samples>
bool FillSevenSamples(FrameBuffer& frames, Samples J) {
  const bool pairs = frames.GetNumberOfFrames() == 13;
  return Testing::FillStackBySample(frames, [&](int p, int k) {
    return !pairs ? J(p)[k] : k % 2 == 0 ? J(p)[k / 2] : frames.GetMaxValue();
  });
}

// ----------------------------------------------------------------------------------------------
// Worked pixels of the 7-sample estimate: a = J2 - J4, c = J1 - 2 J3 + J5; |2c| < |4a| gives
// r = 256 (J1 - J5) / (2a), otherwise r = 256 (J0 - J2 - J4 + J6) / (2c), truncated towards zero.
// A single contributing pixel gives the gain r / 316. Where both ratios exist the rows make them
// differ, so each comparison is pinned.

struct PmiPixel {
  const char* what;
  int J[7];
  int r;                            // kSkipped: the pixel must not contribute
  double minimumModulation = 15.0;  // percent; of a saturation level of 240 the modulation must exceed 36
};
constexpr int kSkipped = 1000;

const PmiPixel kPmiPixels[] = {
    {"|2c| < |4a|: the first ratio (the second gives 25)", {100, 130, 150, 100, 100, 80, 152}, 128},
    {"|2c| > |4a|: the second ratio (the first gives 0)", {100, 150, 110, 100, 100, 150, 160}, 64},
    {"|2c| = |4a| takes the second ratio (the first gives 0)", {100, 150, 125, 125, 100, 150, 150}, 64},
    {"|a| < |c| < 2|a| takes the first ratio (the second gives 32)", {100, 160, 140, 120, 100, 140, 155}, 64},
    {"a < 0 < c: the first ratio, -76.8 truncated towards zero", {130, 130, 100, 100, 150, 100, 132}, -76},
    {"r = 256 is kept", {100, 220, 200, 120, 100, 20, 100}, 256},
    {"r = 257 is not", {100, 220, 200, 120, 100, 19, 100}, kSkipped},
    {"r = -256 is kept", {100, 20, 200, 120, 100, 220, 100}, -256},
    {"r = -257 is not", {100, 19, 200, 120, 100, 220, 100}, kSkipped},
    {"J6 at the saturation level", {100, 130, 150, 100, 100, 80, 240}, kSkipped},
    {"modulation 36 is not above the threshold", {144, 130, 150, 100, 100, 80, 152}, kSkipped},
    {"modulation 37 is", {143, 130, 150, 100, 100, 80, 152}, 128},
    {"J0 + J1 + J2 + J3 = 14 is too dark", {0, 0, 7, 7, 0, 14, 0}, kSkipped, 0.0},
    {"J0 + J1 + J2 + J3 = 15 is not", {0, 0, 7, 8, 0, 14, 0}, -256, 0.0},
};

TEST(GainCorrectionPmiTest, WorkedPixelsContributeTheirRatioOrNothing) {
  for (const int frameCount : {7, 13}) {
    for (const PmiPixel& row : kPmiPixels) {
      FrameBuffer frames;
      ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 1, 1), frameCount, FrameBuffer::kRes8Bit));
      frames.SetMaxValue(240);
      ASSERT_TRUE(FillSevenSamples(frames, [&](int) { return row.J; }));
      GainCorrectionPmi algorithm;
      const bool skipped = row.r == kSkipped;
      const double gain =
          RunGain(algorithm, frames, 1, skipped ? StatusCode::kNoValidResult : StatusCode::kSuccess,
                  row.minimumModulation);
      EXPECT_EQ(gain, skipped ? kNoData : row.r / 316.0) << frameCount << " frames: " << row.what;
    }
  }
}

TEST(GainCorrectionPmiTest, IntegerMeanComesBeforeTheDivisionBy316) {
  // Pixel 0 gives r = 100, pixel 1 r = 101 (2a = 256, so r = J1 - J5). Their integer mean is 100.
  const int J[2][7] = {{100, 150, 200, 100, 72, 50, 120}, {100, 150, 200, 100, 72, 49, 120}};
  for (const int frameCount : {7, 13}) {
    for (const int threads : {1, 2}) {
      FrameBuffer frames;
      ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 1, 2), frameCount, FrameBuffer::kRes8Bit));
      ASSERT_TRUE(FillSevenSamples(frames, [&](int p) { return J[p]; }));
      GainCorrectionPmi algorithm;
      // A second run of the same object starts from empty sums.
      for (int run = 0; run < 2; ++run) {
        EXPECT_EQ(RunGain(algorithm, frames, threads), 100 / 316.0) << frameCount << " frames";
        EXPECT_EQ(algorithm.GetContributingPixelCount(), 2);
      }
    }
  }
}

// 2100 x 4096 pixels (a 4k camera's 8.6 million), each with r = 256: a 32-bit step sum would pass
// 2^31 after 8.4 million of them and turn the gain negative. One thread, so that no per-thread split
// hides it.
TEST(GainCorrectionPmiTest, StepSumOfALargeCameraDoesNotWrap) {
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 2100, 4096), 7, FrameBuffer::kRes8Bit));
  const int J[7] = {100, 220, 200, 120, 100, 20, 100};
  ASSERT_TRUE(FillSevenSamples(frames, [&](int) { return J; }));
  GainCorrectionPmi algorithm;
  EXPECT_EQ(RunGain(algorithm, frames, 0), 256 / 316.0);
  EXPECT_EQ(algorithm.GetContributingPixelCount(), 2100 * 4096);
}

// ----------------------------------------------------------------------------------------------
// A pixel of the sinusoidal 20-frame estimate, computed here from the weight tables: N and D as
// weighted sums of the frames, Qc and Qs as weighted sums of the pair sums S_k = I_k + I_(19-k)
// (Qc weights the pairs symmetrically about the middle, Qs antisymmetrically), each pixel's term
// (cos(phi) Qc + sin(phi) Qs) / (sqrt(N^2 + D^2) + 1).

double SinPsiContribution(const std::vector<int>& I) {
  static const double kQc[10] = {0.1779,  0.0247,  -0.1054, -0.0898, -0.0074,
                                 -0.0074, -0.0898, -0.1054, 0.0247,  0.1779};
  static const double kQs[10] = {-0.0596, 0.1475,  0.1885,  0.0185,  -0.041,
                                 0.041,   -0.0185, -0.1885, -0.1475, 0.0596};
  double N = 0.0, D = 0.0, qc = 0.0, qs = 0.0;
  for (std::size_t k = 0; k < 20; ++k) {
    N += Convert20::kNumeratorWeights[k] * I[k];
    D += Convert20::kDenominatorWeights[k] * I[k];
  }
  for (std::size_t k = 0; k < 10; ++k) {
    qc += kQc[k] * (I[k] + I[19 - k]);
    qs += kQs[k] * (I[k] + I[19 - k]);
  }
  const double phi = std::atan2(N, D);
  return (std::cos(phi) * qc + std::sin(phi) * qs) / (std::hypot(N, D) + 1.0);
}

// A pixel of a shifter 5 % off, as an 8-bit camera rounds it; a clipped frame among the first twenty
// leaves it out, later frames are not read. One algorithm object serves every run.
TEST(GainCorrectionSinPsiTest, AGoldenPixelAndOnlyItsFirstTwentyFramesCount) {
  std::vector<int> golden;
  for (const double v : Testing::FringeSamples({120.0, 90.0, 0.7}, Testing::ShiftsFor20(0.05)))
    golden.push_back(static_cast<int>(std::lround(v)));
  const double expected = -SinPsiContribution(golden) / 4.18;
  ASSERT_GT(std::abs(expected), 0.01);

  struct Case {
    const char* what;
    int frames;
    int clipped;  // the frame set to 255 (20: frames 20 to 24), -1: none
  };
  GainCorrectionSinPsi algorithm;
  for (const Case& c : {Case{"20 frames", 20, -1}, Case{"frame 0 clipped", 20, 0},
                        Case{"frame 19 clipped", 20, 19}, Case{"frames 20-24 clipped", 25, 20}}) {
    FrameBuffer frames;
    ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 1, 1), c.frames, FrameBuffer::kRes8Bit));
    ASSERT_TRUE(Testing::FillStackBySample(frames, [&](int, int k) {
      return k == c.clipped || (c.clipped >= 20 && k >= 20) ? 255 : golden[static_cast<std::size_t>(k % 20)];
    }));
    const bool contributes = c.clipped < 0 || c.clipped >= 20;
    const double gain =
        RunGain(algorithm, frames, 1, contributes ? StatusCode::kSuccess : StatusCode::kNoValidResult);
    EXPECT_NEAR(gain, contributes ? expected : kNoData, 1e-12 * std::abs(expected)) << c.what;
  }
}

// ----------------------------------------------------------------------------------------------
// Physics: the gain correction follows the step error in sign and size.

// The gain correction of a 16-bit stack whose shifter moves 1 + gainError times the nominal steps.
double MeasureGain(GainCorrection& algorithm, int frameCount, double gainError) {
  FrameBuffer frames;
  EXPECT_TRUE(frames.Allocate(Window2D(0, 0, 64, 96), frameCount, FrameBuffer::kRes16Bit));
  Testing::FillTiltedStack(frames, gainError, 30000.0, 25000.0);
  return RunGain(algorithm, frames, 2);
}

TEST(GainFollowsErrorTest, SevenSampleEstimateIs256CosOfTheStepOver316) {
  // Each pixel's r = 256 cos(alpha) with alpha = 90 deg (1 + error), truncated towards zero (less
  // than 1), and the integer mean truncated again (less than 1): 316 x gain lies within 2 of
  // 256 cos(alpha), on the side of zero. Rounding 16-bit samples of amplitude 25000 adds less than
  // 0.05.
  GainCorrectionPmi algorithm;
  for (const int frameCount : {7, 13}) {
    for (const double error : {-0.2, -0.1, -0.05, -0.02, 0.0, 0.02, 0.05, 0.1, 0.2}) {
      const double truth = 256.0 * std::cos(std::numbers::pi / 2 * (1.0 + error));
      const double measured = 316.0 * MeasureGain(algorithm, frameCount, error);
      EXPECT_LE(std::abs(measured), std::abs(truth) + 0.05) << frameCount << " frames, error " << error;
      EXPECT_GT(std::abs(measured), std::abs(truth) - 2.05) << frameCount << " frames, error " << error;
      EXPECT_TRUE(error == 0.0 || measured * error < 0.0) << frameCount << " frames, error " << error;
    }
  }
}

TEST(GainFollowsErrorTest, SinusoidalEstimateIsProportionalToTheStepError) {
  // The sinusoidal estimate has no closed form here; what it must show is proportionality, with the
  // sign opposite to the error. Its coefficients, given to three or four digits, leave an offset of
  // about 1e-3 at the nominal gain; beyond that the response per unit of error stays within 10 % of
  // its small-error value over +-10 % (the response curves slightly, as the sinusoid's harmonics do).
  GainCorrectionSinPsi algorithm;
  const double offset = MeasureGain(algorithm, 20, 0.0);
  EXPECT_LT(std::abs(offset), 3e-3);
  const double slope = (MeasureGain(algorithm, 20, 0.02) - MeasureGain(algorithm, 20, -0.02)) / 0.04;
  EXPECT_LT(slope, -0.5);
  for (const double error : {-0.1, -0.05, 0.05, 0.1}) {
    EXPECT_NEAR((MeasureGain(algorithm, 20, error) - offset) / error, slope, 0.1 * std::abs(slope)) << error;
  }
}

// ----------------------------------------------------------------------------------------------
// The walk, shared with the Corvane calculator (whose tests check it pixel by pixel), with the
// calculator's own mask, stride and threads: on a stack where every pixel contributes, exactly the
// pixels it must visit count.

TEST(GainCorrectionCalculatorTest, MaskStrideAndThreadsChooseThePixelsThatCount) {
  const Window2D frameWindow(5, 7, 19, 27);  // camera coordinates, as the mask's
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(frameWindow, 7, FrameBuffer::kRes8Bit));
  const int J[7] = {100, 220, 200, 120, 100, 20, 100};  // r = 256
  ASSERT_TRUE(FillSevenSamples(frames, [&](int) { return J; }));
  RegionIdMatrix2D mask = Testing::MakeWalkMask(Testing::WalkMask::kOtherWindow, frameWindow);
  GainCorrectionPmi algorithm;
  GainCorrectionCalculator calculator;
  calculator.SetAlgorithm(&algorithm);
  calculator.SetScanPeriod(5);
  calculator.SetNumberOfThreads(3);
  calculator.Calculate(frames, &mask);
  ASSERT_TRUE(calculator.GetStatus().IsOk()) << calculator.GetStatus().GetPrintString();
  EXPECT_EQ(algorithm.GetContributingPixelCount(),
            static_cast<std::int64_t>(
                Testing::ExpectedWalk(frameWindow, 5, &mask, calculator.GetNumberOfThreads()).size()));
}

// ----------------------------------------------------------------------------------------------
// Statuses.

TEST(GainCorrectionCalculatorTest, FailuresLeaveTheNoDataGain) {
  struct Case {
    int frames;
    int algorithm;  // 1: GainCorrectionPmi, 2: GainCorrectionSinPsi, 0: none
    double amplitude;
    unsigned code;
  };
  std::vector<Case> cases = {{7, 0, 90.0, StatusCode::kCallFailed}};
  for (const int frames : {6, 8, 12, 14, 20})
    cases.push_back({frames, 1, 90.0, StatusCode::kCallFailed});
  for (const int frames : {7, 13, 19})
    cases.push_back({frames, 2, 90.0, StatusCode::kCallFailed});
  // Modulation far below 15 % of 255: no pixel contributes.
  for (const int frames : {7, 13, 20})
    cases.push_back({frames, frames == 20 ? 2 : 1, 3.0, StatusCode::kNoValidResult});
  static const char* const kSources[] = {"Psi\\GainCorrectionCalculator", "Psi\\GainCorrectionPmi",
                                         "Psi\\GainCorrectionSinPsi"};
  for (const Case& c : cases) {
    FrameBuffer frames;
    ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 8, 9), c.frames, FrameBuffer::kRes8Bit));
    Testing::FillTiltedStack(frames, 0.05, 120.0, c.amplitude);
    GainCorrectionPmi pmi;
    GainCorrectionSinPsi sinPsi;
    GainCorrectionCalculator calculator;
    if (c.algorithm != 0)
      calculator.SetAlgorithm(c.algorithm == 1 ? static_cast<GainCorrection*>(&pmi) : &sinPsi);
    calculator.Calculate(frames);
    EXPECT_EQ(calculator.GetStatus().GetCode(), c.code) << c.frames << " frames";
    EXPECT_EQ(calculator.GetStatus().GetFile(), kSources[c.algorithm]) << c.frames << " frames";
    EXPECT_EQ(calculator.GetGainCorrection(), kNoData) << c.frames << " frames";
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

#include "Psi/CorvaneCalculator.h"

#include <cmath>
#include <cstring>
#include <functional>
#include <numbers>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "Psi/Corvane13.h"
#include "Psi/Corvane7.h"
#include "Testing/SeededRandom.h"
#include "Testing/SyntheticPsi.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {
namespace {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::FrameBuffer;
using Analysis::Core::RegionIdMatrix2D;
using Analysis::Core::Window2D;
namespace StatusCode = Analysis::Core::StatusCode;

constexpr double kNoData = Analysis::Core::kNoDataDouble;
constexpr double kDeg = std::numbers::pi / 180.0;
// Written into the map before a run: a pixel still holding it was not visited.
constexpr double kUntouched = -12345.0;

// Shifts of a stack whose checked step is `stepRad`: between frames for the 7-frame check, between
// frame pairs (so half of it between frames) for the 13-frame check.
std::vector<double> ShiftsForStep(int frames, double stepRad) {
  const double perFrame = frames == 13 ? stepRad / 2.0 : stepRad;
  std::vector<double> shifts(static_cast<std::size_t>(frames));
  for (int k = 0; k < frames; ++k)
    shifts[static_cast<std::size_t>(k)] = perFrame * k;
  return shifts;
}

// A tilted, slightly curved surface: every phase from 0 to 2 pi occurs many times, so both
// branches of the ratio and all signs of the differences are exercised.
double SurfacePhase(int row, int col) {
  return 0.37 * col + 0.23 * row + 0.004 * row * col;
}

void FillStack(FrameBuffer& frames, const std::vector<double>& shifts, double bias, double amplitude,
               double noiseSigma = 0.0, Testing::SeededRandom* random = nullptr) {
  Testing::FillPsiStack(
      frames, shifts,
      [&](int r, int c) {
        return Testing::PixelFringe{bias, amplitude, SurfacePhase(r, c)};
      },
      noiseSigma, random);
}

void RunCheck(CorvaneAlgorithm& algorithm, FrameBuffer& frames, DoubleMatrix2D& out, int threads = 1,
              int period = 1, RegionIdMatrix2D* mask = nullptr) {
  CorvaneCalculator calculator;
  calculator.SetAlgorithm(&algorithm);
  calculator.SetScanPeriod(period);
  if (threads == 0) {
    calculator.SetAllowMultipleThreads(false);
  } else {
    calculator.SetNumberOfThreads(threads);
  }
  calculator.Calculate(frames, mask, out);
  ASSERT_TRUE(calculator.GetStatus().IsOk()) << calculator.GetStatus().GetPrintString();
}

// ----------------------------------------------------------------------------------------------
// The arithmetic of single pixels: the worked cases every implementation must reproduce.

TEST(CorvanePixelTest, QuarterPeriodPixelTakesTheSecondBranchAndGivesZero) {
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 1, 3), 7, FrameBuffer::kRes8Bit));
  DoubleMatrix2D out(1, 3);
  out.SetAll(kUntouched);
  Corvane7 algorithm;
  algorithm.SetFrameBuffer(&frames);
  algorithm.SetCorvaneMatrix(&out);
  algorithm.SetMinimumModulation(15.0);
  algorithm.Intialize(1);
  ASSERT_TRUE(algorithm.GetStatus().IsOk());
  // a = 100, b = 100: |b| < |a| fails, so r = (I1 - I4) / b = 1 and the step value is 0.
  const int quarter[7] = {100, 200, 100, 0, 100, 200, 100};
  algorithm.ProcessPixel(0, 0, quarter);
  EXPECT_EQ(out(0, 0), 0.0);
  // a = b = 0, so |b| < |a| fails and the chosen denominator b is zero: no data although the pixel
  // is well modulated.
  const int flatMiddle[7] = {0, 150, 150, 150, 60, 0, 0};
  algorithm.ProcessPixel(0, 1, flatMiddle);
  EXPECT_EQ(out(0, 1), kNoData);
  // The first branch: a = 100, b = 20: r = (I0 - I3) / a = 150 / 100 and the value 128 x 0.5.
  const unsigned char firstBranch[7] = {200, 150, 50, 50, 30, 0, 0};
  algorithm.ProcessPixel(0, 2, firstBranch);
  EXPECT_EQ(out(0, 2), 64.0);
  algorithm.PostProcess();
  EXPECT_TRUE(algorithm.GetStatus().IsOk());
  EXPECT_EQ(algorithm.GetValidPixelCount(), 2);
}

// ----------------------------------------------------------------------------------------------
// Physics: a stack with a known step alpha gives 256 cos(alpha).

struct StepCase {
  int frames;
  FrameBuffer::ElementRes resolution;
  double stepDeg;
};

void PrintTo(const StepCase& c, std::ostream* os) {
  *os << c.frames << " frames, " << 8 * static_cast<int>(c.resolution) << " bit, step " << c.stepDeg
      << " deg";
}

class CorvaneStepTest : public ::testing::TestWithParam<StepCase> {};

TEST_P(CorvaneStepTest, StepValuesAre256CosOfTheStep) {
  const StepCase& param = GetParam();
  const int rows = 96, cols = 128;
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, rows, cols), param.frames, param.resolution));
  const bool eightBit = param.resolution == FrameBuffer::kRes8Bit;
  const double amplitude = eightBit ? 100.0 : 25000.0;
  FillStack(frames, ShiftsForStep(param.frames, param.stepDeg * kDeg), eightBit ? 127.0 : 32000.0, amplitude);

  Corvane7 seven;
  Corvane13 thirteen;
  CorvaneAlgorithm& algorithm = param.frames == 7 ? static_cast<CorvaneAlgorithm&>(seven) : thirteen;
  DoubleMatrix2D out(rows, cols);
  RunCheck(algorithm, frames, out, 3);

  // Rounding each sample to an integer moves a frame difference by at most 1 count. The larger of
  // the two differences is at least 2 b sin^2(alpha / 2) (b the frame amplitude), so the ratio
  // r = 1 + 2 cos(alpha) moves by at most (1 + |r|) / (2 b sin^2(alpha / 2)) <= 3 / (2 b sin^2) and
  // the step value by 128 times that. Pair sums have twice the rounding and an amplitude of
  // 2 b cos(alpha / 4) >= 1.73 b, 15 % more error, still within the 4 / (2 b sin^2) used here:
  // 10 step units per pixel at 8 bits and 60 degrees (b = 100), 0.04 at 16 bits (b = 25000). The
  // errors of neighbouring pixels are unrelated, so the mean over the 12288 pixels stays within
  // 5 % of that bound.
  const double truth = 256.0 * std::cos(param.stepDeg * kDeg);
  const double sinHalf = std::sin(param.stepDeg * kDeg / 2.0);
  const double pixelBound = 128.0 * 4.0 / (2.0 * amplitude * sinHalf * sinHalf);
  double sum = 0.0;
  int valid = 0;
  for (int i = 0; i < rows * cols; ++i) {
    if (out.At(i) == kNoData) continue;
    ++valid;
    sum += out.At(i);
    ASSERT_NEAR(out.At(i), truth, pixelBound) << "pixel " << i;
  }
  // Ideal fringes well above the threshold: no pixel may be lost (except where rounding pushes a
  // ratio at the edge of [-1, 3], which these steps stay far from).
  EXPECT_EQ(valid, rows * cols);
  EXPECT_NEAR(sum / valid, truth, 0.05 * pixelBound);
}

std::vector<StepCase> StepCases() {
  std::vector<StepCase> cases;
  for (const int frames : {7, 13}) {
    for (const auto resolution : {FrameBuffer::kRes8Bit, FrameBuffer::kRes16Bit}) {
      // The nominal quarter period, +-5 % and +-10 % gain, and steps far from it.
      for (const double step : {90.0, 85.5, 94.5, 81.0, 99.0, 60.0, 70.0, 120.0}) {
        cases.push_back({frames, resolution, step});
      }
    }
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(BothAlgorithms, CorvaneStepTest, ::testing::ValuesIn(StepCases()),
                         [](const auto& info) {
                           const StepCase& c = info.param;
                           return std::string("F") + std::to_string(c.frames) + "_" +
                                  std::to_string(8 * static_cast<int>(c.resolution)) + "bit_" +
                                  std::to_string(static_cast<int>(c.stepDeg * 10)) + "decideg";
                         });

TEST(CorvaneCalculatorTest, NoisyQuarterPeriodStackScattersAroundZero) {
  Testing::SeededRandom random(7001);
  SCOPED_TRACE(random.Describe());
  const int rows = 128, cols = 128;
  for (const int frameCount : {7, 13}) {
    FrameBuffer frames;
    ASSERT_TRUE(frames.Allocate(Window2D(0, 0, rows, cols), frameCount, FrameBuffer::kRes8Bit));
    FillStack(frames, ShiftsForStep(frameCount, std::numbers::pi / 2), 120.0, 90.0, 1.5, &random);
    Corvane7 seven;
    Corvane13 thirteen;
    CorvaneAlgorithm& algorithm = frameCount == 7 ? static_cast<CorvaneAlgorithm&>(seven) : thirteen;
    DoubleMatrix2D out(rows, cols);
    RunCheck(algorithm, frames, out, 2);
    double sum = 0.0;
    int valid = 0;
    for (int i = 0; i < rows * cols; ++i) {
      if (out.At(i) == kNoData) continue;
      sum += out.At(i);
      ++valid;
    }
    // Noise of 1.5 counts on differences of about 2 x 90 sin(45 deg) = 127 counts (pairs: twice
    // that with sqrt(2) the noise) scatters single values by about 128 x 2 x 1.5 sqrt(2) / 127 = 4.3,
    // up to twice that where the chosen denominator is near its minimum of 90 counts; the mean of
    // 16384 pixels then has a standard error of about 0.05, and 0.25 is five of them.
    EXPECT_GT(valid, rows * cols * 95 / 100) << frameCount;
    EXPECT_NEAR(sum / valid, 0.0, 0.25) << frameCount;
  }
}

// ----------------------------------------------------------------------------------------------
// Which pixels are rejected.

TEST(CorvaneCalculatorTest, SaturatedAndWeakPixelsAreNoDataButUnreadFramesDoNotMatter) {
  const int rows = 12, cols = 30;
  for (const int frameCount : {7, 13}) {
    FrameBuffer frames;
    ASSERT_TRUE(frames.Allocate(Window2D(0, 0, rows, cols), frameCount, FrameBuffer::kRes8Bit));
    // Columns 0-9 well modulated; 10-19 modulated by 10 counts (below 15 % of 255); 20-29 well
    // modulated with frame 5 clipped in rows 0-3 and the last frame clipped in rows 4-7.
    Testing::FillPsiStack(frames, ShiftsForStep(frameCount, std::numbers::pi / 2), [](int r, int c) {
      return Testing::PixelFringe{120.0, c >= 10 && c < 20 ? 5.0 : 80.0, SurfacePhase(r, c)};
    });
    const int last = frameCount - 1;
    for (int r = 0; r < 8; ++r) {
      for (int c = 20; c < 30; ++c)
        static_cast<unsigned char*>(frames.GetFrameData(r < 4 ? 5 : last))[r * cols + c] = 255;
    }
    Corvane7 seven;
    Corvane13 thirteen;
    CorvaneAlgorithm& algorithm = frameCount == 7 ? static_cast<CorvaneAlgorithm&>(seven) : thirteen;
    DoubleMatrix2D out(rows, cols);
    RunCheck(algorithm, frames, out, 2);
    for (int r = 0; r < rows; ++r) {
      for (int c = 0; c < cols; ++c) {
        // Corvane7 reads all 7 frames' saturation; Corvane13 only the 10 frames it sums, so its
        // clipped 13th frame leaves the pixel valid.
        bool expectValid = c < 10 || c >= 20;
        if (c >= 20 && r < 4) expectValid = false;
        if (c >= 20 && r >= 4 && r < 8) expectValid = frameCount == 13;
        EXPECT_EQ(out(r, c) != kNoData, expectValid) << frameCount << " frames, pixel " << r << "," << c;
        EXPECT_NE(out(r, c), kUntouched);
      }
    }
  }
}

TEST(CorvaneCalculatorTest, MinimumModulationIsPercentOfTheSaturationLevel) {
  // 16-bit frames of a 12-bit camera (saturation 4095): |I0 - I2| + |I1 - I3| of a quarter-period
  // pixel is 2 b (|cos| + |sin|) of its phase, at least 2 b. With b = 100 that is 200 at least and
  // at most 283, so the pixel passes 4 % (163.8) and fails 7.5 % (307.1) everywhere.
  const int rows = 8, cols = 16;
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, rows, cols), 7, FrameBuffer::kRes16Bit));
  frames.SetMaxValue(4095);
  FillStack(frames, ShiftsForStep(7, std::numbers::pi / 2), 2000.0, 100.0);
  Corvane7 algorithm;
  DoubleMatrix2D out(rows, cols);
  CorvaneCalculator calculator;
  calculator.SetAlgorithm(&algorithm);
  calculator.SetMinimumModulation(4.0);
  calculator.Calculate(frames, out);
  EXPECT_TRUE(calculator.GetStatus().IsOk());
  EXPECT_EQ(out.CountValid(), rows * cols);
  calculator.SetMinimumModulation(7.5);
  calculator.Calculate(frames, out);
  EXPECT_EQ(calculator.GetStatus().GetCode(), StatusCode::kNoValidResult);
  EXPECT_EQ(out.CountValid(), 0);
}

// ----------------------------------------------------------------------------------------------
// The pixel walk: threads, stride and masks visit exactly the pixels they should, and the map does
// not depend on the number of threads.

enum class MaskKind { kNone, kSameWindow, kShifted, kNarrowed };

struct WalkCase {
  int threads;  // 0: multiple threads not allowed
  int period;
  MaskKind mask;
};

void PrintTo(const WalkCase& c, std::ostream* os) {
  *os << "threads " << c.threads << ", period " << c.period << ", mask " << static_cast<int>(c.mask);
}

// The frame window sits at (10, 20) in the camera; masks are given in camera coordinates.
const Window2D kFrameWindow(10, 20, 23, 31);

// A region mask in which roughly two pixels in three hold a region id, in a pattern unrelated to
// the stride and the frame geometry.
RegionIdMatrix2D MakeMask(MaskKind kind) {
  RegionIdMatrix2D mask;
  switch (kind) {
    case MaskKind::kNone:
    case MaskKind::kSameWindow:
      mask.Resize(kFrameWindow);
      break;
    // Overlaps the frame window's lower right part only.
    case MaskKind::kShifted:
      mask.Resize(Window2D(18, 33, 30, 40));
      break;
    // The frame window's matrix, narrowed to an inner window.
    case MaskKind::kNarrowed:
      mask.Resize(kFrameWindow);
      break;
  }
  for (int r = 0; r < mask.GetRows(); ++r) {
    for (int c = 0; c < mask.GetColumns(); ++c) {
      mask(r, c) = (r * 7 + c * 3) % 5 < 3 ? (r + c) % 4 : RegionIdMatrix2D::NoData();
    }
  }
  if (kind == MaskKind::kNarrowed) mask.SetWindow(Window2D(13, 25, 10, 12));
  return mask;
}

// Independent statement of which pixel takes part: on the stride grid, and inside the mask's window
// on a valid id at the same camera position.
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
  if (!mask->GetWindow().Contains(row, col)) return false;
  return RegionIdMatrix2D::IsValid((*mask)(row - mask->GetStartRow(), col - mask->GetStartCol()));
}

class CorvaneWalkTest : public ::testing::TestWithParam<WalkCase> {};

TEST_P(CorvaneWalkTest, VisitsExactlyTheStrideAndMaskPixelsWithTheSameValues) {
  const WalkCase& param = GetParam();
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(kFrameWindow, 7, FrameBuffer::kRes8Bit));
  FillStack(frames, ShiftsForStep(7, 80.0 * kDeg), 120.0, 90.0);
  RegionIdMatrix2D maskStorage = MakeMask(param.mask);
  RegionIdMatrix2D* mask = param.mask == MaskKind::kNone ? nullptr : &maskStorage;
  const int pixels = kFrameWindow.GetRows() * kFrameWindow.GetCols();

  // The reference: one thread, every pixel.
  Corvane7 referenceAlgorithm;
  DoubleMatrix2D reference(kFrameWindow.GetRows(), kFrameWindow.GetCols());
  RunCheck(referenceAlgorithm, frames, reference, 0);

  Corvane7 algorithm;
  DoubleMatrix2D out(kFrameWindow.GetRows(), kFrameWindow.GetCols());
  out.SetAll(kUntouched);
  RunCheck(algorithm, frames, out, param.threads, param.period, mask);
  int visited = 0;
  for (int p = 0; p < pixels; ++p) {
    const bool expected = ShouldVisit(p, param.period, mask, param.threads == 0 ? 1 : param.threads);
    ASSERT_EQ(out.At(p) != kUntouched, expected) << "pixel " << p;
    if (expected) {
      ++visited;
      // Bit for bit the value of the full single-thread run.
      ASSERT_EQ(std::memcmp(&out.At(p), &reference.At(p), sizeof(double)), 0) << "pixel " << p;
    }
  }
  EXPECT_GT(visited, 0);
  EXPECT_EQ(algorithm.GetValidPixelCount(), visited) << "every visited pixel of this stack is valid";
}

std::vector<WalkCase> WalkCases() {
  std::vector<WalkCase> cases;
  for (const int threads : {0, 1, 2, 3, 8}) {
    for (const int period : {1, 3, 7}) {
      for (const MaskKind mask :
           {MaskKind::kNone, MaskKind::kSameWindow, MaskKind::kShifted, MaskKind::kNarrowed}) {
        cases.push_back({threads, period, mask});
      }
    }
  }
  return cases;
}

std::string WalkCaseName(const ::testing::TestParamInfo<WalkCase>& info) {
  static const char* const kMaskNames[] = {"NoMask", "SameWindow", "Shifted", "Narrowed"};
  const WalkCase& c = info.param;
  return std::string("T") + std::to_string(c.threads) + "_P" + std::to_string(c.period) + "_" +
         kMaskNames[static_cast<int>(c.mask)];
}

INSTANTIATE_TEST_SUITE_P(ThreadsStridesMasks, CorvaneWalkTest, ::testing::ValuesIn(WalkCases()),
                         WalkCaseName);

TEST(CorvaneCalculatorTest, ScanPeriodThreeOnTenPixelsVisitsZeroThreeSixNine) {
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 1, 10), 7, FrameBuffer::kRes8Bit));
  FillStack(frames, ShiftsForStep(7, std::numbers::pi / 2), 120.0, 90.0);
  Corvane7 algorithm;
  DoubleMatrix2D out(1, 10);
  out.SetAll(kUntouched);
  RunCheck(algorithm, frames, out, 1, 3);
  for (int p = 0; p < 10; ++p)
    EXPECT_EQ(out.At(p) != kUntouched, p % 3 == 0) << p;
}

// An algorithm the calculator does not know, reached through the virtual interface only.
class ForwardingAlgorithm final : public CorvaneAlgorithm {
 public:
  void SetFrameBuffer(FrameBuffer* frames) override { inner_.SetFrameBuffer(frames); }
  void SetCorvaneMatrix(DoubleMatrix2D* out) override { inner_.SetCorvaneMatrix(out); }
  void SetMinimumModulation(double percent) override { inner_.SetMinimumModulation(percent); }
  void ProcessPixel(int thread, int pixel, const int* samples) override {
    inner_.ProcessPixel(thread, pixel, samples);
  }
  void ProcessPixel(int thread, int pixel, const unsigned char* samples) override {
    inner_.ProcessPixel(thread, pixel, samples);
  }
  void Intialize(int numberOfThreads) override { inner_.Intialize(numberOfThreads); }
  void PostProcess() override { inner_.PostProcess(); }
  Analysis::Core::Status& GetStatus() override { return inner_.GetStatus(); }

 private:
  Corvane7 inner_;
};

TEST(CorvaneCalculatorTest, AnyAlgorithmThroughTheInterfaceGivesTheBuiltInResult) {
  for (const auto resolution : {FrameBuffer::kRes8Bit, FrameBuffer::kRes16Bit, FrameBuffer::kRes32Bit}) {
    FrameBuffer frames;
    ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 40, 50), 7, resolution));
    // Fringes over most of each sample type's range (up to 7.5e8 counts for 32-bit samples).
    const double range = frames.GetMaxValue();
    FillStack(frames, ShiftsForStep(7, 75.0 * kDeg), 0.45 * range, 0.35 * range);
    Corvane7 builtIn;
    ForwardingAlgorithm forwarded;
    DoubleMatrix2D a(40, 50), b(40, 50);
    RunCheck(builtIn, frames, a, 3);
    RunCheck(forwarded, frames, b, 3);
    for (int i = 0; i < 40 * 50; ++i)
      ASSERT_EQ(a.At(i), b.At(i)) << i;
  }
}

// ----------------------------------------------------------------------------------------------
// Statuses.

TEST(CorvaneCalculatorTest, MissingAlgorithmOrWrongFrameCountIsCode6AndWritesNothing) {
  FrameBuffer eight;
  ASSERT_TRUE(eight.Allocate(Window2D(0, 0, 4, 5), 8, FrameBuffer::kRes8Bit));
  FillStack(eight, ShiftsForStep(8, std::numbers::pi / 2), 120.0, 90.0);
  DoubleMatrix2D out(4, 5);
  out.SetAll(kUntouched);

  CorvaneCalculator calculator;
  calculator.Calculate(eight, out);
  EXPECT_EQ(calculator.GetStatus().GetCode(), StatusCode::kCallFailed);
  EXPECT_EQ(calculator.GetStatus().GetFile(), "Psi\\CorvaneCalculator");

  for (const int frameCount : {8, 6, 12, 14}) {
    FrameBuffer frames;
    ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 4, 5), frameCount, FrameBuffer::kRes8Bit));
    Corvane7 seven;
    Corvane13 thirteen;
    for (CorvaneAlgorithm* algorithm :
         {static_cast<CorvaneAlgorithm*>(&seven), static_cast<CorvaneAlgorithm*>(&thirteen)}) {
      CorvaneCalculator wrongCount;
      wrongCount.SetAlgorithm(algorithm);
      wrongCount.Calculate(frames, out);
      EXPECT_EQ(wrongCount.GetStatus().GetCode(), StatusCode::kCallFailed) << frameCount;
      EXPECT_EQ(wrongCount.GetStatus().GetFile(), algorithm == &seven ? "Psi\\Corvane7" : "Psi\\Corvane13");
    }
  }
  for (int i = 0; i < 20; ++i)
    EXPECT_EQ(out.At(i), kUntouched);

  Corvane7 noFrames;
  noFrames.Intialize(1);
  EXPECT_EQ(noFrames.GetStatus().GetCode(), StatusCode::kCallFailed);
}

TEST(CorvaneCalculatorTest, NoValidPixelIsCode1FromTheAlgorithm) {
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 6, 7), 13, FrameBuffer::kRes8Bit));
  FillStack(frames, ShiftsForStep(13, std::numbers::pi / 2), 120.0, 3.0);  // far below 15 %
  Corvane13 algorithm;
  CorvaneCalculator calculator;
  calculator.SetAlgorithm(&algorithm);
  DoubleMatrix2D out(6, 7);
  calculator.Calculate(frames, out);
  EXPECT_EQ(calculator.GetStatus().GetCode(), StatusCode::kNoValidResult);
  EXPECT_EQ(calculator.GetStatus().GetFile(), "Psi\\Corvane13");
  EXPECT_EQ(out.CountValid(), 0);

  // A mask without a valid pixel, or one that does not overlap the frames, visits nothing: code 1,
  // even for a well-modulated stack.
  FillStack(frames, ShiftsForStep(13, std::numbers::pi / 2), 120.0, 90.0);
  RegionIdMatrix2D empty(6, 7);
  empty.SetAll(RegionIdMatrix2D::NoData());
  RegionIdMatrix2D elsewhere;
  elsewhere.Resize(Window2D(100, 100, 6, 7));
  elsewhere.SetAll(0);
  for (RegionIdMatrix2D* mask : {&empty, &elsewhere}) {
    CorvaneCalculator masked;
    masked.SetAlgorithm(&algorithm);
    masked.Calculate(frames, mask, out);
    EXPECT_EQ(masked.GetStatus().GetCode(), StatusCode::kNoValidResult);
  }

  // The algorithm starts every run afresh: the same object succeeds on the good stack.
  CorvaneCalculator again;
  again.SetAlgorithm(&algorithm);
  again.Calculate(frames, out);
  EXPECT_TRUE(again.GetStatus().IsOk()) << again.GetStatus().GetPrintString();
  EXPECT_EQ(out.CountValid(), 6 * 7);
}

TEST(CorvaneCalculatorTest, UnusableSettingsAndMapsAreRefusedWithAMessage) {
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 6, 7), 7, FrameBuffer::kRes8Bit));
  FillStack(frames, ShiftsForStep(7, std::numbers::pi / 2), 120.0, 90.0);
  Corvane7 algorithm;
  CorvaneCalculator calculator;
  calculator.SetAlgorithm(&algorithm);

  calculator.SetScanPeriod(0);
  DoubleMatrix2D out(6, 7);
  calculator.Calculate(frames, out);
  EXPECT_EQ(calculator.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_NE(calculator.GetStatus().GetMessage().find("scan period"), std::string::npos);

  calculator.SetScanPeriod(1);
  DoubleMatrix2D small(6, 6);
  calculator.Calculate(frames, small);
  EXPECT_EQ(calculator.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_NE(calculator.GetStatus().GetMessage().find("42 pixels"), std::string::npos)
      << calculator.GetStatus().GetMessage();

  FrameBuffer ring;
  ASSERT_TRUE(ring.Allocate(Window2D(0, 0, 6, 7), 7, FrameBuffer::kRes8Bit, 5));
  calculator.Calculate(ring, out);
  EXPECT_EQ(calculator.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

// qphase psi-check seen from a shell: exit statuses, messages, the written step map, and the real
// telescope-mirror stack of the test data.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <numbers>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "CliTestFixture.h"
#include "Testing/PhaseShifterCases.h"
#include "TiffIO.h"

namespace Quarn::Qphase {
namespace {

namespace fs = std::filesystem;

constexpr int kRows = 40, kCols = 48;

// The mean and number of the valid (non-NaN) pixels of a written step map, and its pixel count.
struct MapSummary {
  double mean = 0.0;
  int valid = 0;
  int total = 0;
};

class PsiCheckCliTest : public CliTestFixture {
 protected:
  PsiCheckCliTest() : CliTestFixture("psi-check ") {}

  // An 8-bit stack of the algorithms' nominal shifts with every shift scaled by 1 + gainError (see
  // `FillTiltedStack`), with frame `clipped` (if any) at 255 everywhere.
  std::string WriteStack(const std::string& name, int frames, double gainError, double amplitude = 90.0,
                         int clipped = -1) const {
    Core::FrameBuffer stack;
    stack.Allocate(Core::Window2D(0, 0, kRows, kCols), frames, Core::FrameBuffer::kRes8Bit);
    Testing::FillTiltedStack(stack, gainError, 120.0, amplitude);
    if (clipped >= 0) std::memset(stack.GetFrameData(clipped), 255, kRows * kCols);
    WriteTiffStack(Path(name), stack);
    return Path(name);
  }

  static MapSummary Summarise(const std::string& path) {
    Core::DoubleMatrix2D map;
    ReadFloatTiff(path, map);
    MapSummary summary;
    summary.total = static_cast<int>(map.GetCount());
    for (std::int64_t i = 0; i < map.GetCount(); ++i) {
      if (Core::IsNoDataValue(map.At(i))) continue;
      summary.mean += map.At(i);
      ++summary.valid;
    }
    summary.mean /= std::max(summary.valid, 1);
    return summary;
  }
};

// The step value of a 7-frame stack whose shifter moves 1 + error times the quarter period is
// 256 cos(90 deg (1 + error)); 13-frame pairs are a quarter period apart too. 8-bit samples of
// amplitude 90 round differences by up to one count, which moves single step values by at most
// about 128 x 4 / (2 x 90 x sin^2(45 deg)) = 5.7; the mean over 1920 pixels is far closer.
TEST_F(PsiCheckCliTest, StepMapAndGainFollowAKnownGainError) {
  for (const auto& [frames, error] : {std::pair{7, -0.05}, std::pair{13, 0.05}}) {
    const std::string stack = WriteStack("stack" + std::to_string(frames) + ".tif", frames, error);
    const RunResult result =
        Run(stack + " -o " + Path("step.tif") + " --png " + Path("step.png") + " --threads 3");
    ASSERT_EQ(result.status, 0) << result.err;
    const double truth = 256.0 * std::cos(std::numbers::pi / 2 * (1.0 + error));
    const MapSummary map = Summarise(Path("step.tif"));
    EXPECT_EQ(map.valid, kRows * kCols) << frames;
    EXPECT_NEAR(map.mean, truth, 0.5) << frames << " frames, error " << error;
    // The printed mean is the map's, and the step it implies is 90 deg (1 + error) to 0.2 deg.
    EXPECT_NEAR(NumberAfter(result.out, "mean "), map.mean, 0.01) << result.out;
    EXPECT_NEAR(NumberAfter(result.out, "phase step "), 90.0 * (1.0 + error), 0.2) << result.out;
    // The gain correction: about -1.27 x the error, from the integer mean of 256 cos / 316.
    EXPECT_NEAR(NumberAfter(result.out, "gain correction "), truth / 316.0, 2.5 / 316.0) << result.out;
    EXPECT_GT(fs::file_size(Path("step.png")), 1000u);
  }
}

// 20 frames or more get the sinusoidal gain check only, and no step map; other counts than 7, 13
// and 20 or more are refused (a run of frames can be picked from them, as the real-data test does).
TEST_F(PsiCheckCliTest, TheFrameCountChoosesTheChecks) {
  const std::string twenty = WriteStack("plus20.tif", 20, 0.05);
  const RunResult result = RunExpecting(0, twenty, "sinusoidal");
  EXPECT_EQ(result.out.find("corvane"), std::string::npos) << result.out;
  EXPECT_LT(NumberAfter(result.out, "gain correction "), -0.02) << result.out;
  EXPECT_EQ(Run(twenty + " -o " + Path("step.tif")).status, 2);

  const std::string twelve = WriteStack("twelve.tif", 12, 0.0);
  RunExpecting(2, twelve + " -o " + Path("step.tif"),
               twelve + " has 12 frames; the phase-step check needs 7 or 13 frames");
  EXPECT_FALSE(fs::exists(Path("step.tif")));
}

TEST_F(PsiCheckCliTest, MaskAndScanPeriodLeaveTheOtherPixelsWithoutData) {
  const std::string stack = WriteStack("stack.tif", 7, 0.03);
  Core::FrameBuffer maskImage;  // non-zero pixels are checked
  maskImage.Allocate(Core::Window2D(0, 0, kRows, kCols), 1, Core::FrameBuffer::kRes8Bit);
  for (int p = 0; p < kRows * kCols; ++p)
    maskImage.GetFrame<std::uint8_t>(0)[p] = p % kCols < 20 && p >= 5 * kCols ? 200 : 0;
  WriteTiffStack(Path("mask.tif"), maskImage);
  // One thread: with several, each worker's stride grid starts at its own first pixel.
  const RunResult result =
      Run(stack + " --mask " + Path("mask.tif") + " --scan-period 3 --threads 1 -o " + Path("step.tif"));
  ASSERT_EQ(result.status, 0) << result.err;
  Core::DoubleMatrix2D map;
  ReadFloatTiff(Path("step.tif"), map);
  for (int p = 0; p < kRows * kCols; ++p) {
    const bool expected = p % kCols < 20 && p >= 5 * kCols && p % 3 == 0;
    EXPECT_EQ(!Core::IsNoDataValue(map.At(p)), expected) << "pixel " << p;
  }
}

// A check without a result is named on stderr with its reason; the run fails (exit status 1, nothing
// written) only when no check gave a result or the step map asked for cannot be made. A 13-frame
// stack whose frame 12 is clipped leaves the corvane check (frames 0-9) its result but gives the gain
// check (every second frame) no pixel; one whose frame 1 is clipped does the reverse.
TEST_F(PsiCheckCliTest, ACheckWithoutAResultIsNamedAndTheOtherResultStands) {
  const std::string flat = WriteStack("flat.tif", 7, 0.0, 3.0);  // modulation of a few counts
  const std::string maps = " -o " + Path("step.tif") + " --png " + Path("step.png");
  RunResult result = RunExpecting(1, flat + maps, "corvane check: no valid pixel in " + flat);
  EXPECT_THAT(result.err, HasSubstr("gain check: no pixel of " + flat + " contributes"));
  EXPECT_FALSE(fs::exists(Path("step.tif")) || fs::exists(Path("step.png")));
  EXPECT_EQ(Run(flat + " --method gain").status, 1);
  EXPECT_EQ(Run(flat + " --min-modulation 1").status, 0);

  const std::string lateClip = WriteStack("late.tif", 13, 0.0, 90.0, 12);
  result = RunExpecting(0, lateClip + " -o " + Path("step.tif"));
  EXPECT_NEAR(Summarise(Path("step.tif")).mean, 0.0, 0.5);
  EXPECT_THAT(result.err, HasSubstr("gain check: no pixel of " + lateClip + " contributes"));

  const std::string earlyClip = WriteStack("early.tif", 13, 0.05, 90.0, 1);
  result = RunExpecting(0, earlyClip);
  EXPECT_LT(NumberAfter(result.out, "gain correction "), -0.02) << result.out;
  EXPECT_THAT(result.err, HasSubstr("corvane check: no valid pixel in " + earlyClip));
  result = RunExpecting(1, earlyClip + " --png " + Path("early.png"), "no step map written");
  EXPECT_THAT(result.out, HasSubstr("gain correction "));
  EXPECT_FALSE(fs::exists(Path("early.png")));
}

// Real data: 12 frames of a 152 mm telescope mirror (8-bit, JPEG-compressed), shifted by about
// 60 deg per frame (one uniform step fitted to every modulated pixel by least squares: 59.5-60 deg).
// Its samples scatter about 10 counts around a sinusoid of about 75 counts, and the ratio of
// single-frame differences, whose larger denominator is chosen, shrinks with that scatter: every run
// of 7 consecutive frames reads a median step value between 86 and 90 (about 70 deg) over about half
// of the image, the same from every starting frame.
TEST_F(PsiCheckCliTest, RealMirrorStackShowsTheSameStepFromEveryStartingFrame) {
  const std::string stack = std::string(QUARN_TESTDATA_DIR) + "/mirror_psi_12frames_60deg.tif";
  ASSERT_TRUE(fs::exists(stack)) << stack;
  std::vector<double> medians;
  for (int first = 0; first + 7 <= 12; ++first) {
    const RunResult result = Run(stack + " --method corvane --first-frame " + std::to_string(first) +
                                 " --frame-count 7 -o " + Path("step.tif"));
    ASSERT_EQ(result.status, 0) << result.err;
    const MapSummary map = Summarise(Path("step.tif"));
    const double validFraction = static_cast<double>(map.valid) / map.total;
    const double median = NumberAfter(result.out, "median ");
    EXPECT_GT(median, 86.0) << result.out;
    EXPECT_LT(median, 90.0) << result.out;
    EXPECT_GT(validFraction, 0.45) << "first frame " << first;
    EXPECT_LT(validFraction, 0.60) << "first frame " << first;
    EXPECT_NEAR(NumberAfter(result.out, "mean "), map.mean, 0.01) << result.out;
    medians.push_back(median);
  }
  // A property of the set-up, not of the frames chosen: the six medians agree to a few units.
  const auto [lo, hi] = std::minmax_element(medians.begin(), medians.end());
  EXPECT_LT(*hi - *lo, 4.0);
}

}  // namespace
}  // namespace Quarn::Qphase

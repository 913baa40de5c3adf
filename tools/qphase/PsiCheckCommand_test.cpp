// qphase psi-check seen from a shell: exit statuses, messages, the written step map, and the real
// telescope-mirror stack of the test data.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "CliTestFixture.h"
#include "Testing/SyntheticPsi.h"
#include "TiffIO.h"

namespace Quarn::Qphase {
namespace {

namespace fs = std::filesystem;

constexpr int kRows = 40, kCols = 48;

// Mean, median and count of the valid (non-NaN) pixels of a written step map.
struct MapSummary {
  double mean = 0.0;
  double median = 0.0;
  int valid = 0;
  int total = 0;
};

class PsiCheckCliTest : public CliTestFixture {
 protected:
  PsiCheckCliTest() : CliTestFixture("psi-check ") {}

  // An 8-bit stack of the algorithms' nominal shifts with every shift scaled by 1 + gainError:
  // 7 and 13 frames a quarter and an eighth of a period apart, 20 frames (or more, repeating) of
  // the sinusoidal drive; other counts continue the 7-frame quarter-period sequence.
  std::string WriteStack(const std::string& name, int frames, double gainError,
                         double amplitude = 90.0) const {
    std::vector<double> shifts;
    if (frames == 13) {
      shifts = Testing::ShiftsFor13(gainError);
    } else if (frames >= 20) {
      shifts = Testing::ShiftsFor20(gainError);
      for (int k = 20; k < frames; ++k)
        shifts.push_back(shifts[static_cast<std::size_t>(k - 20)]);
    } else {
      for (int k = 0; k < frames; ++k)
        shifts.push_back((1.0 + gainError) * std::numbers::pi / 2 * k);
    }
    Core::FrameBuffer stack;
    stack.Allocate(Core::Window2D(0, 0, kRows, kCols), frames, Core::FrameBuffer::kRes8Bit);
    Testing::FillPsiStack(stack, shifts, [amplitude](int r, int c) {
      return Testing::PixelFringe{120.0, amplitude, 0.31 * c + 0.17 * r};
    });
    WriteTiffStack(Path(name), stack);
    return Path(name);
  }

  // A one-page 8-bit mask: `inside(row, col)` pixels get 255, the others 0.
  template <typename Inside>
  std::string WriteMask(const std::string& name, int rows, int cols, Inside inside) const {
    Core::FrameBuffer mask;
    mask.Allocate(Core::Window2D(0, 0, rows, cols), 1, Core::FrameBuffer::kRes8Bit);
    for (int r = 0; r < rows; ++r) {
      for (int c = 0; c < cols; ++c)
        mask.GetFrame<std::uint8_t>(0)[r * cols + c] = inside(r, c) ? 255 : 0;
    }
    WriteTiffStack(Path(name), mask);
    return Path(name);
  }

  static MapSummary Summarise(const std::string& path) {
    Core::DoubleMatrix2D map;
    ReadFloatTiff(path, map);
    std::vector<double> values;
    for (std::int64_t i = 0; i < map.GetCount(); ++i) {
      if (!Core::IsNoDataValue(map.At(i))) values.push_back(map.At(i));
    }
    MapSummary summary;
    summary.total = static_cast<int>(map.GetCount());
    summary.valid = static_cast<int>(values.size());
    if (values.empty()) return summary;
    for (const double v : values)
      summary.mean += v / static_cast<double>(values.size());
    std::sort(values.begin(), values.end());
    const std::size_t half = values.size() / 2;
    summary.median = values.size() % 2 ? values[half] : 0.5 * (values[half - 1] + values[half]);
    return summary;
  }

  // The number printed after `label` in `text` (NaN when absent).
  static double NumberAfter(const std::string& text, const std::string& label) {
    const std::size_t at = text.find(label);
    if (at == std::string::npos) return std::nan("");
    return std::strtod(text.c_str() + at + label.size(), nullptr);
  }
};

TEST_F(PsiCheckCliTest, HelpNamesTheOptions) {
  const RunResult result = Run("--help");
  EXPECT_EQ(result.status, 0);
  for (const char* option : {"--method", "--mask", "--scan-period", "--min-modulation", "--first-frame",
                             "--frame-count", "--output", "--png"}) {
    EXPECT_NE(result.out.find(option), std::string::npos) << option;
  }
}

// The step value of a 7-frame stack whose shifter moves 1 + error times the quarter period is
// 256 cos(90 deg (1 + error)); 13-frame pairs are a quarter period apart too. 8-bit samples of
// amplitude 90 round differences by up to one count, which moves single step values by at most
// about 128 x 4 / (2 x 90 x sin^2(45 deg)) = 5.7; the mean over 1920 pixels is far closer.
TEST_F(PsiCheckCliTest, StepMapAndGainFollowAKnownGainError) {
  for (const int frames : {7, 13}) {
    for (const double error : {-0.05, 0.05}) {
      const std::string name = "stack" + std::to_string(frames) + (error > 0 ? "plus" : "minus") + ".tif";
      const std::string stack = WriteStack(name, frames, error);
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
      const double gain = NumberAfter(result.out, "gain correction ");
      EXPECT_NEAR(gain, truth / 316.0, 2.5 / 316.0) << result.out;
      EXPECT_GT(fs::file_size(Path("step.png")), 1000u);
    }
  }
}

TEST_F(PsiCheckCliTest, TwentyFramesGetTheSinusoidalGainCheckOnly) {
  const std::string plus = WriteStack("plus20.tif", 20, 0.05);
  const std::string minus = WriteStack("minus20.tif", 24, -0.05);
  RunResult result = Run(plus);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out.find("corvane"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("sinusoidal"), std::string::npos) << result.out;
  EXPECT_LT(NumberAfter(result.out, "gain correction "), -0.02) << result.out;
  result = Run(minus + " --method gain");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_GT(NumberAfter(result.out, "gain correction "), 0.02) << result.out;

  // A step map cannot be had from 20 frames.
  result = Run(plus + " -o " + Path("step.tif"));
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("needs 7 or 13 frames"), std::string::npos) << result.err;
  result = Run(plus + " --method corvane");
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("the corvane check needs 7 or 13 frames, " + plus + " has 20 frames"),
            std::string::npos)
      << result.err;
  EXPECT_FALSE(fs::exists(Path("step.tif")));
}

TEST_F(PsiCheckCliTest, OtherFrameCountsAreNamedAndARunOfFramesCanBePicked) {
  const std::string twelve = WriteStack("twelve.tif", 12, 0.0);
  RunResult result = Run(twelve + " -o " + Path("step.tif"));
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find(twelve + " has 12 frames; the phase-step check needs 7 or 13 frames"),
            std::string::npos)
      << result.err;
  EXPECT_NE(result.err.find("--first-frame"), std::string::npos) << result.err;
  EXPECT_FALSE(fs::exists(Path("step.tif")));

  // Frames 3-9 of the quarter-period sequence are a 7-frame stack of their own.
  result = Run(twelve + " --first-frame 3 --frame-count 7 -o " + Path("step.tif"));
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("frames 3-9 of " + twelve), std::string::npos) << result.out;
  EXPECT_NEAR(Summarise(Path("step.tif")).mean, 0.0, 0.5);

  result = Run(twelve + " --first-frame 8 --frame-count 7");
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("frames 8-14 were asked for, " + twelve + " has 12 frames"), std::string::npos)
      << result.err;
  result = Run(twelve + " --first-frame 12");
  EXPECT_EQ(result.status, 2);
  result = Run(twelve + " --first-frame 2 --frame-count 8");
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("frames 2-9 of " + twelve + " has 8 frames"), std::string::npos) << result.err;
}

TEST_F(PsiCheckCliTest, MaskAndScanPeriodLeaveTheOtherPixelsWithoutData) {
  const std::string stack = WriteStack("stack.tif", 7, 0.03);
  const std::string mask = WriteMask("mask.tif", kRows, kCols, [](int r, int c) { return c < 20 && r >= 5; });
  RunResult result = Run(stack + " --mask " + mask + " --scan-period 3 -o " + Path("step.tif"));
  ASSERT_EQ(result.status, 0) << result.err;
  Core::DoubleMatrix2D map;
  ReadFloatTiff(Path("step.tif"), map);
  for (int r = 0; r < kRows; ++r) {
    for (int c = 0; c < kCols; ++c) {
      const bool expected = c < 20 && r >= 5 && (r * kCols + c) % 3 == 0;
      EXPECT_EQ(!Core::IsNoDataValue(map(r, c)), expected) << r << "," << c;
    }
  }

  const std::string wrongSize = WriteMask("small.tif", kRows, kCols - 1, [](int, int) { return true; });
  result = Run(stack + " --mask " + wrongSize);
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("small.tif is 47 x 40, " + stack + " is 48 x 40"), std::string::npos)
      << result.err;

  const std::string empty = WriteMask("empty.tif", kRows, kCols, [](int, int) { return false; });
  result = Run(stack + " --mask " + empty + " -o " + Path("none.tif"));
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("of the mask"), std::string::npos) << result.err;
  EXPECT_FALSE(fs::exists(Path("none.tif")));
}

TEST_F(PsiCheckCliTest, NoValidPixelIsExitStatus1AndUnreadableInputIs2) {
  const std::string flat = WriteStack("flat.tif", 7, 0.0, 3.0);  // modulation of a few counts
  RunResult result = Run(flat + " -o " + Path("step.tif") + " --png " + Path("step.png"));
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("no valid pixel for the phase-step check in " + flat), std::string::npos)
      << result.err;
  EXPECT_FALSE(fs::exists(Path("step.tif")));
  EXPECT_FALSE(fs::exists(Path("step.png")));
  result = Run(flat + " --method gain");
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("contributes to the gain correction"), std::string::npos) << result.err;
  EXPECT_EQ(Run(flat + " --min-modulation 1").status, 0);

  result = Run(Path("absent.tif"));
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("absent.tif"), std::string::npos) << result.err;
  std::ofstream(Path("notes.tif")) << "plain text\n";
  result = Run(Path("notes.tif"));
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("notes.tif"), std::string::npos) << result.err;
  EXPECT_EQ(Run(flat + " --scan-period 0").status, 2);
  EXPECT_EQ(Run(flat + " --method fourier").status, 2);
}

// Real data: 12 frames of a 152 mm telescope mirror (8-bit, JPEG-compressed, partly saturated),
// shifted by a set-up step of about 70 deg. Every run of 7 consecutive frames must show that step:
// a median step value between 86 and 90 (256 cos 70 deg = 87.6) over about half of the image, the
// same from every starting frame.
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
    EXPECT_GT(map.median, 86.0) << "first frame " << first;
    EXPECT_LT(map.median, 90.0) << "first frame " << first;
    EXPECT_GT(validFraction, 0.45) << "first frame " << first;
    EXPECT_LT(validFraction, 0.60) << "first frame " << first;
    EXPECT_NEAR(NumberAfter(result.out, "median "), map.median, 0.01) << result.out;
    medians.push_back(map.median);
  }
  // A property of the set-up, not of the frames chosen: the six medians agree to a few units.
  const auto [lo, hi] = std::minmax_element(medians.begin(), medians.end());
  EXPECT_LT(*hi - *lo, 4.0);
}

}  // namespace
}  // namespace Quarn::Qphase

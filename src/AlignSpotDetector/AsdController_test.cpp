// The steps of the align spot detector one by one: the one-pass pixel operations against the
// literal recipe built from the core facilities, the noise the sigma clipping measures, the wiring
// test, the dropping of faint regions and the saturation count.
#include "AlignSpotDetector/AsdController.h"

#include <climits>
#include <cmath>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "AlignSpotDetector/detail/SpotImageOps.h"
#include "Analysis/Core/Clipper.h"
#include "Analysis/Core/SurfaceStats.h"
#include "Testing/SeededRandom.h"
#include "Testing/SyntheticSpot.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {
namespace {

using Analysis::Core::Clipper;
using Analysis::Core::IntMatrix2D;
using Analysis::Core::SurfaceStats;
using Analysis::Core::Window2D;
namespace StatusCode = Analysis::Core::StatusCode;

constexpr int kInvalid = IntMatrix2D::NoData();

// Random images in several value ranges: 8-bit, 16-bit, signed, and values near the top of the int
// range whose squares overflow 64 bits within a row. A few pixels are invalid; some images carry an
// origin away from 0 and a window.
struct ImageKind {
  const char* name;
  int lo;
  int hi;
};

IntMatrix2D RandomImage(Testing::SeededRandom& random, const ImageKind& kind, bool windowed) {
  IntMatrix2D image(random.UniformInt(1, 40), random.UniformInt(1, 50));
  image.SetOrigin(random.UniformInt(-20, 20), random.UniformInt(-20, 20));
  for (std::int64_t i = 0; i < image.GetCount(); ++i) {
    image.At(i) = random.Uniform(0, 1) < 0.05 ? kInvalid : random.UniformInt(kind.lo, kind.hi);
  }
  if (windowed) {
    const int r0 = random.UniformInt(0, image.GetRows() - 1),
              c0 = random.UniformInt(0, image.GetColumns() - 1);
    image.SetWindow(Window2D(image.GetStartRow() + r0, image.GetStartCol() + c0,
                             random.UniformInt(0, image.GetRows() - r0),
                             random.UniformInt(0, image.GetColumns() - c0)));
  }
  return image;
}

void PrintTo(const ImageKind& kind, std::ostream* out) {
  *out << kind.name;
}

class PixelOperationTest : public ::testing::TestWithParam<ImageKind> {};

TEST_P(PixelOperationTest, BandStatisticsMatchSurfaceStatsOfTheClippedImage) {
  Testing::SeededRandom random(1000 + GetParam().lo % 97);
  SCOPED_TRACE(random.Describe());
  for (int trial = 0; trial < 200; ++trial) {
    const IntMatrix2D image = RandomImage(random, GetParam(), trial % 2 == 1);
    int lo = random.UniformInt(GetParam().lo, GetParam().hi);
    int hi = random.UniformInt(GetParam().lo, GetParam().hi);
    if (trial % 5 == 0) std::tie(lo, hi) = std::make_tuple(INT_MIN, INT_MAX);
    IntMatrix2D clipped;
    ASSERT_TRUE(clipped.CopyAll(image));
    Clipper::Clip(clipped, lo, hi);
    SurfaceStats reference;
    reference.Calculate(clipped);
    const detail::BandStatistics fast = detail::StatisticsInBand(image, lo, hi);
    const detail::BandStatistics exact =
        detail::StatisticsInBand(image, lo, hi, detail::PixelPath::kReference);
    ASSERT_EQ(fast.count, reference.GetCount()) << "trial " << trial;
    // Both paths sum exact integers: identical to the last bit.
    EXPECT_EQ(fast.count, exact.count);
    EXPECT_EQ(fast.mean, exact.mean) << "trial " << trial;
    EXPECT_EQ(fast.stdDev, exact.stdDev) << "trial " << trial;
    // The reference sums in doubles: its mean is off by up to count ulp of the largest value, its
    // deviation by as much relative to the spread; the exact integer sums are within one rounding.
    const double scale = std::max(std::fabs(static_cast<double>(GetParam().lo)),
                                  std::fabs(static_cast<double>(GetParam().hi)));
    EXPECT_NEAR(fast.mean, reference.GetMean(), 1e-15 * scale * (1 + fast.count)) << "trial " << trial;
    EXPECT_NEAR(fast.stdDev, reference.GetStdDev(), 1e-13 * scale * (1 + fast.count)) << "trial " << trial;
  }
}

TEST_P(PixelOperationTest, SplitAtBandIsACopyClippedBothWays) {
  Testing::SeededRandom random(2000 + GetParam().hi % 89);
  SCOPED_TRACE(random.Describe());
  IntMatrix2D inside, outside;  // reused, as the board reuses its images
  for (int trial = 0; trial < 200; ++trial) {
    const IntMatrix2D image = RandomImage(random, GetParam(), trial % 2 == 1);
    const int lo = random.UniformInt(GetParam().lo, GetParam().hi);
    const int hi = random.UniformInt(lo, GetParam().hi);
    IntMatrix2D keep, drop;
    ASSERT_TRUE(keep.CopyAll(image));
    ASSERT_TRUE(drop.CopyAll(image));
    Clipper::Clip(keep, lo, hi);
    Clipper::RemoveInside(drop, lo, hi);
    ASSERT_TRUE(detail::SplitAtBand(image, lo, hi, inside, outside));
    ASSERT_EQ(inside.GetMatrixWindow(), image.GetMatrixWindow());
    ASSERT_EQ(outside.GetMatrixWindow(), image.GetMatrixWindow());
    EXPECT_EQ(inside.GetWindow(), image.GetWindow());
    for (std::int64_t i = 0; i < image.GetCount(); ++i) {
      ASSERT_EQ(inside.At(i), keep.At(i)) << "trial " << trial << ", element " << i;
      ASSERT_EQ(outside.At(i), drop.At(i)) << "trial " << trial << ", element " << i;
    }
  }
}

// Sigma clipping's two statistics, fast against StatisticsInBand twice. The fast form treats rows as
// wholly inside the second band, wholly outside it or cut by it, so besides the random images (most
// rows cut) some images have rows of a narrow spread around a value of their own, and rows that hold
// no valid pixel at all.
TEST_P(PixelOperationTest, ClippedStatisticsEqualBandStatisticsTwice) {
  Testing::SeededRandom random(3000 + GetParam().lo % 83);
  SCOPED_TRACE(random.Describe());
  const double spans = static_cast<double>(GetParam().hi) - GetParam().lo;
  for (int trial = 0; trial < 200; ++trial) {
    IntMatrix2D image = RandomImage(random, GetParam(), trial % 2 == 1);
    if (trial % 3 != 0) {
      const int spread = static_cast<int>(std::min(spans, trial % 3 == 1 ? 3.0 : spans / 50));
      for (int r = 0; r < image.GetRows(); ++r) {
        const bool empty = random.Uniform(0, 1) < 0.1;
        const int centre = random.UniformInt(GetParam().lo, GetParam().hi - spread);
        for (int c = 0; c < image.GetColumns(); ++c)
          image.Row(r)[c] = empty ? kInvalid : centre + random.UniformInt(0, spread);
      }
    }
    const double k = std::vector<double>{0.0, 0.5, 1.0, 3.0, random.Uniform(0, 5)}[trial % 5];
    detail::BandStatistics all, floor;
    detail::ClippedStatistics(image, k, all, floor);
    const detail::BandStatistics allReference =
        detail::StatisticsInBand(image, INT_MIN, INT_MAX, detail::PixelPath::kReference);
    const detail::BandStatistics floorReference = detail::StatisticsInBand(
        image, detail::TruncateToInt(allReference.mean - k * allReference.stdDev),
        detail::TruncateToInt(allReference.mean + k * allReference.stdDev), detail::PixelPath::kReference);
    EXPECT_EQ(all.count, allReference.count) << "trial " << trial;
    EXPECT_EQ(all.mean, allReference.mean) << "trial " << trial;
    EXPECT_EQ(all.stdDev, allReference.stdDev) << "trial " << trial;
    EXPECT_EQ(floor.count, floorReference.count) << "trial " << trial;
    EXPECT_EQ(floor.mean, floorReference.mean) << "trial " << trial;
    EXPECT_EQ(floor.stdDev, floorReference.stdDev) << "trial " << trial;
    detail::BandStatistics allPlain, floorPlain;
    detail::ClippedStatistics(image, k, allPlain, floorPlain, detail::PixelPath::kReference);
    EXPECT_EQ(floorPlain.count, floorReference.count) << "trial " << trial;
    EXPECT_EQ(floorPlain.stdDev, floorReference.stdDev) << "trial " << trial;
  }
}

INSTANTIATE_TEST_SUITE_P(Ranges, PixelOperationTest,
                         ::testing::Values(ImageKind{"8bit", 0, 255}, ImageKind{"16bit", 0, 65535},
                                           ImageKind{"signed", -40000, 40000},
                                           ImageKind{"huge", 2000000000, 2147483639},
                                           ImageKind{"hugeSigned", -2147483647 - 1, 2147483639}),
                         [](const auto& info) { return std::string(info.param.name); });

// The mask's row and column shortcut against the per-pixel rule, for centres on pixels, between
// pixels and anywhere, radii that put pixel centres exactly on the obscuration's edge (3-4-5
// triangles) or the square's edge, and images with an origin and a window.
TEST(MaskTest, FastMaskEqualsThePerPixelRule) {
  Testing::SeededRandom random(31);
  SCOPED_TRACE(random.Describe());
  for (int trial = 0; trial < 400; ++trial) {
    IntMatrix2D image = RandomImage(random, ImageKind{"any", 0, 1000}, trial % 3 == 0);
    const Window2D m = image.GetMatrixWindow();
    double cx = random.UniformInt(m.GetStartCol() - 5, m.GetEndCol() + 5);
    double cy = random.UniformInt(m.GetStartRow() - 5, m.GetEndRow() + 5);
    if (trial % 4 == 1) cx += 0.5, cy -= 0.5;
    if (trial % 4 == 2) cx += random.Uniform(-1, 1), cy += random.Uniform(-1, 1);
    const double radii[] = {0.0, 5.0, 10.0, std::sqrt(2.0), random.Uniform(0, 30)};
    const double halfWidths[] = {0.0, 3.0, 12.5, 1e9, random.Uniform(0, 40), -1.0};
    const double r = radii[trial % 5];
    const double w = halfWidths[trial % 6];
    IntMatrix2D fast = image, reference = image;
    detail::ApplySquareAndObscurationMask(fast, cx, cy, w, r);
    detail::ApplySquareAndObscurationMaskReference(reference, cx, cy, w, r);
    for (std::int64_t i = 0; i < image.GetCount(); ++i) {
      ASSERT_EQ(fast.At(i), reference.At(i)) << "trial " << trial << ", element " << i << ", centre (" << cx
                                             << ", " << cy << "), radius " << r << ", half-width " << w;
    }
  }
}

// The one-pass split, mask and count against the three operations in turn.
TEST(MaskTest, SplitMaskAndCountEqualsTheStepsInTurn) {
  Testing::SeededRandom random(37);
  SCOPED_TRACE(random.Describe());
  IntMatrix2D inside, outside;
  for (int trial = 0; trial < 400; ++trial) {
    const IntMatrix2D image = RandomImage(random, ImageKind{"any", 0, 300}, trial % 3 == 0);
    const Window2D m = image.GetMatrixWindow();
    double cx = random.UniformInt(m.GetStartCol() - 5, m.GetEndCol() + 5);
    double cy = random.UniformInt(m.GetStartRow() - 5, m.GetEndRow() + 5);
    if (trial % 2 == 1) cx += random.Uniform(-1, 1), cy += random.Uniform(-1, 1);
    const double r = trial % 7 == 0 ? 50.0 : random.Uniform(0, 8);  // sometimes wider than the square
    const double w = trial % 11 == 0 ? -1.0 : random.Uniform(0, 30);
    const int lo = random.UniformInt(0, 150), hi = random.UniformInt(lo, 300);
    const int threshold = random.UniformInt(150, 301);
    std::int64_t count = -1;
    detail::RowSpan rows{-1, -1};
    ASSERT_TRUE(
        detail::SplitMaskAndCount(image, lo, hi, cx, cy, w, r, threshold, inside, outside, count, &rows));
    IntMatrix2D keep, drop;
    ASSERT_TRUE(detail::SplitAtBand(image, lo, hi, keep, drop));
    detail::ApplySquareAndObscurationMaskReference(drop, cx, cy, w, r);
    EXPECT_EQ(count, detail::CountAtOrAbove(drop, threshold)) << "trial " << trial;
    // The rows said to hold the foreground's valid pixels hold every one of them.
    ASSERT_TRUE(0 <= rows.first && rows.first <= rows.end && rows.end <= image.GetRows())
        << "trial " << trial;
    for (int row = 0; row < image.GetRows(); ++row) {
      if (row >= rows.first && row < rows.end) continue;
      for (int col = 0; col < image.GetColumns(); ++col)
        ASSERT_EQ(drop.Row(row)[col], kInvalid) << "trial " << trial << ", row " << row << ", column " << col;
    }
    for (std::int64_t i = 0; i < image.GetCount(); ++i) {
      ASSERT_EQ(inside.At(i), keep.At(i)) << "trial " << trial << ", element " << i;
      ASSERT_EQ(outside.At(i), drop.At(i)) << "trial " << trial << ", element " << i;
    }
  }
}

TEST(MaskTest, EdgePixelsFollowTheStrictAndLooseComparisons) {
  // Centre (10, 10), obscuration radius 5, half-width 8: (13, 14) is exactly 5 away and stays, as
  // does (18, 10) exactly 8 away in x; (19, 10) and (12, 12) go.
  IntMatrix2D image(21, 21);
  image.SetAll(7);
  detail::ApplySquareAndObscurationMask(image, 10.0, 10.0, 8.0, 5.0);
  EXPECT_EQ(image(14, 13), 7);
  EXPECT_EQ(image(10, 18), 7);
  EXPECT_EQ(image(2, 10), 7);
  EXPECT_EQ(image(10, 19), kInvalid);
  EXPECT_EQ(image(1, 10), kInvalid);
  EXPECT_EQ(image(12, 12), kInvalid);
  EXPECT_EQ(image(10, 10), kInvalid);
}

// A detector board on an image of the given scene, wired with a centre in the image's middle.
struct Rig {
  AsdBoard board;
  IntMatrix2D image;

  Rig(int rows, int cols, const Testing::SpotScene& scene, Testing::SeededRandom* random)
      : image(rows, cols) {
    Testing::FillSpotImage(image, scene, random);
    board.Initialize();
    board.input = &image;
    board.reticleCenterX = cols / 2.0;
    board.reticleCenterY = rows / 2.0;
    board.reticleCenterR = 4.0;
    board.interestRegionRadius = 1e6;
  }
};

// The literal recipe: copy, statistics, clip both ways, statistics of the clipped background,
// copy again, clip again; the one-pass step must leave the same images and the same sigma.
//
// Physics of what it measures: the first band m -/+ 6 s is set by the whole image, spot included,
// so the first background keeps, besides the read noise, the spot's wings below the band's upper
// edge V (counts above the background). A Gaussian spot of widths sx, sy covers an area
// 2 pi sx sy / v dv between v and v + dv, so its wings add pi sx sy V^2 to the sum of squares and
// 2 pi sx sy V to the sum over the N pixels. Expected:
//   sigma^2 = noise^2 + 1/12 (rounding) + pi sx sy V^2 / N - (2 pi sx sy V / N)^2.
// A faint spot leaves the read noise; a bright one in a small image widens the background.
TEST(SigmaClippingTest, StepEqualsTheLiteralRecipeAndTheBackgroundHoldsNoiseAndWings) {
  Testing::SeededRandom random(4242);
  SCOPED_TRACE(random.Describe());
  struct Case {
    double noise, peak;
  };
  for (const Case& c : {Case{0.7, 40.0}, Case{3.0, 90.0}, Case{12.0, 200.0}, Case{3.0, 20000.0}}) {
    Testing::SpotScene scene;
    scene.background = 400.0;
    scene.noiseSigma = c.noise;
    scene.saturationLevel = 65535;
    scene.spots = {{100.3, 80.6, 4.0, 5.0, c.peak}};
    Rig rig(160, 200, scene, &random);
    AsdController controller(rig.board);
    ASSERT_TRUE(controller.SigmaClipping());

    const double k = rig.board.clipThatManySigmas;
    IntMatrix2D foreground, background;
    foreground.CopyAll(rig.image);
    background.CopyAll(rig.image);
    SurfaceStats stats;
    stats.Calculate(rig.image);
    const int lo = static_cast<int>(stats.GetMean() - k * stats.GetStdDev());
    const int hi = static_cast<int>(stats.GetMean() + k * stats.GetStdDev());
    Clipper::Clip(background, lo, hi);
    stats.Calculate(background);
    const double sigma = stats.GetStdDev();
    const int lo2 = static_cast<int>(stats.GetMean() - k * sigma);
    const int hi2 = static_cast<int>(stats.GetMean() + k * sigma);
    foreground.CopyAll(rig.image);
    background.CopyAll(rig.image);
    Clipper::Clip(background, lo2, hi2);
    Clipper::RemoveInside(foreground, lo2, hi2);

    EXPECT_NEAR(rig.board.backgroundSigma, sigma, 1e-12 * sigma);
    for (std::int64_t i = 0; i < rig.image.GetCount(); ++i) {
      ASSERT_EQ(rig.board.foreground.At(i), foreground.At(i)) << "peak " << c.peak << ", pixel " << i;
      ASSERT_EQ(rig.board.background.At(i), background.At(i)) << "peak " << c.peak << ", pixel " << i;
    }

    const double n = static_cast<double>(rig.image.GetCount());
    const double area = std::acos(-1.0) * 4.0 * 5.0;  // pi sx sy
    const double wing = std::min(c.peak, hi - scene.background);
    const double expected = std::sqrt(c.noise * c.noise + 1.0 / 12.0 + area * wing * wing / n -
                                      std::pow(2.0 * area * wing / n, 2));
    // A measured sigma scatters by sigma / sqrt(2 N) = 0.4 % of itself over 32000 pixels; the wing
    // integral treats counts as continuous, good to a few percent of the wing term.
    EXPECT_NEAR(rig.board.backgroundSigma, expected,
                5.0 * expected / std::sqrt(2.0 * n) + 0.03 * (expected - c.noise))
        << "noise " << c.noise << ", peak " << c.peak;
    EXPECT_TRUE(IntMatrix2D::IsDataValid(rig.board.foreground(81, 100))) << "the spot's core stands out";
  }
}

// The ten wiring conditions, in the order they are tested: making any one fail (and only it) gives
// code 4 without a message, from the controller, at a line that grows with the order. With several
// failing, the last one tested names the status.
TEST(CheckWiredTest, EachConditionFailsAloneAtItsOwnLineAndTheLastFailureWins) {
  IntMatrix2D image(4, 4);
  image.SetAll(3);
  const auto wired = [&] {
    AsdBoard board;
    board.Initialize();
    board.input = &image;
    board.interestRegionRadius = 10;
    board.reticleCenterX = 2;
    board.reticleCenterY = 2;
    board.reticleCenterR = 1;
    return board;
  };
  const std::vector<std::function<void(AsdBoard&)>> breakers = {
      [](AsdBoard& b) { b.input = nullptr; },
      [](AsdBoard& b) { b.maxNumberOfSaturatedPixels = 2147483640; },
      [](AsdBoard& b) { b.interestRegionRadius = 1.7976931348623157e308; },
      [](AsdBoard& b) { b.reticleCenterX = 1.7976931348623157e308; },
      [](AsdBoard& b) { b.reticleCenterY = INFINITY; },
      [](AsdBoard& b) { b.reticleCenterR = 1.7976931348623157e308; },
      [](AsdBoard& b) { b.clipThatManySigmas = 1.7976931348623157e308; },
      [](AsdBoard& b) { b.dropThatManySigmas = 1.7976931348623157e308; },
      [](AsdBoard& b) { b.dropBelowThisFraction = 1.7976931348623157e308; },
      [](AsdBoard& b) { b.saturationThreshold = 1.7976931348623157e308; },
  };
  {
    AsdBoard board = wired();
    EXPECT_TRUE(AsdController(board).CheckWired());
    EXPECT_TRUE(board.status.IsOk());
    board.backgroundSigma = 1.7976931348623157e308;  // written by the run, never tested
    EXPECT_TRUE(AsdController(board).CheckWired());
  }
  unsigned previousLine = 0;
  std::vector<unsigned> lines;
  for (std::size_t i = 0; i < breakers.size(); ++i) {
    AsdBoard board = wired();
    breakers[i](board);
    AsdController controller(board);
    EXPECT_EQ(controller.DetectSpotPosition(), AsdSpotPosition::DetectionFailed) << "condition " << i;
    EXPECT_EQ(board.status.GetCode(), StatusCode::kControllerFailed) << "condition " << i;
    EXPECT_EQ(board.status.GetMessage(), "") << "condition " << i;
    EXPECT_EQ(board.status.GetFile(), "AlignSpotDetector\\AsdController");
    EXPECT_GT(board.status.GetLine(), previousLine) << "condition " << i << " is tested after " << i - 1;
    EXPECT_TRUE(board.foreground.GetCount() == 0) << "no step runs after a failed wiring test";
    previousLine = board.status.GetLine();
    lines.push_back(previousLine);
  }
  AsdBoard board = wired();
  breakers[2](board);
  breakers[0](board);
  breakers[7](board);
  EXPECT_FALSE(AsdController(board).CheckWired());
  EXPECT_EQ(board.status.GetLine(), lines[7]) << "the last failing test is left behind";
}

// Dropping works on sums of counts: the list ends sorted by descending sum, the faint regions leave
// both the list and the region map, the others are placed in their quadrants.
TEST(DropTest, FaintRegionsLeaveTheListAndTheMapAndTheRestIsSortedAndPlaced) {
  Testing::SpotScene scene;
  scene.background = 10.0;
  scene.saturationLevel = 65535;
  // Light above the background, 2 pi s^2 peak: 3500 (upper left), 14000 (lower right), 350 (lower
  // left). With the background pedestal of the pixels that stand out (about 10 sigma of the
  // floor), the faint spot holds about 3 % of the bright one's sum, the other about 27 %.
  scene.spots = {{50, 50, 1.5, 1.5, 250.0}, {170, 150, 1.5, 1.5, 1000.0}, {50, 150, 1.5, 1.5, 25.0}};
  Testing::SeededRandom random(5);
  SCOPED_TRACE(random.Describe());
  scene.noiseSigma = 1.0;
  Rig rig(200, 240, scene, &random);
  AsdController controller(rig.board);
  ASSERT_TRUE(controller.SigmaClipping());
  ASSERT_TRUE(controller.ApplyMask());
  ASSERT_TRUE(controller.Regionize());
  ASSERT_EQ(rig.board.spotInfoList->Size(), 3);
  const int faintId = rig.board.regionIdMap(150, 50);
  ASSERT_TRUE(IntMatrix2D::IsDataValid(faintId));

  ASSERT_TRUE(controller.DropInsignificantRegions());
  const auto& spots = *rig.board.spotInfoList;
  ASSERT_EQ(spots.Size(), 2) << "the 3 % spot goes, the 27 % one stays";
  EXPECT_GT(spots[0].GetSum(), spots[1].GetSum());
  EXPECT_NEAR(spots[0].CenterOfMassX(), 170, 0.1);
  EXPECT_EQ(spots[0].GetQuadrant(), 4) << "right of column 120 and below row 100";
  EXPECT_EQ(spots[1].GetQuadrant(), 2);
  EXPECT_FALSE(IntMatrix2D::IsDataValid(rig.board.regionIdMap(150, 50))) << "the faint region left the map";
  EXPECT_TRUE(IntMatrix2D::IsDataValid(rig.board.regionIdMap(50, 50)));
  EXPECT_NE(faintId, rig.board.regionIdMap(50, 50));
}

// Exactly maxNumberOfSaturatedPixels saturated foreground pixels pass; one more does not; saturated
// pixels outside the square of interest or under the obscuration do not count.
TEST(SaturationTest, TheLimitItselfPassesAndMaskedPixelsDoNotCount) {
  Testing::SpotScene scene;
  scene.background = 20.0;
  scene.noiseSigma = 1.0;
  scene.spots = {{40, 20, 3.0, 3.0, 150.0}};
  for (const int saturated : {0, 5, 32, 33}) {
    Testing::SeededRandom random(8);
    SCOPED_TRACE(random.Describe());
    Rig rig(64, 64, scene, &random);
    rig.board.interestRegionRadius = 25.0;  // the square spans columns and rows 7 to 57
    for (int i = 0; i < saturated; ++i)
      rig.image(18 + i / 6, 38 + i % 6) = 250 + i % 5;
    for (int c = 0; c < 64; ++c)
      rig.image(62, c) = 255;  // outside the square
    for (int r = 31; r <= 33; ++r)
      rig.image(r, 32) = 255;  // under the obscuration
    rig.board.maxNumberOfSaturatedPixels = 32;
    AsdController controller(rig.board);
    const AsdSpotPosition position = controller.DetectSpotPosition();
    if (saturated <= 32) {
      EXPECT_EQ(position, AsdSpotPosition::Quadrant1) << saturated << " saturated pixels";
    } else {
      EXPECT_EQ(position, AsdSpotPosition::TooManySaturatedPixels) << saturated << " saturated pixels";
    }
    EXPECT_TRUE(rig.board.status.IsOk());
  }
}

// A detection runs steps 2 to 4 in one pass; the steps one by one leave the same images.
TEST(ControllerTest, DetectionLeavesWhatTheStepsInTurnLeave) {
  Testing::SeededRandom random(41);
  SCOPED_TRACE(random.Describe());
  Testing::SpotScene scene;
  scene.background = 30.0;
  scene.noiseSigma = 2.0;
  scene.gradientX = 0.1;
  scene.spots = {{60.3, 30.8, 3.0, 3.0, 240.0}, {35.0, 50.0, 2.0, 2.0, 120.0}};
  Rig whole(80, 100, scene, &random);
  whole.board.interestRegionRadius = 30.0;
  whole.board.reticleCenterR = 8.5;
  AsdBoard steps = whole.board;
  AsdController(whole.board).DetectSpotPosition();
  AsdController controller(steps);
  ASSERT_TRUE(controller.CheckWired());
  ASSERT_TRUE(controller.SigmaClipping());
  ASSERT_TRUE(controller.ApplyMask());
  EXPECT_TRUE(controller.InputImageHasTooManySaturatedPixels());
  EXPECT_EQ(steps.backgroundSigma, whole.board.backgroundSigma);
  for (std::int64_t i = 0; i < whole.image.GetCount(); ++i) {
    ASSERT_EQ(steps.foreground.At(i), whole.board.foreground.At(i)) << "pixel " << i;
    ASSERT_EQ(steps.background.At(i), whole.board.background.At(i)) << "pixel " << i;
  }
}

// The plain steps one after the other, as DetectSpotPosition orders them.
AsdSpotPosition StepsInTurn(AsdBoard& board) {
  AsdController c(board);
  const auto empty = [&board] { return board.spotInfoList->IsEmpty(); };
  if (!c.CheckWired() || !c.SigmaClipping() || !c.ApplyMask()) return AsdSpotPosition::DetectionFailed;
  if (!c.InputImageHasTooManySaturatedPixels()) return AsdSpotPosition::TooManySaturatedPixels;
  if (!c.Regionize()) return AsdSpotPosition::DetectionFailed;
  if (empty()) return AsdSpotPosition::NoSignificantSpot;
  if (!c.DropInsignificantRegions()) return AsdSpotPosition::DetectionFailed;
  if (empty()) return AsdSpotPosition::NoSignificantSpot;
  if (!c.ApplyRegionRestrictor()) return AsdSpotPosition::DetectionFailed;
  if (empty()) return AsdSpotPosition::NoSignificantSpot;
  if (!c.InvalidateInsignificantRegions() || !c.ReassignRegionIds() || !c.RegionsToProperties()) {
    return AsdSpotPosition::DetectionFailed;
  }
  return c.GetSpotPosition();
}

// A detection reads only the foreground rows that can hold a region; whatever rows those are (a
// square of interest cutting the frame, spots at the first and last rows, no spot at all, an input
// window whose margins are copied into the foreground), the region map, the regions, the spots'
// moments and the properties are those of the plain steps, to the bit.
TEST(ControllerTest, DetectionFindsTheRegionsTheStepsInTurnFind) {
  struct Case {
    const char* name;
    std::vector<Testing::GaussianSpot> spots;
    double halfWidth;
    bool windowed;
  };
  const std::vector<Case> cases = {
      {"square cuts the frame", {{60.3, 30.8, 3.0, 3.0, 240.0}, {35.0, 50.0, 2.0, 2.0, 120.0}}, 30.0, false},
      {"spots on the first and last rows",
       {{20.0, 0.4, 2.0, 2.0, 300.0}, {70.0, 79.2, 2.0, 2.0, 200.0}},
       1e6,
       false},
      {"one spot near the centre", {{52.0, 44.0, 2.5, 2.0, 400.0}}, 1e6, false},
      {"no spot", {}, 1e6, false},
      {"input window", {{60.3, 30.8, 3.0, 3.0, 240.0}}, 1e6, true},
  };
  Testing::SeededRandom random(43);
  SCOPED_TRACE(random.Describe());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Testing::SpotScene scene;
    scene.background = 30.0;
    scene.noiseSigma = 0.5;
    scene.saturationLevel = 65535;
    scene.spots = c.spots;
    Rig rig(80, 100, scene, &random);
    if (c.windowed) rig.image.SetWindow(Window2D(5, 7, 60, 80));
    rig.board.interestRegionRadius = c.halfWidth;
    rig.board.reticleCenterR = 3.5;
    AsdBoard steps = rig.board;
    const AsdSpotPosition detected = AsdController(rig.board).DetectSpotPosition();
    EXPECT_EQ(detected, StepsInTurn(steps));
    const AsdBoard& d = rig.board;
    ASSERT_EQ(d.regionIdMap.GetMatrixWindow(), steps.regionIdMap.GetMatrixWindow());
    EXPECT_EQ(d.regionIdMap.GetWindow(), steps.regionIdMap.GetWindow());
    for (std::int64_t i = 0; i < d.regionIdMap.GetCount(); ++i)
      ASSERT_EQ(d.regionIdMap.At(i), steps.regionIdMap.At(i)) << "pixel " << i;
    ASSERT_EQ(d.regions.Size(), steps.regions.Size());
    for (int i = 0; i < d.regions.Size(); ++i) {
      EXPECT_EQ(d.regions[i].id, steps.regions[i].id);
      EXPECT_EQ(d.regions[i].pixelCount, steps.regions[i].pixelCount);
      EXPECT_EQ(d.regions[i].window, steps.regions[i].window);
    }
    ASSERT_EQ(d.spotInfoList->Size(), steps.spotInfoList->Size());
    for (int i = 0; i < d.spotInfoList->Size(); ++i) {
      const AsdSpotInfo& a = (*d.spotInfoList)[i];
      const AsdSpotInfo& b = (*steps.spotInfoList)[i];
      EXPECT_EQ(a.GetSum(), b.GetSum());
      EXPECT_EQ(a.CenterOfMassX(), b.CenterOfMassX());
      EXPECT_EQ(a.CenterOfMassY(), b.CenterOfMassY());
      EXPECT_EQ(a.GetRegionInfo().window, b.GetRegionInfo().window);
    }
    for (const std::string& key : steps.properties.GetKeys())
      EXPECT_EQ(d.properties.Get(key), steps.properties.Get(key)) << key;
    if (!c.spots.empty()) {
      EXPECT_FALSE(d.spotInfoList->IsEmpty());
    }
  }
}

TEST(ControllerTest, WithoutABoardOrASpotListNothingRuns) {
  AsdController unbound;
  EXPECT_EQ(unbound.DetectSpotPosition(), AsdSpotPosition::DetectionFailed);

  Testing::SpotScene scene;
  scene.background = 20.0;
  scene.spots = {{40, 20, 3.0, 3.0, 150.0}};
  Rig rig(64, 64, scene, nullptr);
  rig.board.Finalize();  // no spot list, no dictionary
  EXPECT_EQ(AsdController(rig.board).DetectSpotPosition(), AsdSpotPosition::DetectionFailed);
  EXPECT_EQ(rig.board.status.GetCode(), StatusCode::kNotSet);
  EXPECT_NE(rig.board.status.GetMessage().find("initialize"), std::string::npos)
      << rig.board.status.GetMessage();

  rig.board.Initialize();
  rig.board.properties.Finalize();  // a list but no dictionary
  EXPECT_EQ(AsdController(rig.board).DetectSpotPosition(), AsdSpotPosition::DetectionFailed);
  EXPECT_NE(rig.board.status.GetMessage().find("property dictionary"), std::string::npos);
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment

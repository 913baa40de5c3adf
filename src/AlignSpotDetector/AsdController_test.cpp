// The steps of the align spot detector one by one: the one-pass pixel operations against their plain
// references, the noise the sigma clipping measures, the wiring test, the dropping of faint regions
// and the saturation count.
#include "AlignSpotDetector/AsdController.h"

#include <climits>
#include <cmath>
#include <functional>
#include <ostream>
#include <string>
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
constexpr double kUndefined = 1.7976931348623157e308;

// Random images in several value ranges: 8-bit, 16-bit, signed, and values near the top of the int
// range whose squares overflow 64 bits within a row. A few pixels are invalid; images carry an origin
// away from 0 and some a window. Some images have rows of a narrow spread around a level of their
// own, and rows without a valid pixel, so that rows lie wholly inside, wholly outside or across a
// band (the fast band statistics treat the three differently).
struct ImageKind {
  const char* name;
  int lo;
  int hi;
};

void PrintTo(const ImageKind& kind, std::ostream* out) {
  *out << kind.name;
}

IntMatrix2D RandomImage(Testing::SeededRandom& random, const ImageKind& kind, int trial) {
  IntMatrix2D image(random.UniformInt(1, 40), random.UniformInt(1, 50));
  image.SetOrigin(random.UniformInt(-20, 20), random.UniformInt(-20, 20));
  const double span = static_cast<double>(kind.hi) - kind.lo;
  const int spread = static_cast<int>(std::min(span, trial % 3 == 1 ? 3.0 : span / 50));
  for (int r = 0; r < image.GetRows(); ++r) {
    const bool levelled = trial % 3 != 0, empty = levelled && random.Uniform(0, 1) < 0.1;
    const int level = random.UniformInt(kind.lo, kind.hi - spread);
    for (int c = 0; c < image.GetColumns(); ++c) {
      if (levelled) {
        image.Row(r)[c] = empty ? kInvalid : level + random.UniformInt(0, spread);
      } else {
        image.Row(r)[c] = random.Uniform(0, 1) < 0.05 ? kInvalid : random.UniformInt(kind.lo, kind.hi);
      }
    }
  }
  if (trial % 2 == 1) {
    const int r0 = random.UniformInt(0, image.GetRows() - 1),
              c0 = random.UniformInt(0, image.GetColumns() - 1);
    image.SetWindow(Window2D(image.GetStartRow() + r0, image.GetStartCol() + c0,
                             random.UniformInt(0, image.GetRows() - r0),
                             random.UniformInt(0, image.GetColumns() - c0)));
  }
  return image;
}

// The image with every pixel outside its window invalid: what the split examines.
IntMatrix2D WindowOnly(const IntMatrix2D& image) {
  IntMatrix2D copy = image;
  const Window2D w = image.GetWindow();
  for (int r = 0; r < copy.GetRows(); ++r) {
    for (int c = 0; c < copy.GetColumns(); ++c) {
      if (!w.Contains(r + copy.GetStartRow(), c + copy.GetStartCol())) copy(r, c) = kInvalid;
    }
  }
  return copy;
}

void ExpectSameImage(const IntMatrix2D& actual, const IntMatrix2D& expected, const char* what) {
  ASSERT_EQ(actual.GetMatrixWindow(), expected.GetMatrixWindow()) << what;
  EXPECT_EQ(actual.GetWindow(), expected.GetWindow()) << what;
  for (std::int64_t i = 0; i < actual.GetCount(); ++i)
    ASSERT_EQ(actual.At(i), expected.At(i)) << what << ", element " << i;
}

void ExpectSameStatistics(const detail::BandStatistics& a, const detail::BandStatistics& b) {
  EXPECT_EQ(a.count, b.count);
  EXPECT_EQ(a.mean, b.mean);
  EXPECT_EQ(a.stdDev, b.stdDev);
}

class PixelOperationTest : public ::testing::TestWithParam<ImageKind> {};

// Every fast pixel operation against its plain reference on the same random image: the band
// statistics (exact integer sums, both paths to the bit; SurfaceStats of the clipped image sums
// doubles), sigma clipping's two statistics (StatisticsInBand twice), the split (a copy of the window
// clipped both ways), the mask (the per-pixel rule; centres on, between and off pixels, radii that
// put pixel centres exactly on the obscuration's edge, half-widths on the square's edge, a negative
// one) and the one-pass split, mask and count (the three in turn).
TEST_P(PixelOperationTest, FastPathsEqualTheirPlainReferences) {
  const ImageKind kind = GetParam();
  Testing::SeededRandom random(1000 + kind.lo % 97);
  SCOPED_TRACE(random.Describe());
  const double scale =
      std::max(std::fabs(static_cast<double>(kind.lo)), std::fabs(static_cast<double>(kind.hi)));
  IntMatrix2D inside, outside;  // reused, as the board reuses its images
  for (int trial = 0; trial < 300; ++trial) {
    SCOPED_TRACE("trial " + std::to_string(trial));
    const IntMatrix2D image = RandomImage(random, kind, trial);
    int lo = random.UniformInt(kind.lo, kind.hi);
    int hi = random.UniformInt(lo, kind.hi);
    if (trial % 5 == 0) lo = INT_MIN, hi = INT_MAX;

    IntMatrix2D keep = WindowOnly(image), drop = WindowOnly(image);
    Clipper::Clip(keep, lo, hi);
    Clipper::RemoveInside(drop, lo, hi);
    SurfaceStats reference;
    reference.Calculate(keep);
    const detail::BandStatistics fast = detail::StatisticsInBand(image, lo, hi);
    ASSERT_EQ(fast.count, reference.GetCount());
    ExpectSameStatistics(fast, detail::StatisticsInBand(image, lo, hi, detail::PixelPath::kReference));
    // Summed in doubles, the reference's mean is off by up to count ulp of the largest value, its
    // deviation by as much relative to the spread.
    EXPECT_NEAR(fast.mean, reference.GetMean(), 1e-15 * scale * (1 + fast.count));
    EXPECT_NEAR(fast.stdDev, reference.GetStdDev(), 1e-13 * scale * (1 + fast.count));

    const double k = std::vector<double>{0.0, 0.5, 1.0, 3.0, random.Uniform(0, 5)}[trial % 5];
    detail::BandStatistics all, floor;
    detail::ClippedStatistics(image, k, all, floor);
    const detail::BandStatistics allReference =
        detail::StatisticsInBand(image, INT_MIN, INT_MAX, detail::PixelPath::kReference);
    ExpectSameStatistics(all, allReference);
    ExpectSameStatistics(floor, detail::StatisticsInBand(
                                    image, detail::TruncateToInt(allReference.mean - k * allReference.stdDev),
                                    detail::TruncateToInt(allReference.mean + k * allReference.stdDev),
                                    detail::PixelPath::kReference));

    ASSERT_TRUE(detail::SplitAtBand(image, lo, hi, inside, outside));
    ExpectSameImage(inside, keep, "band");
    ExpectSameImage(outside, drop, "beyond the band");

    const Window2D m = image.GetMatrixWindow();
    double cx = random.UniformInt(m.GetStartCol() - 5, m.GetEndCol() + 5);
    double cy = random.UniformInt(m.GetStartRow() - 5, m.GetEndRow() + 5);
    if (trial % 4 == 1) cx += 0.5, cy -= 0.5;
    if (trial % 4 == 2) cx += random.Uniform(-1, 1), cy += random.Uniform(-1, 1);
    const double radius =
        std::vector<double>{0.0, 5.0, 10.0, std::sqrt(2.0), random.Uniform(0, 30)}[trial % 5];
    const double halfWidth = std::vector<double>{0.0, 3.0, 12.5, 1e9, random.Uniform(0, 40), -1.0}[trial % 6];
    IntMatrix2D masked = drop, maskedReference = drop;
    detail::ApplySquareAndObscurationMask(masked, cx, cy, halfWidth, radius);
    detail::ApplySquareAndObscurationMaskReference(maskedReference, cx, cy, halfWidth, radius);
    ExpectSameImage(masked, maskedReference, "mask");

    const int threshold = random.UniformInt(kind.lo, kind.hi);
    std::int64_t count = -1;
    detail::RowSpan rows{-1, -1};
    ASSERT_TRUE(detail::SplitMaskAndCount(image, lo, hi, cx, cy, halfWidth, radius, threshold, inside,
                                          outside, count, &rows));
    ExpectSameImage(inside, keep, "band, one pass");
    ExpectSameImage(outside, maskedReference, "masked foreground, one pass");
    EXPECT_EQ(count, detail::CountAtOrAbove(maskedReference, threshold));
    // The rows said to hold the foreground's valid pixels hold every one of them.
    ASSERT_TRUE(0 <= rows.first && rows.first <= rows.end && rows.end <= image.GetRows());
    for (int r = 0; r < image.GetRows(); ++r) {
      for (int c = 0; c < image.GetColumns() && (r < rows.first || r >= rows.end); ++c)
        ASSERT_EQ(outside.Row(r)[c], kInvalid) << "row " << r << ", column " << c;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Ranges, PixelOperationTest,
                         ::testing::Values(ImageKind{"8bit", 0, 255}, ImageKind{"16bit", 0, 65535},
                                           ImageKind{"signed", -40000, 40000},
                                           ImageKind{"huge", 2000000000, 2147483639},
                                           ImageKind{"hugeSigned", -2147483647 - 1, 2147483639}),
                         [](const auto& info) { return std::string(info.param.name); });

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

// The literal recipe: copy, statistics, clip both ways, statistics of the clipped background, copy
// again, clip again; the one-pass step must leave the same images and the same sigma.
//
// Physics of what it measures: the first band m -/+ 6 s is set by the whole image, spot included, so
// the first background keeps, besides the read noise, the spot's wings below the band's upper edge V
// (counts above the background). A Gaussian spot of widths sx, sy covers an area 2 pi sx sy / v dv
// between v and v + dv, so its wings add pi sx sy V^2 to the sum of squares and 2 pi sx sy V to the
// sum over the N pixels. Expected:
//   sigma^2 = noise^2 + 1/12 (rounding) + pi sx sy V^2 / N - (2 pi sx sy V / N)^2.
TEST(SigmaClippingTest, StepEqualsTheLiteralRecipeAndTheBackgroundHoldsNoiseAndWings) {
  Testing::SeededRandom random(4242);
  SCOPED_TRACE(random.Describe());
  for (const auto& [noise, peak] : std::vector<std::pair<double, double>>{{0.7, 40}, {12, 200}, {3, 20000}}) {
    Testing::SpotScene scene;
    scene.background = 400.0;
    scene.noiseSigma = noise;
    scene.saturationLevel = 65535;
    scene.spots = {{100.3, 80.6, 4.0, 5.0, peak}};
    Rig rig(160, 200, scene, &random);
    ASSERT_TRUE(AsdController(rig.board).SigmaClipping());

    const double k = rig.board.clipThatManySigmas;
    IntMatrix2D foreground = rig.image, background = rig.image;
    SurfaceStats stats;
    stats.Calculate(rig.image);
    const int hi = static_cast<int>(stats.GetMean() + k * stats.GetStdDev());
    Clipper::Clip(background, static_cast<int>(stats.GetMean() - k * stats.GetStdDev()), hi);
    stats.Calculate(background);
    const double sigma = stats.GetStdDev();
    background = rig.image;
    const int lo2 = static_cast<int>(stats.GetMean() - k * sigma),
              hi2 = static_cast<int>(stats.GetMean() + k * sigma);
    Clipper::Clip(background, lo2, hi2);
    Clipper::RemoveInside(foreground, lo2, hi2);
    EXPECT_NEAR(rig.board.backgroundSigma, sigma, 1e-12 * sigma);
    ExpectSameImage(rig.board.foreground, foreground, "foreground");
    ExpectSameImage(rig.board.background, background, "background");

    const double n = static_cast<double>(rig.image.GetCount());
    const double area = std::acos(-1.0) * 4.0 * 5.0;  // pi sx sy
    const double wing = std::min(peak, hi - scene.background);
    const double expected =
        std::sqrt(noise * noise + 1.0 / 12.0 + area * wing * wing / n - std::pow(2.0 * area * wing / n, 2));
    // A measured sigma scatters by sigma / sqrt(2 N) = 0.4 % of itself over 32000 pixels; the wing
    // integral treats counts as continuous, good to a few percent of the wing term.
    EXPECT_NEAR(rig.board.backgroundSigma, expected,
                5.0 * expected / std::sqrt(2.0 * n) + 0.03 * (expected - noise))
        << "noise " << noise << ", peak " << peak;
  }
}

// The ten wiring conditions, in the order they are tested: making any one fail (and only it) gives
// code 4 without a message, from the controller, at a line that grows with the order, and nothing
// runs. With several failing, the last one tested names the status.
TEST(AsdCheckWiredTest, EachConditionFailsAloneAtItsOwnLineAndTheLastFailureWins) {
  IntMatrix2D image(4, 4);
  image.SetAll(3);
  const auto wired = [&] {
    AsdBoard board;
    board.Initialize();
    board.input = &image;
    board.interestRegionRadius = 10;
    board.reticleCenterX = board.reticleCenterY = 2;
    board.reticleCenterR = 1;
    return board;
  };
  const std::vector<std::function<void(AsdBoard&)>> breakers = {
      [](AsdBoard& b) { b.input = nullptr; },
      [](AsdBoard& b) { b.maxNumberOfSaturatedPixels = 2147483640; },
      [](AsdBoard& b) { b.interestRegionRadius = kUndefined; },
      [](AsdBoard& b) { b.reticleCenterX = kUndefined; },
      [](AsdBoard& b) { b.reticleCenterY = INFINITY; },
      [](AsdBoard& b) { b.reticleCenterR = kUndefined; },
      [](AsdBoard& b) { b.clipThatManySigmas = kUndefined; },
      [](AsdBoard& b) { b.dropThatManySigmas = kUndefined; },
      [](AsdBoard& b) { b.dropBelowThisFraction = kUndefined; },
      [](AsdBoard& b) { b.saturationThreshold = kUndefined; },
  };
  AsdBoard complete = wired();
  complete.backgroundSigma = kUndefined;  // written by the run, never tested
  EXPECT_TRUE(AsdController(complete).CheckWired());
  EXPECT_TRUE(complete.status.IsOk());
  std::vector<unsigned> lines = {0};
  for (std::size_t i = 0; i < breakers.size(); ++i) {
    AsdBoard board = wired();
    breakers[i](board);
    EXPECT_EQ(AsdController(board).DetectSpotPosition(), AsdSpotPosition::DetectionFailed)
        << "condition " << i;
    EXPECT_EQ(board.status.GetCode(), StatusCode::kControllerFailed) << "condition " << i;
    EXPECT_EQ(board.status.GetMessage(), "") << "condition " << i;
    EXPECT_EQ(board.status.GetFile(), "AlignSpotDetector\\AsdController");
    EXPECT_GT(board.status.GetLine(), lines.back()) << "condition " << i << " is tested after " << i - 1;
    EXPECT_EQ(board.foreground.GetCount(), 0) << "no step runs after a failed wiring test";
    lines.push_back(board.status.GetLine());
  }
  AsdBoard board = wired();
  breakers[2](board);
  breakers[0](board);
  breakers[7](board);
  EXPECT_FALSE(AsdController(board).CheckWired());
  EXPECT_EQ(board.status.GetLine(), lines[8]) << "the last failing test is left behind";
}

// Lone hot pixels on a dark frame: background 10 counts, read noise 3 (sigma about 3.01 with the
// rounding), so pixels above about 28 counts stand out (6 sigma) but a region needs a sum of 12 sigma,
// about 36 counts. Pixels of 31 to 35 counts are regions of one pixel that only the absolute threshold
// drops: each holds far more than 5 % of the brightest, so the relative threshold keeps them all.
TEST(DropTest, RegionsBelowTwelveBackgroundSigmasGoWhateverTheirShareOfTheLight) {
  struct Case {
    int brightest;
    double dropSigmas;
    int expected;
  };
  for (const Case& c : {Case{35, 12.0, AsdSpotPosition::NoSignificantSpot},
                        Case{35, 0.0, AsdSpotPosition::TooManySignificantSpots},
                        Case{40, 12.0, AsdSpotPosition::Quadrant4}}) {
    Testing::SeededRandom random(13);
    SCOPED_TRACE(random.Describe());
    Testing::SpotScene scene;
    scene.background = 10.0;
    scene.noiseSigma = 3.0;
    scene.saturationLevel = 65535;
    Rig rig(128, 128, scene, &random);
    rig.image(20, 20) = 31;
    rig.image(20, 100) = 33;
    rig.image(100, 20) = 35;
    rig.image(100, 100) = c.brightest;
    rig.board.dropThatManySigmas = c.dropSigmas;
    EXPECT_EQ(AsdController(rig.board).DetectSpotPosition(), c.expected) << "brightest " << c.brightest;
    ASSERT_TRUE(35 < 12 * rig.board.backgroundSigma && 12 * rig.board.backgroundSigma < 40)
        << "the case this test is about: sigma " << rig.board.backgroundSigma;
    if (c.expected == AsdSpotPosition::Quadrant4) {
      EXPECT_EQ(rig.board.properties.Get("Region.0.CenterOfMassX"), "100");
    }
  }
}

// Exactly maxNumberOfSaturatedPixels saturated foreground pixels pass; one more does not; a threshold
// of 249.7 counts pixels of 249 (truncation toward zero); saturated pixels outside the square of
// interest or under the obscuration do not count.
TEST(SaturationTest, TheLimitPassesTheThresholdIsTruncatedAndMaskedPixelsDoNotCount) {
  Testing::SpotScene scene;
  scene.background = 20.0;
  scene.noiseSigma = 1.0;
  scene.spots = {{40, 20, 3.0, 3.0, 150.0}};
  struct Case {
    int count, value;
    double threshold;
    bool tooMany;
  };
  for (const Case& c : {Case{32, 250, 250.0, false}, Case{33, 250, 250.0, true}, Case{33, 249, 250.0, false},
                        Case{33, 249, 249.7, true}}) {
    Testing::SeededRandom random(8);
    SCOPED_TRACE(random.Describe());
    Rig rig(64, 64, scene, &random);
    rig.board.interestRegionRadius = 25.0;  // the square spans columns and rows 7 to 57
    rig.board.saturationThreshold = c.threshold;
    for (int i = 0; i < c.count; ++i)
      rig.image(18 + i / 6, 38 + i % 6) = c.value;
    for (int col = 0; col < 64; ++col)
      rig.image(62, col) = 255;  // outside the square
    for (int r = 31; r <= 33; ++r)
      rig.image(r, 32) = 255;  // under the obscuration
    const AsdSpotPosition position = AsdController(rig.board).DetectSpotPosition();
    EXPECT_EQ(position, c.tooMany ? AsdSpotPosition::TooManySaturatedPixels : AsdSpotPosition::Quadrant1)
        << c.count << " pixels of " << c.value << ", threshold " << c.threshold;
    EXPECT_TRUE(rig.board.status.IsOk());
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

// A detection splits, masks and counts in one pass and reads only the foreground rows that can hold a
// region; whatever rows those are (a square of interest cutting the frame, spots on the first and last
// rows, no spot at all, an input window), the images, the region map, the spots and the properties are
// those of the plain steps, to the bit.
TEST(AsdControllerTest, DetectionLeavesWhatThePlainStepsLeave) {
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
    EXPECT_EQ(AsdController(rig.board).DetectSpotPosition(), StepsInTurn(steps));
    const AsdBoard& d = rig.board;
    EXPECT_EQ(d.backgroundSigma, steps.backgroundSigma);
    ExpectSameImage(d.foreground, steps.foreground, "foreground");
    ExpectSameImage(d.background, steps.background, "background");
    ExpectSameImage(d.regionIdMap, steps.regionIdMap, "region map");
    ASSERT_EQ(d.spotInfoList->Size(), steps.spotInfoList->Size());
    EXPECT_EQ(d.spotInfoList->IsEmpty(), c.spots.empty());
    for (int i = 0; i < d.spotInfoList->Size(); ++i) {
      const AsdSpotInfo& a = (*d.spotInfoList)[i];
      const AsdSpotInfo& b = (*steps.spotInfoList)[i];
      EXPECT_EQ(a.GetSum(), b.GetSum());
      EXPECT_EQ(a.CenterOfMassX(), b.CenterOfMassX());
      EXPECT_EQ(a.CenterOfMassY(), b.CenterOfMassY());
      EXPECT_EQ(a.GetRegionInfo().window, b.GetRegionInfo().window);
    }
    EXPECT_EQ(d.properties.GetKeys(), steps.properties.GetKeys());
    for (const std::string& key : steps.properties.GetKeys())
      EXPECT_EQ(d.properties.Get(key), steps.properties.Get(key)) << key;
  }
}

TEST(AsdControllerTest, WithoutABoardOrASpotListNothingRuns) {
  EXPECT_EQ(AsdController().DetectSpotPosition(), AsdSpotPosition::DetectionFailed);
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

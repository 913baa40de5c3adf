// The steps of the align spot detector one by one: the one-pass pixel operations against their
// plain references, the one-pass detection against the literal recipe and the plain steps, the
// wiring test, the dropping of faint regions and the saturation count.
#include "AlignSpotDetector/AsdController.h"

#include <climits>
#include <cmath>
#include <functional>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "AlignSpotDetector/detail/SpotImageOps.h"
#include "Analysis/Core/Clipper.h"
#include "Analysis/Core/SurfaceStats.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticSpot.h"

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
// range whose squares overflow 64 bits within a row. A few pixels are invalid and a few sit exactly
// on the range's ends; images carry an origin away from 0 and some a window. Some images have rows
// of a narrow spread around a level of their own, and rows without a valid pixel, so that rows lie
// wholly inside, wholly outside or across a band (the fast band statistics treat the three
// differently).
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
      const double u = random.Uniform(0, 1);
      if (levelled) {
        image.Row(r)[c] = empty ? kInvalid : level + random.UniformInt(0, spread);
      } else if (u < 0.09) {
        image.Row(r)[c] = u < 0.05 ? kInvalid : u < 0.07 ? kind.lo : kind.hi;
      } else {
        image.Row(r)[c] = random.UniformInt(kind.lo, kind.hi);
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
    detail::BandStatistics all, floor, allReference, floorReference;
    detail::ClippedStatistics(image, k, all, floor);
    detail::ClippedStatistics(image, k, allReference, floorReference, detail::PixelPath::kReference);
    ExpectSameStatistics(all, allReference);
    ExpectSameStatistics(floor, floorReference);

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

// The rules both paths share, which comparing them cannot see. The mask, with centre (10, 10),
// obscuration radius 5 and half-width 8: (13, 14) is exactly 5 away and stays, as does (18, 10)
// exactly 8 away in x; (19, 10) and (12, 12) go. Band limits truncate toward zero and saturate to
// the int range (a pathological image's m -/+ k s must not overflow the conversion); NaN gives 0.
TEST(PixelRuleTest, MaskEdgesAndBandLimits) {
  IntMatrix2D image(21, 21);
  image.SetAll(7);
  detail::ApplySquareAndObscurationMask(image, 10.0, 10.0, 8.0, 5.0);
  EXPECT_EQ(image(14, 13), 7);
  EXPECT_EQ(image(10, 18), 7);
  EXPECT_EQ(image(2, 10), 7);
  EXPECT_EQ(image(10, 19), kInvalid);
  EXPECT_EQ(image(1, 10), kInvalid);
  EXPECT_EQ(image(12, 12), kInvalid);

  EXPECT_EQ(detail::TruncateToInt(2.9), 2);
  EXPECT_EQ(detail::TruncateToInt(-2.9), -2);
  EXPECT_EQ(detail::TruncateToInt(3e9), INT_MAX);
  EXPECT_EQ(detail::TruncateToInt(-3e9), INT_MIN);
  EXPECT_EQ(detail::TruncateToInt(std::nan("")), 0);
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

// A detection measures the background, splits, masks and counts in one pass and reads only the
// foreground rows that can hold a region. Its sigma and images are those of the literal recipe,
// built here from SurfaceStats and Clipper: statistics of the input; clip it to m -/+ k s (limits
// truncated toward zero); the clipped background's statistics give sigma and the final band, which
// splits the input again; the mask follows. Its region map, spots and properties are those of the
// plain steps. Whatever rows the foreground holds (a square of interest cutting the frame, spots on
// the first and last rows, no spot at all, an input window), all agree to the bit.
TEST(AsdControllerTest, DetectionLeavesWhatTheRecipeAndThePlainStepsLeave) {
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
    Rig rig(80, 100, {.background = 30.0, .noiseSigma = 0.5, .saturationLevel = 65535, .spots = c.spots},
            &random);
    if (c.windowed) rig.image.SetWindow(Window2D(5, 7, 60, 80));
    rig.board.interestRegionRadius = c.halfWidth;
    rig.board.reticleCenterR = 3.5;
    AsdBoard steps = rig.board;
    EXPECT_EQ(AsdController(rig.board).DetectSpotPosition(), StepsInTurn(steps));
    const AsdBoard& d = rig.board;

    const double k = d.clipThatManySigmas;
    SurfaceStats stats;
    stats.Calculate(rig.image);
    IntMatrix2D background = WindowOnly(rig.image);
    Clipper::Clip(background, static_cast<int>(stats.GetMean() - k * stats.GetStdDev()),
                  static_cast<int>(stats.GetMean() + k * stats.GetStdDev()));
    stats.Calculate(background);
    const int lo = static_cast<int>(stats.GetMean() - k * stats.GetStdDev()),
              hi = static_cast<int>(stats.GetMean() + k * stats.GetStdDev());
    background = WindowOnly(rig.image);
    IntMatrix2D foreground = background;
    Clipper::Clip(background, lo, hi);
    Clipper::RemoveInside(foreground, lo, hi);
    detail::ApplySquareAndObscurationMaskReference(foreground, d.reticleCenterX, d.reticleCenterY,
                                                   c.halfWidth, d.reticleCenterR);
    EXPECT_NEAR(d.backgroundSigma, stats.GetStdDev(), 1e-12 * stats.GetStdDev());
    ExpectSameImage(d.background, background, "background");
    ExpectSameImage(d.foreground, foreground, "foreground");
    ExpectSameImage(steps.foreground, foreground, "foreground of the plain steps");

    ExpectSameImage(d.regionIdMap, steps.regionIdMap, "region map");
    ASSERT_EQ(d.spotInfoList->Size(), steps.spotInfoList->Size());
    EXPECT_EQ(d.spotInfoList->IsEmpty(), c.spots.empty());
    const auto moments = [](const AsdSpotInfo& s) {
      return std::make_tuple(s.GetSum(), s.CenterOfMassX(), s.CenterOfMassY(), s.GetRegionInfo().window);
    };
    for (int i = 0; i < d.spotInfoList->Size(); ++i)
      EXPECT_EQ(moments((*d.spotInfoList)[i]), moments((*steps.spotInfoList)[i])) << "spot " << i;
    EXPECT_EQ(d.properties.GetKeys(), steps.properties.GetKeys());
    for (const std::string& key : steps.properties.GetKeys())
      EXPECT_EQ(d.properties.Get(key), steps.properties.Get(key)) << key;
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
  std::vector<unsigned> lines = {0};
  for (std::size_t i = 0; i < breakers.size(); ++i) {
    SCOPED_TRACE("condition " + std::to_string(i));
    AsdBoard board = wired();
    breakers[i](board);
    EXPECT_EQ(AsdController(board).DetectSpotPosition(), AsdSpotPosition::DetectionFailed);
    EXPECT_EQ(board.status.GetCode(), StatusCode::kControllerFailed);
    EXPECT_EQ(board.status.GetMessage(), "");
    EXPECT_EQ(board.status.GetFile(), "AlignSpotDetector\\AsdController");
    EXPECT_GT(board.status.GetLine(), lines.back()) << "tested after the one before";
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

TEST(AsdControllerTest, WithoutABoardOrASpotListNothingRuns) {
  EXPECT_EQ(AsdController().DetectSpotPosition(), AsdSpotPosition::DetectionFailed);
  Rig rig(64, 64, {.background = 20.0, .spots = {{40, 20, 3.0, 3.0, 150.0}}}, nullptr);
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

// Lone hot pixels on a dark frame: background 10 counts, read noise 3 (sigma about 3.01 with the
// rounding), so pixels above about 28 counts stand out (6 sigma) but a region needs a sum of 12 sigma,
// about 36 counts. Pixels of 31 to 35 counts are regions of one pixel that only the absolute threshold
// drops: each holds far more than 5 % of the brightest, so the relative threshold keeps them all.
// Each lies in a quadrant of its own, so a quadrant as the outcome names the one that stayed.
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
    Rig rig(128, 128, {.background = 10.0, .noiseSigma = 3.0, .saturationLevel = 65535, .spots = {}},
            &random);
    rig.image(20, 20) = 31;
    rig.image(20, 100) = 33;
    rig.image(100, 20) = 35;
    rig.image(100, 100) = c.brightest;
    rig.board.dropThatManySigmas = c.dropSigmas;
    EXPECT_EQ(AsdController(rig.board).DetectSpotPosition(), c.expected) << "brightest " << c.brightest;
    ASSERT_TRUE(35 < 12 * rig.board.backgroundSigma && 12 * rig.board.backgroundSigma < 40)
        << "the case this test is about: sigma " << rig.board.backgroundSigma;
  }
}

// Exactly maxNumberOfSaturatedPixels saturated foreground pixels pass; one more does not; a threshold
// of 249.7 counts pixels of 249 (truncation toward zero); saturated pixels outside the square of
// interest or under the obscuration do not count.
TEST(SaturationTest, TheLimitPassesTheThresholdIsTruncatedAndMaskedPixelsDoNotCount) {
  struct Case {
    int count, value;
    double threshold;
    bool tooMany;
  };
  for (const Case& c : {Case{32, 250, 250.0, false}, Case{33, 250, 250.0, true}, Case{33, 249, 250.0, false},
                        Case{33, 249, 249.7, true}}) {
    Testing::SeededRandom random(8);
    SCOPED_TRACE(random.Describe());
    Rig rig(64, 64, {.background = 20.0, .noiseSigma = 1.0, .spots = {{40, 20, 3.0, 3.0, 150.0}}}, &random);
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
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment

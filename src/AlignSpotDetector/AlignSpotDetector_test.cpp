// The align spot detector on synthetic camera frames of known truth: where the spot is, how exactly
// its centre of mass comes back, every outcome, the published results and the status rules.
#include "AlignSpotDetector/AlignSpotDetector.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "Testing/FailingAllocations.h"

#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticSpot.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {
namespace {

using Analysis::Core::IntMatrix2D;
using Testing::GaussianSpot;
using Testing::SpotScene;
namespace StatusCode = Analysis::Core::StatusCode;

// A detector looking at `image` around the reticle centre (cx, cy), with an obscuration of radius
// r0 and a square of interest of half-width `halfWidth`; the saturation threshold sits at the
// camera's full scale (16-bit frames unless said otherwise).
void Wire(AlignSpotDetector& detector, const IntMatrix2D& image, double cx, double cy, double r0,
          double halfWidth, double saturation = 65535.0) {
  detector.Initialize();
  detector.SetReticleCenterX(cx);
  detector.SetReticleCenterY(cy);
  detector.SetReticleCenterR(r0);
  detector.SetInterestRegionRadius(halfWidth);
  detector.SetSaturationThreshold(saturation);
  detector.SetInput(&image);
}

// Spots on a 16-bit frame with a background of 30 counts.
SpotScene Camera16(std::vector<GaussianSpot> spots, double noise = 1.0) {
  return {.background = 30.0, .noiseSigma = noise, .saturationLevel = 65535, .spots = std::move(spots)};
}

IntMatrix2D Frame(int rows, int cols, const SpotScene& scene, Testing::SeededRandom* random) {
  IntMatrix2D image(rows, cols);
  Testing::FillSpotImage(image, scene, random);
  return image;
}

double Property(const AlignSpotDetector& detector, const std::string& key) {
  return std::atof(detector.GetProperty(key).c_str());
}

// Centre-of-mass accuracy on a 16-bit frame of 256 x 256: a Gaussian spot (peak 4000 counts, widths
// 2.5 and 3 pixels) on a flat background of 10 counts with 1 count of read noise, at random
// sub-pixel positions. The spot's own wings widen the background sigma to about 9 counts, so the
// spot is cut where it falls to about 1.5 % of its peak. Read noise and rounding move the centre of
// mass by about 0.0003 pixel; the cut ring's pixels (about 60 counts at 8 pixels) do not balance
// exactly across the centre, each unbalanced one by 60 x 8 / 190000 = 0.0025 pixel. A few
// hundredths covers a handful of them (worst seen: 0.012). The widths are those of the noise-free
// scene over the spot's pixels in the region map, a few percent narrower than the Gaussian's.
TEST(CenterOfMassTest, SyntheticSpotComesBackWithinAFewHundredthsOfAPixel) {
  Testing::SeededRandom random(2026);
  SCOPED_TRACE(random.Describe());
  double worst = 0.0;
  for (int trial = 0; trial < 100; ++trial) {
    const GaussianSpot spot{random.Uniform(40, 60), random.Uniform(40, 60), 2.5, 3.0, 4000.0};
    const SpotScene scene{.background = 10.0, .noiseSigma = 1.0, .saturationLevel = 65535, .spots = {spot}};
    const IntMatrix2D image = Frame(256, 256, scene, &random);
    AlignSpotDetector detector;
    Wire(detector, image, 70.0, 70.0, 5.0, 60.0);
    ASSERT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::Quadrant2) << "left of and above (70, 70)";
    ASSERT_TRUE(detector.GetStatus().IsOk());
    // Properties hold six significant digits: 0.0001 pixel at these coordinates.
    const double ex = Property(detector, "Region.0.CenterOfMassX") - spot.centerX;
    const double ey = Property(detector, "Region.0.CenterOfMassY") - spot.centerY;
    EXPECT_LT(std::hypot(ex, ey), 0.03)
        << "trial " << trial << ": spot at (" << spot.centerX << ", " << spot.centerY << ")";
    worst = std::max(worst, std::hypot(ex, ey));

    IntMatrix2D ids;
    ASSERT_TRUE(detector.GetRegionIdMap(&ids));
    double sum = 0, sx = 0, sy = 0, sxx = 0, syy = 0;
    for (int r = 0; r < ids.GetRows(); ++r) {
      for (int c = 0; c < ids.GetColumns(); ++c) {
        const double w = IntMatrix2D::IsDataValid(ids(r, c)) ? scene.Intensity(c, r) : 0.0;
        sum += w, sx += w * c, sy += w * r, sxx += w * c * c, syy += w * r * r;
      }
    }
    const double sigmaX = std::sqrt(sxx / sum - sx * sx / sum / sum);
    const double sigmaY = std::sqrt(syy / sum - sy * sy / sum / sum);
    EXPECT_NEAR(Property(detector, "Region.0.SigmaX"), sigmaX, 0.005) << "trial " << trial;
    EXPECT_NEAR(Property(detector, "Region.0.SigmaY"), sigmaY, 0.005) << "trial " << trial;
    EXPECT_LT(sigmaX, spot.sigmaX) << "the cut narrows the spot";
  }
  RecordProperty("worst_center_of_mass_error_px", std::to_string(worst));
}

// Every outcome but a failure (StatusTest reaches that), each from a frame made to reach it; none
// touches the status. The reticle centre is at (64, 64), the obscuration radius 6, the square of
// interest 60 pixels either way. Rows grow downwards: "up" (quadrants 1 and 2) is a smaller row
// index than the centre's. A noise-free spot centred exactly on the centre's column counts as
// right, one exactly on its row as up.
struct OutcomeCase {
  const char* name;
  int expected;
  std::vector<GaussianSpot> spots;
  int saturationLevel = 65535;
  double noise = 1.5;
};

void PrintTo(const OutcomeCase& c, std::ostream* out) {
  *out << c.name;
}

class OutcomeTest : public ::testing::TestWithParam<OutcomeCase> {};

TEST_P(OutcomeTest, EachOutcomeIsReachedByAFrameBuiltForIt) {
  const OutcomeCase& c = GetParam();
  Testing::SeededRandom random(7);
  SCOPED_TRACE(random.Describe());
  SpotScene scene = Camera16(c.spots, c.noise);
  scene.saturationLevel = c.saturationLevel;
  const IntMatrix2D image = Frame(128, 128, scene, &random);
  AlignSpotDetector detector;
  Wire(detector, image, 64.0, 64.0, 6.0, 60.0, c.saturationLevel == 255 ? 250.0 : 65535.0);
  EXPECT_EQ(detector.DetectSpotPosition(), c.expected);
  EXPECT_TRUE(detector.GetStatus().IsOk())
      << "outcomes are not failures: " << detector.GetStatus().GetPrintString();
}

INSTANTIATE_TEST_SUITE_P(
    Frames, OutcomeTest,
    ::testing::Values(OutcomeCase{"Quadrant3", 3, {{30.6, 100.3, 3, 3, 3000}}},
                      // A wide spot over the obscuration: only its ring outside radius 6 is seen, and
                      // the ring's centre of mass is within 3 pixels of the reticle centre.
                      OutcomeCase{"SpotBehindObscuration", 5, {{65.3, 63.2, 7, 7, 3000}}},
                      // An 8-bit camera clipping a spot of 600 counts: some 50 pixels reach 250.
                      OutcomeCase{"TooManySaturatedPixels", 6, {{90, 40, 3, 3, 600}}, 255},
                      OutcomeCase{"NoSignificantSpot", 7, {}},
                      OutcomeCase{
                          "TooManySignificantSpots", 8, {{90, 40, 3, 3, 3000}, {30, 100, 3, 3, 2000}}},
                      OutcomeCase{"Quadrant1OnTheCentresColumn", 1, {{64, 30, 2, 2, 2000}}, 65535, 0.0},
                      OutcomeCase{"Quadrant4OnTheCentresColumn", 4, {{64, 98, 2, 2, 2000}}, 65535, 0.0},
                      OutcomeCase{"Quadrant2OnTheCentresRow", 2, {{30, 64, 2, 2, 2000}}, 65535, 0.0},
                      OutcomeCase{"Quadrant1OnTheCentresRow", 1, {{98, 64, 2, 2, 2000}}, 65535, 0.0}),
    [](const auto& info) { return std::string(info.param.name); });

// A square ring of pixels around the centre (all at least 5 pixels out, beyond the obscuration of
// radius 4) with its right column brighter: with 33 counts on the ring and 113 on the right column
// the centre of mass is exactly 55 x 80 / (40 x 33 + 11 x 80) = 2 pixels right of the centre, half
// the obscuration radius: behind the obscuration. One count more on the right column and it is out.
TEST(QuadrantConventionTest, HalfTheObscurationRadiusIsStillBehindIt) {
  for (const int right : {113, 114}) {
    IntMatrix2D image(41, 41);
    image.SetAll(0);
    for (int d = -5; d <= 5; ++d)
      image(20 - 5, 20 + d) = image(20 + 5, 20 + d) = image(20 + d, 20 - 5) = 33;
    for (int d = -5; d <= 5; ++d)
      image(20 + d, 20 + 5) = right;
    AlignSpotDetector detector;
    Wire(detector, image, 20.0, 20.0, 4.0, 15.0);
    const AsdSpotPosition position = detector.DetectSpotPosition();
    const double dx = Property(detector, "Region.0.CenterOfMassX") - 20.0;
    if (right == 113) {
      EXPECT_EQ(dx, 2.0);
      EXPECT_EQ(position, AsdSpotPosition::SpotBehindObscuration);
    } else {
      EXPECT_GT(dx, 2.0);
      EXPECT_EQ(position, AsdSpotPosition::Quadrant1) << "on the centre's row: right and up";
    }
  }
}

// Which spots a run keeps, how they are numbered and what it publishes. Three spots met by the
// region finder in the order top, middle, bottom, with the brightest at the top, and a fourth,
// sharp one of five pixels with 2.5 % of the brightest one's counts (below the drop fraction of 5
// %). The sharp one leaves the list and the map; the brightest carries the highest id (2) in the
// map and is Region.0 of the properties, the faintest carries id 0 and is Region.2. The fraction is
// clamped to [0, 1]: at 1 only the brightest reaches its share (an unclamped 1.5 would drop it
// too); NaN makes it undefined and the detection refuses to run. A new input empties the spot list;
// a run with one spot publishes its keys and leaves those of the earlier run's other spots in
// place.
TEST(SpotListTest, TheFaintAreDroppedTheBrightestCarriesTheHighestIdAndItsKeysArePublished) {
  Testing::SeededRandom random(3);
  SCOPED_TRACE(random.Describe());
  SpotScene scene = Camera16(
      {{30.25, 20.5, 3, 3, 3000}, {100, 60, 3, 3, 900}, {40, 100, 3, 3, 1800}, {100, 100, 0.7, 0.7, 1500}});
  const IntMatrix2D image = Frame(128, 128, scene, &random);
  AlignSpotDetector detector;
  Wire(detector, image, 64.0, 64.0, 6.0, 60.0);
  EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::TooManySignificantSpots);
  IntMatrix2D ids;
  ASSERT_TRUE(detector.GetRegionIdMap(&ids));
  EXPECT_EQ(ids(20, 30), 2);
  EXPECT_EQ(ids(100, 40), 1);
  EXPECT_EQ(ids(60, 100), 0);
  EXPECT_FALSE(IntMatrix2D::IsDataValid(ids(100, 100))) << "the faint spot left the map";
  EXPECT_EQ(detector.GetProperty("Regions.Size"), "3");
  EXPECT_NEAR(Property(detector, "Region.0.CenterOfMassX"), 30.25, 0.05);
  EXPECT_NEAR(Property(detector, "Region.1.CenterOfMassX"), 40, 0.05);
  EXPECT_NEAR(Property(detector, "Region.2.CenterOfMassX"), 100, 0.05);
  EXPECT_EQ(detector.GetProperty("Region.0").rfind("Id = 2, ", 0), 0u) << detector.GetProperty("Region.0");
  std::vector<AsdSpotInfo> spots = detector.GetSpots();
  ASSERT_EQ(spots.size(), 3u);
  for (const AsdSpotInfo& spot : spots) {
    EXPECT_EQ(std::count(ids.Data(), ids.Data() + ids.GetCount(), spot.GetId()), spot.GetSize())
        << "every pixel of spot " << spot.GetId() << " carries its new id";
  }
  EXPECT_EQ(ids.CountValid(), spots[0].GetSize() + spots[1].GetSize() + spots[2].GetSize());

  detector.SetDropBelowThisFraction(1.5);
  EXPECT_EQ(detector.GetDropBelowThisFraction(), 1.0);
  EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::Quadrant2);
  detector.SetDropBelowThisFraction(-0.1);
  EXPECT_EQ(detector.GetDropBelowThisFraction(), 0.0);
  detector.SetDropBelowThisFraction(std::nan(""));
  EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::DetectionFailed);
  EXPECT_EQ(detector.GetStatus().GetCode(), StatusCode::kControllerFailed);

  detector.SetDropBelowThisFraction(0.05);
  ASSERT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::TooManySignificantSpots);
  scene.spots.resize(1);
  const IntMatrix2D one = Frame(128, 128, scene, &random);
  detector.SetInput(&one);
  EXPECT_TRUE(detector.GetSpots().empty());
  ASSERT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::Quadrant2);
  // In dictionary order: "Region.<i>" and its fields, then "Regions.Size".
  std::vector<std::string> expected;
  for (const char* region : {"Region.0", "Region.1", "Region.2"}) {
    expected.push_back(region);
    for (const char* field : {"BoundingRect.X0", "BoundingRect.X1", "BoundingRect.Y0", "BoundingRect.Y1",
                              "CenterOfMassX", "CenterOfMassY", "Quadrant", "SigmaX", "SigmaY"})
      expected.push_back(std::string(region) + "." + field);
  }
  expected.push_back("Regions.Size");
  EXPECT_EQ(detector.GetPropertyKeys(), expected);
  EXPECT_EQ(detector.GetProperty("Regions.Size"), "1");
  EXPECT_NEAR(Property(detector, "Region.2.CenterOfMassX"), 100, 0.05) << "the third spot of the earlier run";
  spots = detector.GetSpots();
  ASSERT_EQ(spots.size(), 1u);
  EXPECT_EQ(detector.GetProperty("Region.0"), spots[0].ToString());
  EXPECT_EQ(detector.GetProperty("Region.0.Quadrant"), "2");
  // The bounding rectangle is that of the spot's pixels in the region map, and holds the spot.
  ASSERT_TRUE(detector.GetRegionIdMap(&ids));
  int x0 = 1 << 30, y0 = 1 << 30, x1 = -1, y1 = -1;
  for (int r = 0; r < ids.GetRows(); ++r) {
    for (int c = 0; c < ids.GetColumns(); ++c) {
      if (!IntMatrix2D::IsDataValid(ids(r, c))) continue;
      x0 = std::min(x0, c), x1 = std::max(x1, c), y0 = std::min(y0, r), y1 = std::max(y1, r);
    }
  }
  EXPECT_EQ(Property(detector, "Region.0.BoundingRect.X0"), x0);
  EXPECT_EQ(Property(detector, "Region.0.BoundingRect.Y0"), y0);
  EXPECT_EQ(Property(detector, "Region.0.BoundingRect.X1"), x1);
  EXPECT_EQ(Property(detector, "Region.0.BoundingRect.Y1"), y1);
  EXPECT_EQ(spots[0].GetSize(), ids.CountValid());
  EXPECT_TRUE(x0 < 30 && x1 > 31 && y0 < 20 && y1 > 21);
}

TEST(FlatImageTest, EveryPixelEqualGivesNoSpotAndNoFailure) {
  for (const int level : {0, 37, 65535}) {
    IntMatrix2D image(50, 60);
    image.SetAll(level);
    AlignSpotDetector detector;
    Wire(detector, image, 30.0, 25.0, 3.0, 100.0);
    EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::NoSignificantSpot) << "level " << level;
    EXPECT_TRUE(detector.GetStatus().IsOk());
    IntMatrix2D foreground, background;
    ASSERT_TRUE(detector.GetForeground(&foreground));
    ASSERT_TRUE(detector.GetBackground(&background));
    EXPECT_EQ(foreground.CountValid(), 0) << "s = 0: the band is the one level, nothing stands out";
    EXPECT_EQ(background.CountValid(), image.GetCount());
  }
}

// Restrictors through the whole run, with one spot in quadrant 1 (upper right) and one in quadrant
// 2: a restrictor other than 0, 1 or 2 admits neither. The spots that go leave the region map.
TEST(RestrictorTest, OnlyAdmittedQuadrantsKeepTheirSpots) {
  Testing::SeededRandom random(17);
  SCOPED_TRACE(random.Describe());
  const IntMatrix2D image = Frame(128, 128, Camera16({{30, 30, 3, 3, 2000}, {100, 30, 3, 3, 3000}}), &random);
  const struct {
    int restrictor;
    int expected;
    bool leftKept, rightKept;
  } cases[] = {{AsdRegionRestrictor::Full, AsdSpotPosition::TooManySignificantSpots, true, true},
               {AsdRegionRestrictor::Quadrants13, AsdSpotPosition::Quadrant1, false, true},
               {AsdRegionRestrictor::Quadrants24, AsdSpotPosition::Quadrant2, true, false},
               {5, AsdSpotPosition::NoSignificantSpot, false, false}};
  for (const auto& c : cases) {
    AlignSpotDetector detector;
    Wire(detector, image, 64.0, 64.0, 6.0, 60.0);
    detector.SetRegionRestrictor(c.restrictor);
    EXPECT_EQ(detector.DetectSpotPosition(), c.expected) << "restrictor " << c.restrictor;
    if (c.expected == AsdSpotPosition::NoSignificantSpot) continue;  // the run stops before the map
    IntMatrix2D ids;
    ASSERT_TRUE(detector.GetRegionIdMap(&ids));
    EXPECT_EQ(IntMatrix2D::IsDataValid(ids(30, 30)), c.leftKept) << "restrictor " << c.restrictor;
    EXPECT_EQ(IntMatrix2D::IsDataValid(ids(30, 100)), c.rightKept) << "restrictor " << c.restrictor;
  }
}

// An unwired detector fails with code 4 (AsdCheckWiredTest says at which line) and keeps its
// parameters and input: once the missing one is set it runs. The run does not clear the old failure
// (the returned position says that it worked). Clear restores every default exactly (the parameters
// without one are undefined again) and keeps the input.
TEST(StatusTest, UnwiredDetectorFailsWithCode4AndRunsOnceComplete) {
  const IntMatrix2D image = Frame(128, 128, Camera16({{90, 30, 3, 3, 2000}}, 0.0), nullptr);
  AlignSpotDetector detector;
  const auto wire = [&] {
    detector.SetReticleCenterX(64);
    detector.SetReticleCenterY(64);
    detector.SetInterestRegionRadius(60);
    detector.SetSaturationThreshold(65535);
  };
  detector.Initialize();
  detector.SetInput(&image);
  wire();
  EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::DetectionFailed);
  EXPECT_EQ(detector.GetStatus().GetCode(), StatusCode::kControllerFailed);
  detector.SetReticleCenterR(6);
  EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::Quadrant1)
      << "the old failure does not stop the run";
  EXPECT_EQ(detector.GetStatus().GetCode(), StatusCode::kControllerFailed) << "nor does the run clear it";

  detector.SetMaxNumberOfSaturatedPixels(3);
  detector.SetClipThatManySigmas(5);
  detector.SetDropThatManySigmas(10);
  detector.SetDropBelowThisFraction(0.5);
  detector.SetRegionRestrictor(AsdRegionRestrictor::Quadrants13);
  detector.Clear();
  const double undefined = 1.7976931348623157e308;
  EXPECT_EQ(
      std::make_tuple(detector.GetMaxNumberOfSaturatedPixels(), detector.GetInterestRegionRadius(),
                      detector.GetReticleCenterX(), detector.GetReticleCenterY(),
                      detector.GetReticleCenterR(), detector.GetClipThatManySigmas(),
                      detector.GetDropThatManySigmas(), detector.GetDropBelowThisFraction(),
                      detector.GetSaturationThreshold(), static_cast<int>(detector.GetRegionRestrictor())),
      std::make_tuple(32, undefined, undefined, undefined, undefined, 6.0, 12.0, 0.05, 250.0, 0));
  wire();
  detector.SetReticleCenterR(6);
  EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::Quadrant1) << "the input survived Clear";
}

// A detector whose property dictionary, spot list or the list's storage cannot be allocated reports
// code 3 from Initialize and refuses to detect instead of touching what is missing; once memory is
// there again, Initialize completes what is missing and the detector works.
TEST(StatusTest, AllocationFailureAtInitializeIsCode3AndDetectionIsRefused) {
  const IntMatrix2D image = Frame(128, 128, Camera16({{90, 30, 3, 3, 2000}}, 0.0), nullptr);
  for (int failing = 1; failing <= 3; ++failing) {
    AlignSpotDetector detector;
    Testing::FailNthNothrowAllocation(failing);
    Wire(detector, image, 64, 64, 6, 60);
    Testing::FailNthNothrowAllocation(0);
    EXPECT_EQ(detector.GetStatus().GetCode(), StatusCode::kAllocationFailed) << "allocation " << failing;
    EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::DetectionFailed) << "allocation " << failing;
    EXPECT_TRUE(detector.GetSpots().empty());

    detector.Initialize();
    EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::Quadrant1) << "allocation " << failing;
  }
}

// An image that sits elsewhere in the camera frame (origin at row 300, column 500), given with a
// window: positions are camera coordinates throughout, and only the window is searched. A second
// spot inside the square of interest but outside the window is not seen, and the frame around the
// window (background counts) is no region either.
TEST(SpotWindowTest, OnlyTheInputWindowIsSearchedInCameraCoordinates) {
  Testing::SeededRandom random(29);
  SCOPED_TRACE(random.Describe());
  IntMatrix2D image(128, 128);
  image.SetOrigin(300, 500);
  Testing::FillSpotImage(image, Camera16({{560.4, 380.2, 3, 3, 3000}, {530, 320, 3, 3, 3000}}), &random);
  image.SetWindow(Analysis::Core::Window2D(340, 510, 80, 80));
  AlignSpotDetector detector;
  Wire(detector, image, 540.0, 370.0, 6.0, 60.0);
  EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::Quadrant4)
      << "right of column 540, below row 370";
  const std::vector<AsdSpotInfo> spots = detector.GetSpots();
  ASSERT_EQ(spots.size(), 1u);
  EXPECT_NEAR(spots[0].CenterOfMassX(), 560.4, 0.03);
  EXPECT_NEAR(spots[0].CenterOfMassY(), 380.2, 0.03);
  IntMatrix2D ids, foreground;
  ASSERT_TRUE(detector.GetRegionIdMap(&ids) && detector.GetForeground(&foreground));
  EXPECT_EQ(ids.GetStartRow(), 300);
  EXPECT_EQ(ids.GetStartCol(), 500);
  EXPECT_EQ(ids(80, 60), 0) << "the spot's pixel at camera (380, 560)";
  foreground.ResetWindow();
  EXPECT_EQ(foreground.CountValid(), spots[0].GetSize()) << "nothing outside the window stands out";
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment

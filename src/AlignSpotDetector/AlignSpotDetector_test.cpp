// The align spot detector on synthetic camera frames of known truth: where the spot is, how exactly
// its centre of mass comes back, every outcome, the published results and the status rules.
#include "AlignSpotDetector/AlignSpotDetector.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Testing/SeededRandom.h"
#include "Testing/SyntheticSpot.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {
namespace {

using Analysis::Core::IntMatrix2D;
using Testing::GaussianSpot;
using Testing::SpotScene;
namespace StatusCode = Analysis::Core::StatusCode;

constexpr double kPi = 3.14159265358979323846;

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

IntMatrix2D Frame(int rows, int cols, const SpotScene& scene, Testing::SeededRandom* random) {
  IntMatrix2D image(rows, cols);
  Testing::FillSpotImage(image, scene, random);
  return image;
}

double Property(const AlignSpotDetector& detector, const std::string& key) {
  return std::atof(detector.GetProperty(key).c_str());
}

// The pixel count of spot i, read from its one-line description ("Id = 2, Size = 117, ...").
int SpotSize(const AlignSpotDetector& detector, int i) {
  int id = -1, size = -1;
  std::sscanf(detector.GetProperty("Region." + std::to_string(i)).c_str(), "Id = %d, Size = %d", &id, &size);
  return size;
}

// The moments the detector should find if the camera had no noise: the scene's exact intensity,
// weighted over the pixels of the detector's own spot regions (all surviving spots together).
struct Moments {
  double centerX = 0, centerY = 0, sigmaX = 0, sigmaY = 0;
  double noiseShift = 0;  // how far noise of one count per pixel moves the centre, rms
};

Moments ModelMoments(const AlignSpotDetector& detector, const SpotScene& scene) {
  IntMatrix2D ids;
  detector.GetRegionIdMap(&ids);
  double sum = 0, sx = 0, sy = 0, sxx = 0, syy = 0;
  std::vector<std::pair<double, double>> pixels;
  for (int r = 0; r < ids.GetRows(); ++r) {
    for (int c = 0; c < ids.GetColumns(); ++c) {
      if (!IntMatrix2D::IsDataValid(ids(r, c))) continue;
      const double x = ids.GetStartCol() + c, y = ids.GetStartRow() + r;
      const double w = scene.Intensity(x, y);
      sum += w, sx += w * x, sy += w * y, sxx += w * x * x, syy += w * y * y;
      pixels.emplace_back(x, y);
    }
  }
  Moments m;
  m.centerX = sx / sum;
  m.centerY = sy / sum;
  m.sigmaX = std::sqrt(sxx / sum - m.centerX * m.centerX);
  m.sigmaY = std::sqrt(syy / sum - m.centerY * m.centerY);
  double spread = 0;
  for (const auto& [x, y] : pixels)
    spread += (x - m.centerX) * (x - m.centerX) + (y - m.centerY) * (y - m.centerY);
  m.noiseShift = std::sqrt(spread / 2) / sum;
  return m;
}

// Centre-of-mass accuracy on a 16-bit frame of 256 x 256: a Gaussian spot (peak 4000 counts,
// widths 2.5 and 3 pixels) on a flat background of 10 counts with 1 count of read noise, at random
// sub-pixel positions. The detector weights the raw counts of the pixels beyond 6 background
// sigmas; the spot's own wings widen that sigma to about 9 counts, so the spot is cut where it falls
// to about 1.5 % of its peak (2.9 widths out). What can move the centre of mass:
//   - read noise and rounding: sqrt(1 + 1/12) x sqrt(sum (x - x0)^2) / sum w ~ 0.0003 pixel;
//   - the pixel set: the cut is a ring of pixels of about 60 counts at about 8 pixels that do not
//     balance exactly across the centre; one unbalanced pixel weighs 60 x 8 / 190000 = 0.0025
//     pixel, and the ring's pixels come and go with the sub-pixel position and the noise;
//   - sampling a Gaussian at pixel centres: aliasing of order exp(-2 pi^2 s^2), nothing at s = 2.5.
// A few hundredths of a pixel covers a handful of unbalanced ring pixels; the worst error seen over
// the 100 positions is about 0.012.
//
// The widths come back as the intensity-weighted spread of the pixels kept: the cut makes them a
// few percent narrower than the Gaussian's, and the noise-free scene over the same pixels gives
// the expected value.
TEST(CenterOfMassTest, SyntheticSpotComesBackWithinAFewHundredthsOfAPixel) {
  Testing::SeededRandom random(2026);
  SCOPED_TRACE(random.Describe());
  double worst = 0.0;
  for (int trial = 0; trial < 100; ++trial) {
    SpotScene scene;
    scene.background = 10.0;
    scene.noiseSigma = 1.0;
    scene.saturationLevel = 65535;
    const GaussianSpot spot{random.Uniform(40, 60), random.Uniform(40, 60), 2.5, 3.0, 4000.0};
    scene.spots = {spot};
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
    const Moments model = ModelMoments(detector, scene);
    EXPECT_NEAR(Property(detector, "Region.0.SigmaX"), model.sigmaX, 0.005) << "trial " << trial;
    EXPECT_NEAR(Property(detector, "Region.0.SigmaY"), model.sigmaY, 0.005) << "trial " << trial;
    EXPECT_LT(model.sigmaX, spot.sigmaX) << "the cut narrows the spot";
  }
  RecordProperty("worst_center_of_mass_error_px", std::to_string(worst));
}

// With a sloping background the counts under the spot are not symmetric, and the raw-count centre
// of mass moves towards the brighter side. The noise-free intensity summed over the detector's own
// spot pixels predicts where it goes; the detected value must agree to within the noise.
TEST(CenterOfMassTest, ASlopingBackgroundPullsTheCentreAsTheRawCountsSay) {
  Testing::SeededRandom random(99);
  SCOPED_TRACE(random.Describe());
  SpotScene scene;
  scene.background = 300.0;
  scene.gradientX = 0.5;   // counts per column
  scene.gradientY = -0.4;  // counts per row
  scene.noiseSigma = 2.0;
  scene.saturationLevel = 65535;
  scene.spots = {{150.4, 90.7, 6.0, 6.0, 2000.0}};
  const IntMatrix2D image = Frame(256, 256, scene, &random);
  AlignSpotDetector detector;
  Wire(detector, image, 128.0, 128.0, 8.0, 120.0);
  ASSERT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::Quadrant1);
  const Moments model = ModelMoments(detector, scene);
  // Noise of sqrt(2^2 + 1/12) counts per pixel moves the centre by about that times the noise
  // shift of one count; five of those, and the six digits of the properties.
  const double tolerance = 5 * std::sqrt(4.0 + 1.0 / 12.0) * model.noiseShift + 0.001;
  EXPECT_NEAR(Property(detector, "Region.0.CenterOfMassX"), model.centerX, tolerance);
  EXPECT_NEAR(Property(detector, "Region.0.CenterOfMassY"), model.centerY, tolerance);
  EXPECT_GT(model.centerX - 150.4, 5 * tolerance) << "the slope's pull, towards the brighter columns";
  EXPECT_LT(model.centerY - 90.7, -5 * tolerance) << "and towards the brighter (smaller) rows";
}

// Every outcome, each from a frame made to reach it. The reticle centre is at (64, 64), the
// obscuration radius 6, the square of interest 60 pixels either way.
struct OutcomeCase {
  const char* name;
  int expected;
  std::function<void(SpotScene&)> scene;
  bool wireInput = true;
  int saturationLevel = 65535;
};

void PrintTo(const OutcomeCase& c, std::ostream* out) {
  *out << c.name;
}

class OutcomeTest : public ::testing::TestWithParam<OutcomeCase> {};

TEST_P(OutcomeTest, EachOutcomeIsReachedByAFrameBuiltForIt) {
  const OutcomeCase& c = GetParam();
  Testing::SeededRandom random(7);
  SCOPED_TRACE(random.Describe());
  SpotScene scene;
  scene.background = 30.0;
  scene.noiseSigma = 1.5;
  scene.saturationLevel = c.saturationLevel;
  c.scene(scene);
  const IntMatrix2D image = Frame(128, 128, scene, &random);
  AlignSpotDetector detector;
  Wire(detector, image, 64.0, 64.0, 6.0, 60.0, c.saturationLevel == 255 ? 250.0 : 65535.0);
  if (!c.wireInput) detector.SetInput(nullptr);
  EXPECT_EQ(detector.DetectSpotPosition(), c.expected) << c.name;
  if (c.expected == AsdSpotPosition::DetectionFailed) {
    EXPECT_EQ(detector.GetStatus().GetCode(), StatusCode::kControllerFailed);
  } else {
    EXPECT_TRUE(detector.GetStatus().IsOk())
        << "outcomes are not failures: " << detector.GetStatus().GetPrintString();
  }
}

// Rows grow downwards: "up" (quadrants 1 and 2) is a smaller row index than the centre's.
INSTANTIATE_TEST_SUITE_P(
    Frames, OutcomeTest,
    ::testing::Values(OutcomeCase{"DetectionFailed", 0,
                                  [](SpotScene& s) {
                                    s.spots = {{90, 40, 3, 3, 3000}};
                                  },
                                  false},
                      OutcomeCase{"Quadrant1", 1,
                                  [](SpotScene& s) {
                                    s.spots = {{90.2, 40.7, 3, 3, 3000}};
                                  }},
                      OutcomeCase{"Quadrant2", 2,
                                  [](SpotScene& s) {
                                    s.spots = {{30.6, 40.1, 3, 3, 3000}};
                                  }},
                      OutcomeCase{"Quadrant3", 3,
                                  [](SpotScene& s) {
                                    s.spots = {{30.6, 100.3, 3, 3, 3000}};
                                  }},
                      OutcomeCase{"Quadrant4", 4,
                                  [](SpotScene& s) {
                                    s.spots = {{90.5, 100.3, 3, 3, 3000}};
                                  }},
                      // A wide spot over the obscuration: only its ring outside radius 6 is seen, and the
                      // ring's centre of mass is within 3 pixels of the reticle centre.
                      OutcomeCase{"SpotBehindObscuration", 5,
                                  [](SpotScene& s) {
                                    s.spots = {{65.3, 63.2, 7, 7, 3000}};
                                  }},
                      // An 8-bit camera clipping a spot of 600 counts: some 50 pixels reach 250.
                      OutcomeCase{"TooManySaturatedPixels", 6,
                                  [](SpotScene& s) {
                                    s.spots = {{90, 40, 3, 3, 600}};
                                  },
                                  true, 255},
                      OutcomeCase{"NoSignificantSpot", 7, [](SpotScene& s) { s.spots = {}; }},
                      // A sharp spot 3 pixels beyond the square's corner (column and row 124).
                      OutcomeCase{"NoSignificantSpotOutsideTheSquare", 7,
                                  [](SpotScene& s) {
                                    s.spots = {{127, 127, 0.6, 0.6, 3000}};
                                  }},
                      OutcomeCase{"TooManySignificantSpots", 8,
                                  [](SpotScene& s) {
                                    s.spots = {{90, 40, 3, 3, 3000}, {30, 100, 3, 3, 2000}};
                                  }}),
    [](const auto& info) { return std::string(info.param.name); });

// A spot centred exactly on the centre's column (noise-free, so its centre of mass is exactly
// there) counts as right: quadrant 1 above the centre, 4 below. One exactly on the centre's row
// counts as up.
TEST(QuadrantConventionTest, ZeroOffsetsCountAsRightAndUp) {
  const struct {
    double x, y;
    int expected;
  } cases[] = {{64, 30, AsdSpotPosition::Quadrant1},
               {64, 98, AsdSpotPosition::Quadrant4},
               {30, 64, AsdSpotPosition::Quadrant2},
               {98, 64, AsdSpotPosition::Quadrant1}};
  for (const auto& c : cases) {
    SpotScene scene;
    scene.background = 20.0;
    scene.saturationLevel = 65535;
    scene.spots = {{c.x, c.y, 2.0, 2.0, 2000.0}};
    const IntMatrix2D image = Frame(129, 129, scene, nullptr);
    AlignSpotDetector detector;
    Wire(detector, image, 64.0, 64.0, 6.0, 60.0);
    EXPECT_EQ(detector.DetectSpotPosition(), c.expected) << "spot at column " << c.x << ", row " << c.y;
    EXPECT_EQ(Property(detector, "Region.0.CenterOfMassX"), c.x);
    EXPECT_EQ(Property(detector, "Region.0.CenterOfMassY"), c.y);
  }
}

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

// Three spots met by the region finder in the order top, middle, bottom, with the brightest at the
// top: after the run the brightest carries the highest id (2) in the region map and is Region.0
// of the properties; the faintest carries id 0 and is Region.2.
TEST(RegionIdTest, TheBrightestSpotCarriesTheHighestId) {
  Testing::SeededRandom random(3);
  SCOPED_TRACE(random.Describe());
  SpotScene scene;
  scene.background = 30.0;
  scene.noiseSigma = 1.0;
  scene.saturationLevel = 65535;
  scene.spots = {{30, 20, 3, 3, 3000}, {100, 60, 3, 3, 900}, {40, 100, 3, 3, 1800}};
  const IntMatrix2D image = Frame(128, 128, scene, &random);
  AlignSpotDetector detector;
  Wire(detector, image, 64.0, 64.0, 6.0, 60.0);
  EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::TooManySignificantSpots);
  IntMatrix2D ids;
  ASSERT_TRUE(detector.GetRegionIdMap(&ids));
  EXPECT_EQ(ids(20, 30), 2);
  EXPECT_EQ(ids(100, 40), 1);
  EXPECT_EQ(ids(60, 100), 0);
  EXPECT_EQ(detector.GetProperty("Regions.Size"), "3");
  EXPECT_NEAR(Property(detector, "Region.0.CenterOfMassX"), 30, 0.05);
  EXPECT_NEAR(Property(detector, "Region.1.CenterOfMassX"), 40, 0.05);
  EXPECT_NEAR(Property(detector, "Region.2.CenterOfMassX"), 100, 0.05);
  EXPECT_EQ(detector.GetProperty("Region.0").rfind("Id = 2, ", 0), 0u) << detector.GetProperty("Region.0");
  EXPECT_EQ(detector.GetProperty("Region.2").rfind("Id = 0, ", 0), 0u) << detector.GetProperty("Region.2");
  // Every valid pixel of the map belongs to one of the three spots.
  int valid = 0;
  for (std::int64_t i = 0; i < ids.GetCount(); ++i)
    valid += IntMatrix2D::IsDataValid(ids.At(i)) ? 1 : 0;
  EXPECT_EQ(valid, SpotSize(detector, 0) + SpotSize(detector, 1) + SpotSize(detector, 2))
      << "no pixel of a dropped region is left";
}

// The published keys of a one-spot run, their agreement with the spot's text, and keys of an
// earlier run with more spots left in place.
TEST(PropertiesTest, OneSpotPublishesExactlyItsKeysAndOlderKeysStay) {
  Testing::SeededRandom random(11);
  SCOPED_TRACE(random.Describe());
  SpotScene scene;
  scene.background = 30.0;
  scene.noiseSigma = 1.0;
  scene.saturationLevel = 65535;
  scene.spots = {{30.25, 20.5, 3, 3, 3000}};
  const IntMatrix2D one = Frame(128, 128, scene, &random);
  AlignSpotDetector detector;
  Wire(detector, one, 64.0, 64.0, 6.0, 60.0);
  ASSERT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::Quadrant2);
  const std::vector<std::string> expected = {
      "Region.0",
      "Region.0.BoundingRect.X0",
      "Region.0.BoundingRect.X1",
      "Region.0.BoundingRect.Y0",
      "Region.0.BoundingRect.Y1",
      "Region.0.CenterOfMassX",
      "Region.0.CenterOfMassY",
      "Region.0.Quadrant",
      "Region.0.SigmaX",
      "Region.0.SigmaY",
      "Regions.Size",
  };
  EXPECT_EQ(detector.GetPropertyKeys(), expected);
  const std::string text = detector.GetProperty("Region.0");
  EXPECT_EQ(text.rfind("Id = 0, Size = ", 0), 0u) << text;
  for (const auto& [label, key] :
       std::vector<std::pair<std::string, std::string>>{{", CoM.x = ", "CenterOfMassX"},
                                                        {", CoM.y = ", "CenterOfMassY"},
                                                        {", SigmaX = ", "SigmaX"},
                                                        {", SigmaY = ", "SigmaY"},
                                                        {", Quadrant = ", "Quadrant"}}) {
    EXPECT_NE(text.find(label + detector.GetProperty("Region.0." + key) + ","), std::string::npos) << text;
  }
  const std::string rect = "BoundingRect = (" + detector.GetProperty("Region.0.BoundingRect.X0") + ", " +
                           detector.GetProperty("Region.0.BoundingRect.Y0") + ", " +
                           detector.GetProperty("Region.0.BoundingRect.X1") + ", " +
                           detector.GetProperty("Region.0.BoundingRect.Y1") + ")";
  EXPECT_EQ(text.substr(text.size() - rect.size()), rect);
  // The bounding rectangle is that of the spot's pixels in the region map, and holds the spot.
  IntMatrix2D ids;
  ASSERT_TRUE(detector.GetRegionIdMap(&ids));
  int x0 = 1 << 30, y0 = 1 << 30, x1 = -1, y1 = -1, pixels = 0;
  for (int r = 0; r < ids.GetRows(); ++r) {
    for (int c = 0; c < ids.GetColumns(); ++c) {
      if (!IntMatrix2D::IsDataValid(ids(r, c))) continue;
      x0 = std::min(x0, c), x1 = std::max(x1, c), y0 = std::min(y0, r), y1 = std::max(y1, r);
      ++pixels;
    }
  }
  EXPECT_EQ(Property(detector, "Region.0.BoundingRect.X0"), x0);
  EXPECT_EQ(Property(detector, "Region.0.BoundingRect.Y0"), y0);
  EXPECT_EQ(Property(detector, "Region.0.BoundingRect.X1"), x1);
  EXPECT_EQ(Property(detector, "Region.0.BoundingRect.Y1"), y1);
  EXPECT_EQ(SpotSize(detector, 0), pixels);
  EXPECT_TRUE(x0 < 30 && x1 > 31 && y0 < 20 && y1 > 21);

  scene.spots.push_back({100, 100, 3, 3, 2500});
  const IntMatrix2D two = Frame(128, 128, scene, &random);
  detector.SetInput(&two);
  ASSERT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::TooManySignificantSpots);
  detector.SetInput(&one);
  ASSERT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::Quadrant2);
  EXPECT_EQ(detector.GetProperty("Regions.Size"), "1");
  EXPECT_NEAR(Property(detector, "Region.1.CenterOfMassX"), 100, 0.05)
      << "the second spot of the earlier run";
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

// Restrictors through the whole run, with one spot in quadrant 1 (upper right) and one in quadrant 2.
TEST(RestrictorTest, OnlyAdmittedQuadrantsKeepTheirSpots) {
  Testing::SeededRandom random(17);
  SCOPED_TRACE(random.Describe());
  SpotScene scene;
  scene.background = 30.0;
  scene.noiseSigma = 1.0;
  scene.saturationLevel = 65535;
  scene.spots = {{30, 30, 3, 3, 2000}};
  const IntMatrix2D left = Frame(128, 128, scene, &random);
  scene.spots.push_back({100, 30, 3, 3, 3000});
  const IntMatrix2D both = Frame(128, 128, scene, &random);
  const struct {
    const IntMatrix2D* image;
    int restrictor;
    int expected;
  } cases[] = {
      {&left, AsdRegionRestrictor::Full, AsdSpotPosition::Quadrant2},
      {&left, AsdRegionRestrictor::Quadrants13, AsdSpotPosition::NoSignificantSpot},
      {&left, AsdRegionRestrictor::Quadrants24, AsdSpotPosition::Quadrant2},
      {&both, AsdRegionRestrictor::Full, AsdSpotPosition::TooManySignificantSpots},
      {&both, AsdRegionRestrictor::Quadrants13, AsdSpotPosition::Quadrant1},
      {&both, AsdRegionRestrictor::Quadrants24, AsdSpotPosition::Quadrant2},
      {&both, 5, AsdSpotPosition::NoSignificantSpot},
  };
  for (const auto& c : cases) {
    AlignSpotDetector detector;
    Wire(detector, *c.image, 64.0, 64.0, 6.0, 60.0);
    detector.SetRegionRestrictor(c.restrictor);
    EXPECT_EQ(detector.DetectSpotPosition(), c.expected) << "restrictor " << c.restrictor;
    if (c.expected == AsdSpotPosition::Quadrant1 || c.expected == AsdSpotPosition::Quadrant2) {
      IntMatrix2D ids;
      detector.GetRegionIdMap(&ids);
      const bool rightKept = IntMatrix2D::IsDataValid(ids(30, 100));
      const bool leftKept = IntMatrix2D::IsDataValid(ids(30, 30));
      EXPECT_EQ(rightKept, c.expected == AsdSpotPosition::Quadrant1) << "restrictor " << c.restrictor;
      EXPECT_EQ(leftKept, c.expected == AsdSpotPosition::Quadrant2) << "restrictor " << c.restrictor;
    }
  }
}

// The second spot holds a fraction of the first's light. The first (peak 4000, widths 3) sums about
// 226000 counts over its pixels in a 256 x 256 frame; a second of peak 150 is cut at about 63
// counts above the floor and sums about 5600 (2.5 %), one of peak 1500 about 36 %. Below the drop
// fraction (5 % by default) the second is dropped; with the fraction at 0 the faint one stays, with
// the fraction at 1 only the brightest does. The setter clamps to [0, 1].
TEST(DropFractionTest, AFaintSecondSpotIsDroppedAndTheFractionIsClamped) {
  Testing::SeededRandom random(23);
  SCOPED_TRACE(random.Describe());
  const auto run = [&](double secondPeak, double fraction) {
    SpotScene scene;
    scene.background = 20.0;
    scene.noiseSigma = 1.0;
    scene.saturationLevel = 65535;
    scene.spots = {{60, 60, 3, 3, 4000}, {200, 200, 3, 3, secondPeak}};
    const IntMatrix2D image = Frame(256, 256, scene, &random);
    AlignSpotDetector detector;
    Wire(detector, image, 128.0, 128.0, 6.0, 120.0);
    detector.SetDropBelowThisFraction(fraction);
    return std::make_pair(detector.DetectSpotPosition(), detector.GetDropBelowThisFraction());
  };
  EXPECT_EQ(run(150.0, 0.05).first, AsdSpotPosition::Quadrant2);
  EXPECT_EQ(run(1500.0, 0.05).first, AsdSpotPosition::TooManySignificantSpots);
  const auto high = run(1500.0, 1.5);
  EXPECT_EQ(high.second, 1.0);
  EXPECT_EQ(high.first, AsdSpotPosition::Quadrant2) << "only the brightest reaches 100 % of itself";
  const auto low = run(150.0, -0.1);
  EXPECT_EQ(low.second, 0.0);
  EXPECT_EQ(low.first, AsdSpotPosition::TooManySignificantSpots)
      << "the faint spot is a spot, only a faint one";
}

// An unwired detector names the last missing piece (the obscuration radius is the last parameter
// tested that has no default), keeps its parameters and input, and runs once they are complete; a
// run does not clear the old failure, the host does. Clear restores the defaults and keeps the
// input.
TEST(StatusTest, UnwiredDetectorFailsWithCode4AndRunsOnceComplete) {
  SpotScene scene;
  scene.background = 30.0;
  scene.saturationLevel = 65535;
  scene.spots = {{90, 30, 3, 3, 2000}};
  const IntMatrix2D image = Frame(128, 128, scene, nullptr);

  AlignSpotDetector detector;
  detector.Initialize();
  EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::DetectionFailed);
  const Analysis::Core::Status nothingSet = detector.GetStatus();
  EXPECT_EQ(nothingSet.GetCode(), StatusCode::kControllerFailed);
  EXPECT_EQ(nothingSet.GetFile(), "AlignSpotDetector\\AsdController");
  EXPECT_EQ(nothingSet.GetMessage(), "");

  detector.SetInput(&image);
  detector.SetReticleCenterX(64);
  detector.SetReticleCenterY(64);
  detector.SetInterestRegionRadius(60);
  detector.SetSaturationThreshold(65535);
  EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::DetectionFailed);
  EXPECT_EQ(detector.GetStatus().GetLine(), nothingSet.GetLine())
      << "the obscuration radius is still missing";

  detector.SetReticleCenterX(1.7976931348623157e308);  // undefined again
  detector.SetReticleCenterR(6);
  EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::DetectionFailed);
  EXPECT_LT(detector.GetStatus().GetLine(), nothingSet.GetLine())
      << "now the centre's column is the last missing";

  detector.SetReticleCenterX(64);
  EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::Quadrant1);
  EXPECT_EQ(detector.GetStatus().GetCode(), StatusCode::kControllerFailed)
      << "a run does not clear the old failure";
  detector.GetStatus().ClearError();

  detector.Clear();
  EXPECT_TRUE(std::isinf(detector.GetReticleCenterR()) ||
              detector.GetReticleCenterR() >= 1.7976931348623157e308);
  EXPECT_EQ(detector.GetSaturationThreshold(), 250.0);
  EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::DetectionFailed);
  detector.SetReticleCenterX(64);
  detector.SetReticleCenterY(64);
  detector.SetReticleCenterR(6);
  detector.SetInterestRegionRadius(60);
  detector.SetSaturationThreshold(65535);
  EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::Quadrant1) << "the input survived Clear";

  EXPECT_FALSE(detector.GetForeground(nullptr));
  detector.Finalize();
  EXPECT_EQ(detector.GetProperty("Regions.Size"), "undefined");
}

// An image that sits elsewhere in the camera frame (origin at row 300, column 500): positions are
// camera coordinates throughout.
TEST(CoordinatesTest, CentreOfMassIsInCameraCoordinates) {
  Testing::SeededRandom random(29);
  SCOPED_TRACE(random.Describe());
  SpotScene scene;
  scene.background = 30.0;
  scene.noiseSigma = 1.0;
  scene.saturationLevel = 65535;
  scene.spots = {{560.4, 380.2, 3, 3, 3000}};
  IntMatrix2D image(128, 128);
  image.SetOrigin(300, 500);
  Testing::FillSpotImage(image, scene, &random);
  AlignSpotDetector detector;
  Wire(detector, image, 540.0, 370.0, 6.0, 60.0);
  EXPECT_EQ(detector.DetectSpotPosition(), AsdSpotPosition::Quadrant4)
      << "right of column 540, below row 370";
  EXPECT_NEAR(Property(detector, "Region.0.CenterOfMassX"), 560.4, 0.03);
  EXPECT_NEAR(Property(detector, "Region.0.CenterOfMassY"), 380.2, 0.03);
  IntMatrix2D ids;
  ASSERT_TRUE(detector.GetRegionIdMap(&ids));
  EXPECT_EQ(ids.GetStartRow(), 300);
  EXPECT_EQ(ids.GetStartCol(), 500);
  EXPECT_EQ(ids(80, 60), 0) << "the spot's pixel at camera (380, 560)";
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment

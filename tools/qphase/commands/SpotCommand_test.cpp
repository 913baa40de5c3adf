// qphase spot seen from a shell (exit statuses, messages, the JSON and the overlay, what is left on
// disk), on synthetic frames of known truth and on two real laser-spot images.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "CliTestFixture.h"
#include "SpotOverlay.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticSpot.h"
#include "TiffIO.h"

namespace Quarn::Qphase {
namespace {

namespace fs = std::filesystem;
using Metrology::Analysis::Core::IntMatrix2D;

class SpotCommandTest : public CliTestFixture {
 protected:
  // A 128 x 160 frame of spots on a background of 20 counts with 1 count of noise, as an 8- or
  // 16-bit TIFF.
  std::string WriteFrame(const std::string& name, std::vector<Testing::GaussianSpot> spots,
                         int bits = 8) const {
    IntMatrix2D image(128, 160);
    Testing::SeededRandom random(61);
    Testing::FillSpotImage(image,
                           {.background = 20.0,
                            .noiseSigma = 1.0,
                            .saturationLevel = bits == 8 ? 255 : 65535,
                            .spots = std::move(spots)},
                           &random);
    Metrology::Analysis::Core::FrameBuffer frame;
    frame.Allocate(image.GetMatrixWindow(), 1,
                   bits == 8 ? Metrology::Analysis::Core::FrameBuffer::kRes8Bit
                             : Metrology::Analysis::Core::FrameBuffer::kRes16Bit);
    frame.StoreFrame(0, image.Data());
    WriteTiffStack(Path(name), frame);
    return Path(name);
  }

  // Reticle centre (80, 64), square of interest +-60, obscuration radius 5.
  static constexpr const char* kWiring = " --center 80,64 --radius 60 --obscuration 5";
};

// A spot at column 50.3, row 30.6 is left of and above the centre: named, its centre of mass
// printed (to a few hundredths of a pixel, see the detector's own tests), the JSON holding the
// position and the whole result dictionary as text, the overlay written, and nothing else left.
TEST_F(SpotCommandTest, OneSpotIsNamedWithItsMomentsAndWrittenToJsonAndPng) {
  const std::string frame = WriteFrame("spot.tif", {{50.3, 30.6, 2.5, 2.5, 200}});
  const RunResult result = RunExpecting(
      0, "spot " + frame + kWiring + " --json " + Path("spot.json") + " --png " + Path("spot.png"),
      "position: Quadrant2 (one spot, left of and above");
  EXPECT_NEAR(NumberAfter(result.out, "centre of mass x "), 50.3, 0.05) << result.out;
  EXPECT_NEAR(NumberAfter(result.out, ", y "), 30.6, 0.05) << result.out;
  // The box of the spot's pixels reaches a few sigma (2.5 pixels) out from the centre on every side.
  int x0 = 0, x1 = 0, y0 = 0, y1 = 0;
  const std::size_t box = result.out.find("bounding box x ");
  ASSERT_NE(box, std::string::npos) << result.out;
  ASSERT_EQ(std::sscanf(result.out.c_str() + box, "bounding box x %d..%d, y %d..%d", &x0, &x1, &y0, &y1), 4);
  for (const double reach : {50.3 - x0, x1 - 50.3, 30.6 - y0, y1 - 30.6})
    EXPECT_TRUE(reach > 2 && reach < 10) << result.out;
  const std::string json = Slurp(Path("spot.json"));
  EXPECT_THAT(json, HasSubstr("\"position\": \"Quadrant2\""));
  EXPECT_THAT(json, HasSubstr("\"positionCode\": 2"));
  EXPECT_THAT(json, HasSubstr("\"Regions.Size\": \"1\""));
  EXPECT_THAT(json, HasSubstr("\"Region.0.BoundingRect.Y1\": \""));
  EXPECT_GT(fs::file_size(Path("spot.png")), 500u);
  EXPECT_TRUE(Leftovers({"spot.tif", "spot.json", "spot.png"}).empty());
}

// Outcomes that are not failures end with status 0 and are named, and each option reaches the
// detector. The default saturation level is 250 counts for 8-bit frames and the same fraction of
// full scale, 64250, for 16-bit ones.
TEST_F(SpotCommandTest, OutcomesAreReportedNotFailedAndTheOptionsReachTheDetector) {
  const std::string two = WriteFrame("two.tif", {{50, 30, 2.5, 2.5, 200}, {120, 100, 2.5, 2.5, 180}});
  // An 8-bit spot clipped at 255: some 60 pixels reach 250; tolerating them lets it through.
  const std::string clipped = WriteFrame("clipped.tif", {{50, 30, 3, 3, 600}});
  const std::string deep = WriteFrame("deep.tif", {{110.5, 90.25, 3, 3, 30000}}, 16);
  const struct {
    std::string frame, options;
    std::vector<std::string> printed;
  } cases[] = {
      {two, "", {"position: TooManySignificantSpots", "spot 1: "}},
      {two, " --restrict 13", {"position: NoSignificantSpot"}},  // the spots are in quadrants 2 and 4
      {clipped, "", {"position: TooManySaturatedPixels"}},
      {clipped, " --max-saturated 1000", {"position: Quadrant2"}},
      {deep, "", {"saturation 64250", "position: Quadrant4"}},
      {deep, " --saturation 250", {"position: TooManySaturatedPixels"}},
  };
  for (const auto& c : cases) {
    const RunResult result = RunExpecting(0, "spot " + c.frame + kWiring + c.options);
    for (const std::string& text : c.printed)
      EXPECT_THAT(result.out, HasSubstr(text)) << c.frame << c.options;
  }
}

// Numbers that are not finite are refused before anything runs (NaN would pass every range check);
// the library's "undefined", the largest finite double, reaches the detector and fails it (status 1);
// an output that cannot be written is a usage error. None of these leaves a file.
TEST_F(SpotCommandTest, NonFiniteNumbersUndefinedParametersAndUnwritableOutputsLeaveNothing) {
  const std::string frame = WriteFrame("spot.tif", {{50, 30, 2.5, 2.5, 200}});
  const std::string outputs = " --json " + Path("out.json") + " --png " + Path("out.png");
  for (const char* options :
       {"--center nan,64 --radius 60 --obscuration 5", "--center 80,64 --radius nan --obscuration 5",
        "--center 80,64 --radius 60 --obscuration inf",
        "--center 80,64 --radius 60 --obscuration 5 --saturation nan"})
    RunExpecting(2, "spot " + frame + " " + options + outputs, "is not a finite number");
  RunExpecting(1,
               "spot " + frame + " --center 80,64 --radius 1.7976931348623157e308 --obscuration 5" + outputs,
               "detection in " + frame + " failed: error 4");
  RunExpecting(2,
               "spot " + frame + kWiring + " --json " + Path("no/dir/out.json") + " --png " + Path("out.png"),
               "no/dir");
  EXPECT_TRUE(Leftovers({"spot.tif"}).empty()) << "failed runs must not leave files";
}

// The overlay: grey image, the square, the obscuration, the reticle cross, each spot's box and
// centre, in their colours at the places they belong.
TEST(SpotOverlayTest, MarksSitWhereTheyBelong) {
  IntMatrix2D image(60, 80);
  for (int r = 0; r < 60; ++r) {
    for (int c = 0; c < 80; ++c)
      image(r, c) = c;  // a ramp: column 0 black, column 79 white
  }
  image(5, 5) = IntMatrix2D::NoData();
  SpotOverlay overlay;
  overlay.reticleX = 40;
  overlay.reticleY = 30;
  overlay.obscurationRadius = 6;
  overlay.halfWidth = 20.5;
  overlay.spots = {{25.4, 18.6, 20, 15, 30, 22}};
  const RgbImage out = RenderSpotOverlay(image, overlay);
  EXPECT_EQ(out.Get(0, 50), (Rgb{0, 0, 0}));
  EXPECT_EQ(out.Get(79, 50), (Rgb{255, 255, 255}));
  EXPECT_EQ(out.Get(5, 5), (Rgb{0, 0, 90})) << "invalid pixels in dark blue";
  EXPECT_EQ(out.Get(20, 40), kSquareColour) << "square from column ceil(40 - 20.5) = 20";
  EXPECT_EQ(out.Get(60, 45), kSquareColour) << "to column floor(40 + 20.5) = 60";
  EXPECT_EQ(out.Get(40, 10), kSquareColour) << "and from row 10";
  EXPECT_EQ(out.Get(46, 30), kObscurationColour);
  EXPECT_EQ(out.Get(43, 30), kReticleColour);
  EXPECT_EQ(out.Get(25, 19), kSpotCentreColour) << "the centre of mass, rounded to its pixel";
  EXPECT_EQ(out.Get(19, 14), kSpotBoxColour) << "the box one pixel outside the spot's pixels";
  EXPECT_EQ(out.Get(31, 23), kSpotBoxColour);

  // A square far larger than the image costs no more than the image and shows no edge.
  overlay.halfWidth = 1e300;
  overlay.spots.clear();
  const RgbImage wide = RenderSpotOverlay(image, overlay);
  for (int x = 0; x < 80; ++x)
    EXPECT_NE(wide.Get(x, 0), kSquareColour);
}

// Real laser spots (see testdata/licenses): the reticle at the frame's centre, a square that holds
// the spot, the default saturation level (no pixel of the 16-bit frame reaches its 64250 counts).
// Where the light is, found here without the detector: a pixel's level is the least of it and its
// four neighbours (a lone hot pixel has none); the beam's height is the largest level above the
// median background; the pixels whose level exceeds half the height give the beam's radius
// r = sqrt(area / pi) and a box the spot's box must hold; the centre of the light is the
// background-subtracted, intensity-weighted centroid of the pixels whose level exceeds a tenth of the
// height.
//
// Tolerance: a real beam is not a Gaussian, and its weighted centroid depends on the level down to
// which the light is counted: between 25 % and 5 % of the height it moves by 0.013 r (8-bit beam)
// and 0.08 r (16-bit beam, whose wing trails to the lower left). The detector counts down to its own
// noise-derived level and weights raw counts (the pedestal included), so it is held to 0.1 r of the
// 10 % centroid: 2.8 and 3.8 pixels here (measured: 0.04 r and 0.003 r), against spots that sit 40
// and 370 pixels from the reticle centre.
struct RealSpot {
  const char* file;
  const char* quadrant;  // from the beam's place relative to the centre (640, 480)
};

void PrintTo(const RealSpot& spot, std::ostream* out) {
  *out << spot.file;
}

class RealSpotTest : public SpotCommandTest, public ::testing::WithParamInterface<RealSpot> {};

TEST_P(RealSpotTest, OneSpotWhereTheLightIs) {
  const std::string file = std::string(QUARN_TESTDATA_DIR) + "/" + GetParam().file;
  IntMatrix2D image;
  ReadTiffImage(file, image);
  std::vector<int> values(image.Data(), image.Data() + image.GetCount());
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  const double background = values[values.size() / 2];
  const auto level = [&](int r, int c) {
    return std::min({image(r, c), image(r - 1, c), image(r + 1, c), image(r, c - 1), image(r, c + 1)});
  };
  const int rows = image.GetRows(), cols = image.GetColumns();
  double peak = 0.0;
  for (int r = 1; r < rows - 1; ++r) {
    for (int c = 1; c < cols - 1; ++c)
      peak = std::max(peak, static_cast<double>(level(r, c)));
  }
  const double half = background + 0.5 * (peak - background), tenth = background + 0.1 * (peak - background);
  double n = 0, w = 0, wx = 0, wy = 0;
  for (int r = 1; r < rows - 1; ++r) {
    for (int c = 1; c < cols - 1; ++c) {
      if (level(r, c) > tenth) {
        const double light = image(r, c) - background;
        w += light, wx += light * c, wy += light * r;
      }
      n += level(r, c) > half ? 1 : 0;
    }
  }
  ASSERT_GT(n, 100) << "a beam, not a hot pixel";
  const double radius = std::sqrt(n / 3.14159265358979), cx = wx / w, cy = wy / w;

  const RunResult result = RunExpecting(0, "spot " + file + " --center 640,480 --radius 450 --obscuration 10",
                                        std::string("position: ") + GetParam().quadrant);
  EXPECT_THAT(result.out, ::testing::Not(HasSubstr("spot 1:"))) << "one spot only";
  const double x = NumberAfter(result.out, "centre of mass x "), y = NumberAfter(result.out, ", y ");
  EXPECT_LT(std::hypot(x - cx, y - cy), 0.1 * radius)
      << "detected (" << x << ", " << y << "), centroid of the light (" << cx << ", " << cy << "), radius "
      << radius;
  RecordProperty("centre_of_mass_offset_in_radii", std::to_string(std::hypot(x - cx, y - cy) / radius));
}

INSTANTIATE_TEST_SUITE_P(Beams, RealSpotTest,
                         ::testing::Values(RealSpot{"beam_spot_8bit.tif", "Quadrant4"},
                                           RealSpot{"beam_spot_16bit.tif", "Quadrant2"}),
                         [](const auto& info) {
                           std::string name = std::string(info.param.file).substr(10);
                           return name.substr(0, name.find('.'));
                         });

}  // namespace
}  // namespace Quarn::Qphase

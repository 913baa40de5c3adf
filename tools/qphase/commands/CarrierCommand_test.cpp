// qphase carrier and qphase quadrants seen from a shell: exit statuses, messages, what is left on
// disk, and the maps they write against the truth they were made from.
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
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticCarrier.h"
#include "TiffIO.h"

namespace Quarn::Qphase {
namespace {

namespace fs = std::filesystem;

class CarrierCliTest : public CliTestFixture {
 protected:
  static constexpr int kRows = 64, kCols = 80;

  static double SurfacePhase(int r, int c) {
    const double x = (c - kCols / 2.0) / kCols, y = (r - kRows / 2.0) / kRows;
    return 2.0 * (x * x + y * y) + 1.5 * x * y + 0.6 * x;
  }

  // An 8-bit carrier frame of the surface phase with the lobe in `quadrant`, 1 count of noise.
  std::string WriteFrame(const std::string& name, int quadrant, double amplitude = 80.0,
                         int pages = 1) const {
    Core::FrameBuffer frames;
    frames.Allocate(Core::Window2D(0, 0, kRows, kCols), pages, Core::FrameBuffer::kRes8Bit);
    Testing::SeededRandom random(40 + quadrant);
    Testing::CarrierScene scene;
    scene.phase = SurfacePhase;
    scene.quadrant = quadrant;
    scene.modulation = amplitude;
    scene.noiseSigma = 1.0;
    for (int page = 0; page < pages; ++page)
      Testing::FillCarrierFrame(frames, page, scene, &random);
    WriteTiffStack(Path(name), frames);
    return Path(name);
  }
};

// The written phase is the surface's in radians, up to a constant; 8 pixels from the frame edge
// the filter's own error and 1 count of noise stay well below 0.02 rad. The recovery in every
// quadrant is the library's test; here the tool's options must reach the pipeline.
TEST_F(CarrierCliTest, CarrierWritesThePhaseAndModulation) {
  const std::string frame = WriteFrame("frame.tif", 3);
  const RunResult result = Run("carrier " + frame + " -o " + Path("phase.tif") + " --modulation " +
                               Path("mod.tif") + " --png " + Path("phase.png") + " --quadrant 3 --threads 2");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("quadrant 3, 4 pixels per fringe: 100.0 % valid"));
  EXPECT_GT(fs::file_size(Path("phase.png")), 1000u);
  Core::DoubleMatrix2D phase, modulation;
  ReadFloatTiff(Path("phase.tif"), phase);
  ReadFloatTiff(Path("mod.tif"), modulation);
  ASSERT_EQ(phase.GetRows(), kRows);
  ASSERT_EQ(phase.GetColumns(), kCols);
  double sum = 0.0, sumSquares = 0.0;
  int n = 0;
  for (int r = 8; r < kRows - 8; ++r) {
    for (int c = 8; c < kCols - 8; ++c) {
      const double e = std::remainder(phase(r, c) - SurfacePhase(r, c), 2.0 * std::numbers::pi);
      sum += e;
      sumSquares += e * e;
      ++n;
      // The filter passes the lobe with 0.989 of its amplitude: 79 counts, give or take the noise.
      ASSERT_NEAR(modulation(r, c), 79.1, 3.0) << r << "," << c;
    }
  }
  EXPECT_LT(std::sqrt(sumSquares / n - (sum / n) * (sum / n)), 0.02);
  EXPECT_TRUE(Leftovers({"frame.tif", "phase.tif", "mod.tif", "phase.png"}).empty());
}

TEST_F(CarrierCliTest, CarrierInputProblemsAreExitStatus2AndNoResultIs1) {
  const std::string stack = WriteFrame("stack.tif", 2, 80.0, 3);
  RunExpecting(2, "carrier " + stack + " -o " + Path("phase.tif"),
               "has 3 pages; carrier fringes are one frame");

  // Fringes of 6 counts are far below 20 % of half the range (25.5 counts): nothing is valid.
  const std::string faint = WriteFrame("faint.tif", 2, 6.0);
  RunExpecting(1,
               "carrier " + faint + " -o " + Path("phase.tif") + " --modulation " + Path("mod.tif") +
                   " --threshold 20",
               "no valid pixel in " + faint);
  EXPECT_TRUE(Leftovers({"stack.tif", "faint.tif"}).empty()) << "a failed run leaves no file";
}

// Quadrant maps with a known x y term: the PV printed is that of the term (over the square's
// corners), the decision follows the tolerance, and the maps written are the combination. With
// four maps the tool still measures Q1 and Q3 alone, which tells whether Q2 and Q4 were needed.
TEST_F(CarrierCliTest, QuadrantsCombineAndDecide) {
  const int size = 32;
  const double a = 0.05, h = (size - 1) / 2.0;  // nm per pixel^2; PV = a 2 h^2 = 24.025 nm
  const auto astigmatic = [&](int r, int c) { return a * (c - h) * (r - h) + 3.0; };
  const std::string q1 = WriteMap("q1.tif", size, size, [&](int r, int c) { return astigmatic(r, c) + 0.5; });
  const std::string q3 = WriteMap("q3.tif", size, size, [&](int r, int c) { return astigmatic(r, c) - 0.5; });
  RunResult result = Run("quadrants --q1 " + q1 + " --q3 " + q3 + " -o " + Path("final.tif") +
                         " --calibration " + Path("cal.tif"));
  ASSERT_EQ(result.status, 0) << result.err;
  // The maps are stored as floats (7 digits): the PV holds to 1e-4 nm.
  EXPECT_NEAR(NumberAfter(result.out, "astigmatism PV: "), 24.025, 1e-3) << result.out;
  EXPECT_THAT(result.out, HasSubstr("nm (tolerance 10.000 nm)\nfour quadrants required: yes"));
  Core::DoubleMatrix2D final, calibration;
  ReadFloatTiff(Path("final.tif"), final);
  ReadFloatTiff(Path("cal.tif"), calibration);
  EXPECT_NEAR(final(5, 7), astigmatic(5, 7), 1e-4);  // float files
  EXPECT_NEAR(calibration(5, 7), 0.5, 1e-6);

  RunExpecting(0, "quadrants --q1 " + q1 + " --q3 " + q3 + " -o " + Path("final.tif") + " --tolerance 30",
               "four quadrants required: no");

  // Phase in radians of 632.8 nm: the PV is reported as surface height, lambda / (4 pi) per radian.
  result = RunExpecting(
      0, "quadrants --q1 " + q1 + " --q3 " + q3 + " -o " + Path("final.tif") + " --wavelength 632.8");
  EXPECT_NEAR(NumberAfter(result.out, "astigmatism PV: "), 24.025 * 632.8 / (4.0 * std::numbers::pi), 2e-3)
      << result.out;

  // Q2 and Q4 without the x y term: the four-quadrant map keeps three quarters of it.
  const std::string q2 = WriteMap("q2.tif", size, size, [](int, int) { return 2.0; });
  const std::string q4 = WriteMap("q4.tif", size, size, [](int, int) { return 4.0; });
  result = Run("quadrants --q1 " + q1 + " --q2 " + q2 + " --q3 " + q3 + " --q4 " + q4 + " -o " +
               Path("four.tif") + " --tolerance 30");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NEAR(NumberAfter(result.out, "PV of Q1 and Q3 alone: "), 24.025, 1e-3) << result.out;
  EXPECT_THAT(result.out, HasSubstr("four quadrants required: no"));
  EXPECT_NEAR(NumberAfter(result.out, "PV of the four-quadrant map: "), 24.025 / 2, 1e-3) << result.out;
  ReadFloatTiff(Path("four.tif"), final);
  EXPECT_NEAR(final(9, 20), (2 * astigmatic(9, 20) + 6.0) / 4, 1e-4);
}

TEST_F(CarrierCliTest, QuadrantsProblemsAreNamed) {
  const std::string q1 = WriteMap("q1.tif", 16, 16, [](int r, int c) { return 0.01 * r * c; });
  const std::string q3 = WriteMap("q3.tif", 16, 18, [](int r, int c) { return 0.01 * r * c; });
  RunExpecting(2, "quadrants --q1 " + q1 + " --q3 " + q3 + " -o " + Path("final.tif"),
               q3 + " is 18 x 16, " + q1 + " is 16 x 16");
  RunExpecting(2, "quadrants --q1 " + q1 + " --q3 " + q1 + " --q2 " + q1 + " -o " + Path("final.tif"),
               "--q2 and --q4 go together");

  // Maps without a common valid pixel: no result, nothing written.
  const std::string left =
      WriteMap("left.tif", 16, 16, [](int, int c) { return c < 8 ? 1.0 : std::nan(""); });
  const std::string right =
      WriteMap("right.tif", 16, 16, [](int, int c) { return c >= 8 ? 1.0 : std::nan(""); });
  RunExpecting(1, "quadrants --q1 " + left + " --q3 " + right + " -o " + Path("final.tif"),
               "no pixel has data in every quadrant map");
  EXPECT_TRUE(Leftovers({"q1.tif", "q3.tif", "left.tif", "right.tif"}).empty());

  // Data on one row only: the maps combine, but no x y term can be fitted. The map is written and
  // the PV reported as unavailable, with the decision that follows from not knowing it.
  const std::string row =
      WriteMap("row.tif", 16, 16, [](int r, int c) { return r == 4 ? 0.1 * c : std::nan(""); });
  RunExpecting(0, "quadrants --q1 " + row + " --q3 " + row + " -o " + Path("final.tif"),
               "astigmatism PV: unavailable (Solving the equation system failed) (tolerance 10.000 nm)\n"
               "four quadrants required: yes");
  EXPECT_TRUE(fs::exists(Path("final.tif")));
}

}  // namespace
}  // namespace Quarn::Qphase

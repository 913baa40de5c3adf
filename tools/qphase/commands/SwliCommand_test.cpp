// qphase swli seen from a shell: heights of known surfaces, exit statuses, messages and leftovers.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "CliTestFixture.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticScan.h"
#include "TiffIO.h"

namespace Quarn::Qphase {
namespace {

namespace fs = std::filesystem;

constexpr double kStepNm = 80.0;

// A tilted plane with a 300 nm step: frames 80 to 95 of a 160-frame scan.
double Surface(int r, int c) {
  return 6400.0 + 19.0 * r + 13.0 * c + (c >= 16 ? 300.0 : 0.0);
}

class SwliCliTest : public CliTestFixture {
 protected:
  static Testing::ScanSettings Settings(int direction = 1) {
    Testing::ScanSettings s;
    s.rows = 20;
    s.cols = 28;
    s.framesScanned = 160;
    s.scanStepNm = kStepNm;
    s.noiseSigmaCounts = 1.0;
    s.scanDirection = direction;
    return s;
  }

  std::string WriteScan(const std::string& name, const Testing::ScanSettings& settings) const {
    Testing::SeededRandom random(71);
    Core::FrameBuffer frames;
    EXPECT_TRUE(Testing::MakeSyntheticScan(frames, settings, Surface, &random));
    WriteTiffStack(Path(name), frames);
    return Path(name);
  }
};

// The frequency-domain analysis through the tool: the surface to within 2.5 nm (see the library's
// accuracy test: about 0.3 nm RMS per count of noise; the float file keeps 0.001 nm), the intensity
// at the bias (fringes of 3.75 frames per period leave a few counts in the 8-frame window), a
// preview, and nothing else on disk.
TEST_F(SwliCliTest, FdaWritesHeightsIntensityAndAPreview) {
  const std::string scan = WriteScan("scan.tif", Settings());
  const RunResult result =
      Run("swli " + scan + " -o " + Path("height.tif") + " --scan-step 80 --algorithm fda" + " --intensity " +
          Path("intensity.tif") + " --png " + Path("height.png") + " --threads 2");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("algorithm fda: 100.0 % valid"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("equivalent wavelength 30"), std::string::npos) << result.out;
  EXPECT_GT(fs::file_size(Path("height.png")), 1000u);
  EXPECT_TRUE(Leftovers({"scan.tif", "height.tif", "intensity.tif", "height.png"}).empty());

  Core::DoubleMatrix2D height, intensity;
  ReadFloatTiff(Path("height.tif"), height);
  ReadFloatTiff(Path("intensity.tif"), intensity);
  ASSERT_EQ(height.GetRows(), 20);
  ASSERT_EQ(height.GetColumns(), 28);
  for (int r = 0; r < 20; ++r) {
    for (int c = 0; c < 28; ++c) {
      EXPECT_NEAR(height(r, c), Surface(r, c), 2.5) << r << "," << c;
      EXPECT_NEAR(intensity(r, c), 100.0, 8.0) << r << "," << c;
    }
  }
}

// The centroid through the tool lands within a tenth of the coherence length of the surface (one
// step above it, by its convention); the same surface scanned the other way gives the same file
// contents, and so does any thread count. With QUARN_DEBUG set, the stage timings go to standard
// error and standard output keeps only the result line.
TEST_F(SwliCliTest, CentroidHeightsAgreeAcrossDirectionsAndThreads) {
  const std::string forward = WriteScan("forward.tif", Settings(1));
  const std::string reversed = WriteScan("reversed.tif", Settings(-1));
  ASSERT_EQ(Run("swli " + forward + " -o " + Path("f.tif") + " --scan-step 80 --threads 0").status, 0);
  ASSERT_EQ(Run("swli " + forward + " -o " + Path("f3.tif") + " --scan-step 80 --threads 3").status, 0);
  ::setenv("QUARN_DEBUG", "1", 1);
  const RunResult result = Run("swli " + reversed + " -o " + Path("r.tif") + " --scan-step 80 --reverse");
  ::unsetenv("QUARN_DEBUG");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.err.find("\tPhaseGenerator ProcessPixels: "), std::string::npos) << result.err;
  EXPECT_EQ(result.out.find("PhaseGenerator"), std::string::npos) << result.out;
  EXPECT_EQ(result.out.find(reversed + ": 28 x 20, 160 frames"), 0u) << result.out;
  Core::DoubleMatrix2D f, f3, r;
  ReadFloatTiff(Path("f.tif"), f);
  ReadFloatTiff(Path("f3.tif"), f3);
  ReadFloatTiff(Path("r.tif"), r);
  const double tolerance = 0.1 * Testing::CoherenceLengthNm(Testing::ScanLight{});
  for (int row = 0; row < 20; ++row) {
    for (int c = 0; c < 28; ++c) {
      EXPECT_NEAR(f(row, c), Surface(row, c) + kStepNm, tolerance) << row << "," << c;
      EXPECT_EQ(r(row, c), f(row, c)) << row << "," << c;
      EXPECT_EQ(f3(row, c), f(row, c)) << row << "," << c;
    }
  }
}

// Failures: no valid pixel is exit status 1 (the FDA's message names the band it searched); usage errors are
// exit status 2 with the problem named in a line (a bad number is quoted as written, not in full precision).
// A failed run leaves no file.
TEST_F(SwliCliTest, FailuresExitWithTheirStatusAndAShortMessageAndWriteNothing) {
  Testing::ScanSettings weak = Settings(), shortScan = Settings();
  weak.modulationCounts = 3.0;  // far below 15 % of 255
  shortScan.framesScanned = 64;
  const std::string scan = WriteScan("scan.tif", Settings());
  const std::string files[] = {WriteScan("weak.tif", weak), WriteScan("short.tif", shortScan)};
  const std::string out = " -o " + Path("h.tif");
  struct Case {
    std::string arguments;
    int status;
    std::string message;
  };
  const Case cases[] = {
      {files[0] + out + " --scan-step 80 --intensity " + Path("i.tif") + " --png " + Path("h.png"), 1,
       "no valid pixel in " + files[0]},
      {files[0] + out + " --scan-step 80 --algorithm fda --wavelength 600", 1, "in bins 13 .. 21 of 64"},
      {scan + out + " --scan-step -1", 2, "--scan-step: must be a positive number of nanometres, not -1"},
      {scan + out + " --scan-step 80 --fringe-removal none --intensity " + Path("i.tif"), 2,
       "--intensity needs a fringe-removal method"},
      {files[1] + out + " --scan-step 80", 2, "short.tif has 64 frames"},
      {scan + out + " --scan-step 80 --wavelength 0", 2, "--wavelength: must be a positive number"},
      {scan + " -o " + Path("no/such/dir/h.tif") + " --scan-step 80", 2, "no/such/dir"},
  };
  for (const Case& c : cases) {
    const RunResult result = Run("swli " + c.arguments);
    EXPECT_EQ(result.status, c.status) << c.arguments;
    EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
    EXPECT_TRUE(c.status != 2 || result.err.size() < 250u) << result.err;
  }
  EXPECT_TRUE(Leftovers({"scan.tif", "weak.tif", "short.tif"}).empty());
}

// One surface scanned at 20 nm (15 frames per fringe of 600 nm light, 640 frames) and at 80 nm over
// the same range. The FDA measures the period and evaluates the fine scan as four interleaved
// subsamples: every pixel, the surface to 2.5 nm as at 80 nm (the mean of four subsamples carries
// half their noise). The centroid's default threshold is scaled to the sampling and said so: the
// same valid fraction at both steps, where 15 % unscaled, given explicitly, keeps no pixel of the fine
// scan (its modulation measure is at most 1.8 x the fringe amplitude of 60 counts there, the
// threshold 76.5).
TEST_F(SwliCliTest, AFineScanGivesTheSurfaceAndTheValidFractionOfACoarseOne) {
  Testing::ScanSettings fine = Settings(), coarse = Settings();
  fine.scanStepNm = 20.0;
  fine.framesScanned = 640;
  const std::string fineScan = WriteScan("fine.tif", fine);
  const std::string coarseScan = WriteScan("coarse.tif", coarse);

  const RunResult fda =
      Run("swli " + fineScan + " -o " + Path("fda.tif") + " --scan-step 20 --algorithm fda");
  ASSERT_EQ(fda.status, 0) << fda.err;
  EXPECT_NE(fda.out.find("algorithm fda: 100.0 % valid, 15.0 frames per fringe (measured), 4 interleaved "
                         "subsamples of bins 13 .. 21"),
            std::string::npos)
      << fda.out;
  // The subsamples on three threads and with the intensity map: the same heights, bit for bit.
  const RunResult threaded = Run("swli " + fineScan + " -o " + Path("fda3.tif") +
                                 " --scan-step 20 --algorithm fda --threads 3 --intensity " + Path("i.tif"));
  ASSERT_EQ(threaded.status, 0) << threaded.err;
  Core::DoubleMatrix2D height, height3, intensity;
  ReadFloatTiff(Path("fda.tif"), height);
  ReadFloatTiff(Path("fda3.tif"), height3);
  ReadFloatTiff(Path("i.tif"), intensity);
  for (int r = 0; r < 20; ++r) {
    for (int c = 0; c < 28; ++c) {
      EXPECT_NEAR(height(r, c), Surface(r, c), 2.5) << r << "," << c;
      EXPECT_EQ(height3(r, c), height(r, c)) << r << "," << c;
      EXPECT_NEAR(intensity(r, c), 100.0, 8.0) << r << "," << c;
    }
  }

  const RunResult fineCentroid = Run("swli " + fineScan + " -o " + Path("fc.tif") + " --scan-step 20");
  const RunResult coarseCentroid = Run("swli " + coarseScan + " -o " + Path("cc.tif") + " --scan-step 80");
  ASSERT_EQ(fineCentroid.status, 0) << fineCentroid.err;
  ASSERT_EQ(coarseCentroid.status, 0) << coarseCentroid.err;
  EXPECT_NE(fineCentroid.out.find("algorithm centroid: 100.0 % valid, 15.0 frames per fringe (measured), "
                                  "minimum modulation 2.6"),
            std::string::npos)
      << fineCentroid.out;
  EXPECT_NE(fineCentroid.out.find("(15 % scaled to the sampling)"), std::string::npos) << fineCentroid.out;
  EXPECT_NE(coarseCentroid.out.find("algorithm centroid: 100.0 % valid"), std::string::npos)
      << coarseCentroid.out;

  const RunResult given = Run("swli " + fineScan + " -o " + Path("g.tif") +
                              " --scan-step 20 --min-modulation 15 --wavelength 600");
  EXPECT_EQ(given.status, 1) << given.out;
  EXPECT_NE(given.err.find("at least 15 % of the saturation level"), std::string::npos) << given.err;
}

}  // namespace
}  // namespace Quarn::Qphase

// The qphase executable seen from a shell: exit statuses, messages and what is left on disk.
#include <tiffio.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "CliTestFixture.h"

namespace Quarn::Qphase {
namespace {

namespace fs = std::filesystem;

using QphaseCliTest = CliTestFixture;

// More than 13 frames and not 20 take the sliding kernel; every output lands under its own name
// and no temporary is left behind.
TEST_F(QphaseCliTest, PsiWritesMapsAndAPreview) {
  const std::string stack = WritePsiStack("stack16.tif", 16);
  RunExpecting(0,
               "psi " + stack + " -o " + Path("phase.tif") + " --modulation " + Path("mod.tif") + " --png " +
                   Path("phase.png") + " --threads 2",
               "algorithm sliding13: 100.0 % valid");
  EXPECT_EQ(Files(), (std::vector<std::string>{"mod.tif", "phase.png", "phase.tif", "stack16.tif"}));
  EXPECT_GT(fs::file_size(Path("phase.png")), 1000u);
}

// Unreadable input, frame counts no algorithm fits, bad option values and outputs that clash are
// usage errors (exit 2) whose message names the file or the option and, for values, the allowed
// range in plain numbers; nothing is written, and no temporary name is shown.
TEST_F(QphaseCliTest, UsageErrorsAreExitStatus2WithTheProblemNamed) {
  const std::string seven = WritePsiStack("seven.tif", 7), twelve = WritePsiStack("twelve.tif", 12);
  std::ofstream(Path("notes.tif")) << "plain text\n";
  TIFF* tiff = TIFFOpen(Path("empty.tif").c_str(), "w");  // one page of 0 x 0 pixels
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, 0u);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, 0u);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
  TIFFWriteDirectory(tiff);
  TIFFClose(tiff);
  const std::string out = " -o " + Path("p.tif");
  const std::pair<std::string, std::string> cases[] = {
      {Path("absent.tif") + out, "absent.tif"},
      {Path("notes.tif") + out, "notes.tif: not a readable TIFF file"},
      {Path("empty.tif") + out, "empty.tif: page 1 has no pixels (declared 0 x 0)"},
      {twelve + out, "has 12 frames; no algorithm fits"},
      {twelve + out + " --algorithm 13",
       "the 13-frame algorithm needs 13 frames, " + twelve + " has 12 frames"},
      {seven + out + " --algorithm sliding13", "needs at least 13 frames"},
      {seven + out + " --frame-weights 1,1,1", "--frame-weights gives 3 weights"},
      {seven + " -o " + Path("no/such/dir/p.tif"), "no/such/dir/p.tif: No such file"},
      {seven, "--output is required"},
      {seven + out + " --max-value 0", "--max-value: got 0; a whole number from 1 to 65535 is needed"},
      {seven + out + " --frame-weights 1,1,1,1,1,1,0", "--frame-weights: got 0; a number above 0 is needed"},
      {seven + out + " --min-modulation 150", "--min-modulation: got 150; a number from 0 to 100 is needed"},
      {seven + out + " --threads -2", "--threads: got -2; a whole number from 0 to 1024 is needed"},
      {seven + out + " --phase-sign 2", "--phase-sign"},
      {seven + out + " --modulation " + Path("p.tif"),
       "--modulation (" + Path("p.tif") + ") and -o (" + Path("p.tif") + ") name the same file"},
      {seven + out + " --png " + dir_.string() + "/./p.tif", "name the same file"},
  };
  for (const auto& [arguments, message] : cases) {
    const RunResult result = RunExpecting(2, "psi " + arguments, message);
    EXPECT_EQ(result.err.find(".partial-"), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("1797693"), std::string::npos) << "no raw limit of a type: " << result.err;
  }
  EXPECT_EQ(Files(), (std::vector<std::string>{"empty.tif", "notes.tif", "seven.tif", "twelve.tif"}));
}

TEST_F(QphaseCliTest, NoValidPixelIsExitStatus1AndNothingIsWritten) {
  const std::string flat = WritePsiStack("flat.tif", 7, 2.0);  // modulation of 4 counts: far below 15 %
  RunExpecting(1,
               "psi " + flat + " -o " + Path("phase.tif") + " --modulation " + Path("mod.tif") + " --png " +
                   Path("p.png"),
               "no valid pixel in " + flat);
  EXPECT_EQ(Files(), std::vector<std::string>{"flat.tif"}) << "a failed run must not leave files";
  EXPECT_EQ(Run("psi " + flat + " -o " + Path("phase.tif") + " --min-modulation 0.5").status, 0);
}

}  // namespace
}  // namespace Quarn::Qphase

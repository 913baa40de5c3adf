// The qphase executable seen from a shell: exit statuses, messages and what is left on disk.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <tiffio.h>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "CliTestFixture.h"
#include "Testing/SyntheticPsi.h"
#include "TiffIO.h"

namespace Quarn::Qphase {
namespace {

namespace fs = std::filesystem;

class QphaseCliTest : public CliTestFixture {
 protected:
  // A stack of `frames` 8-bit frames of the 13-frame (or 7-/20-frame) model with amplitude `amplitude`.
  std::string WriteStack(const std::string& name, int frames, double amplitude = 80.0) const {
    Core::FrameBuffer stack;
    stack.Allocate(Core::Window2D(0, 0, 24, 32), frames, Core::FrameBuffer::kRes8Bit);
    const std::vector<double> shifts = frames == 7    ? Testing::ShiftsFor7()
                                       : frames == 20 ? Testing::ShiftsFor20()
                                                      : Testing::ShiftsForSliding13(frames);
    Testing::FillPsiStack(stack, shifts, [amplitude](int r, int c) {
      return Testing::PixelFringe{120.0, amplitude, 0.2 * c - 0.1 * r};
    });
    WriteTiffStack(Path(name), stack);
    return Path(name);
  }

  // Files in the work directory other than the given ones (leftovers of a failed run).
  std::vector<std::string> Leftovers(std::initializer_list<std::string> expected) const {
    std::vector<std::string> extra;
    for (const auto& entry : fs::directory_iterator(dir_)) {
      const std::string name = entry.path().filename().string();
      if (std::find(expected.begin(), expected.end(), name) == expected.end()) extra.push_back(name);
    }
    return extra;
  }
};

TEST_F(QphaseCliTest, PsiWritesMapsAndAPreview) {
  const std::string stack = WriteStack("stack13.tif", 13);
  const RunResult result = Run("psi " + stack + " -o " + Path("phase.tif") + " --modulation " +
                               Path("mod.tif") + " --png " + Path("phase.png") + " --threads 2");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("algorithm 13"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("100.0 % valid"), std::string::npos) << result.out;
  EXPECT_TRUE(fs::exists(Path("phase.tif")));
  EXPECT_TRUE(fs::exists(Path("mod.tif")));
  EXPECT_GT(fs::file_size(Path("phase.png")), 1000u);
  EXPECT_TRUE(Leftovers({"stack13.tif", "phase.tif", "mod.tif", "phase.png"}).empty());

  // The written phase is the surface's, in radians: pixel (r, c) has phase 0.2 c - 0.1 r (8-bit
  // samples of amplitude 80 hold it to a few thousandths of a radian).
  Core::DoubleMatrix2D phase;
  ReadFloatTiff(Path("phase.tif"), phase);
  ASSERT_EQ(phase.GetRows(), 24);
  ASSERT_EQ(phase.GetColumns(), 32);
  for (int r = 0; r < 24; ++r) {
    for (int c = 0; c < 32; ++c) {
      EXPECT_NEAR(std::remainder(phase(r, c) - (0.2 * c - 0.1 * r), 2 * M_PI), 0.0, 0.01) << r << "," << c;
    }
  }
}

TEST_F(QphaseCliTest, FrameCountsThatFitNoAlgorithmAreNamed) {
  const std::string twelve = WriteStack("twelve.tif", 12);
  RunResult result = Run("psi " + twelve + " -o " + Path("phase.tif"));
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("has 12 frames; no algorithm fits"), std::string::npos) << result.err;

  result = Run("psi " + twelve + " -o " + Path("phase.tif") + " --algorithm 13");
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("the 13-frame algorithm needs 13 frames, " + twelve + " has 12 frames"),
            std::string::npos)
      << result.err;
  EXPECT_FALSE(fs::exists(Path("phase.tif")));

  const std::string seven = WriteStack("seven.tif", 7);
  result = Run("psi " + seven + " -o " + Path("phase.tif") + " --algorithm sliding13");
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("needs at least 13 frames"), std::string::npos) << result.err;

  result = Run("psi " + seven + " -o " + Path("phase.tif") + " --frame-weights 1,1,1");
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("--frame-weights gives 3 weights"), std::string::npos) << result.err;

  // More than 13 frames and not 20: the sliding kernel.
  const std::string sixteen = WriteStack("sixteen.tif", 16);
  result = Run("psi " + sixteen + " -o " + Path("phase.tif"));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("algorithm sliding13"), std::string::npos);
}

TEST_F(QphaseCliTest, UnreadableFilesAreExitStatus2WithTheFileNamed) {
  RunResult result = Run("psi " + Path("absent.tif") + " -o " + Path("phase.tif"));
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("absent.tif"), std::string::npos) << result.err;

  std::ofstream(Path("notes.tif")) << "plain text\n";
  result = Run("psi " + Path("notes.tif") + " -o " + Path("phase.tif"));
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("notes.tif: not a readable TIFF file"), std::string::npos) << result.err;

  // A TIFF whose only page declares 0 x 0 pixels, with everything else a reader asks for.
  TIFF* tiff = TIFFOpen(Path("empty.tif").c_str(), "w");
  ASSERT_NE(tiff, nullptr);
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, 0u);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, 0u);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
  TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, 1u);
  TIFFWriteDirectory(tiff);
  TIFFClose(tiff);
  result = Run("psi " + Path("empty.tif") + " -o " + Path("phase.tif"));
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("empty.tif: page 1 has no pixels (declared 0 x 0)"), std::string::npos)
      << result.err;

  // A write error names the file asked for, not the hidden temporary one beside it.
  result = Run("psi " + WriteStack("ok.tif", 7) + " -o " + Path("no/such/dir/phase.tif"));
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("no/such/dir/phase.tif: No such file"), std::string::npos) << result.err;
  EXPECT_EQ(result.err.find(".partial-"), std::string::npos) << result.err;
  EXPECT_TRUE(Leftovers({"ok.tif", "notes.tif", "empty.tif"}).empty());
}

// Bad option values are usage errors whose message names the option and the allowed values in
// plain numbers; outputs that name one file twice are refused before anything is written.
TEST_F(QphaseCliTest, BadOptionsAreExitStatus2AndNamed) {
  const std::string stack = WriteStack("ok.tif", 7);
  const std::string run = "psi " + stack + " -o " + Path("p.tif");
  const std::pair<std::string, std::string> cases[] = {
      {" --max-value 0", "--max-value: got 0; a whole number from 1 to 65535 is needed"},
      {" --frame-weights 1,1,1,1,1,1,0", "--frame-weights: got 0; a number above 0 is needed"},
      {" --min-modulation 150", "--min-modulation: got 150; a number from 0 to 100 is needed"},
      {" --threads -2", "--threads: got -2; a whole number from 0 to 1024 is needed"},
      {" --phase-sign 2", "--phase-sign"},
      {" --modulation " + Path("p.tif"),
       "--modulation (" + Path("p.tif") + ") and -o (" + Path("p.tif") + ") name the same file"},
      {" --png " + dir_.string() + "/./p.tif", "name the same file"},
  };
  for (const auto& [options, message] : cases) {
    const RunResult result = Run(run + options);
    EXPECT_EQ(result.status, 2) << options;
    EXPECT_NE(result.err.find(message), std::string::npos) << options << ": " << result.err;
    EXPECT_EQ(result.err.find("1797693"), std::string::npos) << "no raw limits of a type: " << result.err;
  }
  EXPECT_EQ(Run("psi " + stack).status, 2) << "the output is required";
  EXPECT_TRUE(Leftovers({"ok.tif"}).empty());
}

TEST_F(QphaseCliTest, NoValidPixelIsExitStatus1AndNothingIsWritten) {
  const std::string flat = WriteStack("flat.tif", 7, 2.0);  // modulation of 4 counts: far below 15 %
  const RunResult result = Run("psi " + flat + " -o " + Path("phase.tif") + " --modulation " +
                               Path("mod.tif") + " --png " + Path("p.png"));
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("no valid pixel in " + flat), std::string::npos) << result.err;
  EXPECT_TRUE(Leftovers({"flat.tif"}).empty()) << "a failed run must not leave files";

  // The same stack passes with the threshold lowered.
  EXPECT_EQ(Run("psi " + flat + " -o " + Path("phase.tif") + " --min-modulation 0.5").status, 0);
}

// Every section of the demo runs on small images: each row of its table carries finite numbers
// (an error may be "n/a" only with its reason), and each section leaves maps and previews.
TEST_F(QphaseCliTest, DemoRunsEverySectionAndWritesItsMaps) {
  const RunResult result = Run("demo --size 64 --out " + Path("demo"));
  ASSERT_EQ(result.status, 0) << result.err;
  std::istringstream table(result.out);
  std::string line;
  int rows = 0;
  while (std::getline(table, line)) {
    const std::size_t size = line.find(" 64x64 ");
    if (size == std::string::npos) continue;
    ++rows;
    std::istringstream fields(line.substr(size + 7));
    std::string milliseconds, rate, error, token;
    fields >> milliseconds >> rate >> error;
    const auto finite = [](const std::string& text) {
      char* end = nullptr;
      const double value = std::strtod(text.c_str(), &end);
      return !text.empty() && *end == '\0' && std::isfinite(value);
    };
    EXPECT_TRUE(finite(milliseconds) && finite(rate)) << line;
    EXPECT_TRUE(finite(error) || (error == "n/a" && line.find("n/a (") != std::string::npos)) << line;
    while (fields >> token && token.back() != '%') {
    }
    EXPECT_TRUE(!token.empty() && token.back() == '%' && finite(token.substr(0, token.size() - 1))) << line;
  }
  EXPECT_GE(rows, 5) << result.out;
  for (const std::string algorithm :
       {"PSI Convert7 ", "PSI Convert13 ", "PSI Convert20 ", "PSI ConvertSliding13"})
    EXPECT_NE(result.out.find(algorithm), std::string::npos) << algorithm;
  for (const std::string section : {"psi_", "psicheck_", "swli_", "carrier_", "spot_"}) {
    int maps = 0, previews = 0;
    for (const auto& entry : fs::directory_iterator(Path("demo"))) {
      const std::string name = entry.path().filename().string();
      if (name.rfind(section, 0) != 0 || fs::file_size(entry.path()) == 0) continue;
      maps += entry.path().extension() == ".tif";
      previews += entry.path().extension() == ".png";
    }
    EXPECT_GT(maps, 0) << section;
    EXPECT_GT(previews, 0) << section;
  }
}

}  // namespace
}  // namespace Quarn::Qphase

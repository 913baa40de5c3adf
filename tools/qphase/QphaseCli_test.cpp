// The qphase executable seen from a shell: exit statuses, messages and what is left on disk.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

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

TEST_F(QphaseCliTest, EverySubcommandHasHelp) {
  for (const std::string sub : {"", "psi", "demo"}) {
    const RunResult result = Run(sub + " --help");
    EXPECT_EQ(result.status, 0) << sub;
    EXPECT_NE(result.out.find("Usage"), std::string::npos) << sub << ": " << result.out;
  }
}

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

  // A hand-made TIFF whose only page is 0 x 0 pixels.
  const unsigned char zeroSize[] = {'I',  'I',  42, 0, 8, 0, 0, 0,  // header, first directory at offset 8
                                    5,    0,                        // five entries
                                    0x00, 0x01, 3,  0, 1, 0, 0, 0, 0, 0, 0, 0,  // ImageWidth = 0
                                    0x01, 0x01, 3,  0, 1, 0, 0, 0, 0, 0, 0, 0,  // ImageLength = 0
                                    0x02, 0x01, 3,  0, 1, 0, 0, 0, 8, 0, 0, 0,  // BitsPerSample = 8
                                    0x06, 0x01, 3,  0, 1, 0, 0, 0, 1, 0, 0, 0,  // Photometric = BlackIsZero
                                    0x15, 0x01, 3,  0, 1, 0, 0, 0, 1, 0, 0, 0,  // SamplesPerPixel = 1
                                    0,    0,    0,  0};                         // no next directory
  std::ofstream(Path("empty.tif"), std::ios::binary)
      .write(reinterpret_cast<const char*>(zeroSize), sizeof zeroSize);
  result = Run("psi " + Path("empty.tif") + " -o " + Path("phase.tif"));
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("empty.tif"), std::string::npos) << result.err;
  EXPECT_FALSE(fs::exists(Path("phase.tif")));

  result = Run("psi " + WriteStack("ok.tif", 7) + " -o " + Path("no/such/dir/phase.tif"));
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("no/such/dir"), std::string::npos) << result.err;

  result = Run("psi " + Path("ok.tif") + " -o " + Path("phase.tif") + " --phase-sign 2");
  EXPECT_EQ(result.status, 2) << "bad option values are usage errors";
  result = Run("psi " + Path("ok.tif"));
  EXPECT_EQ(result.status, 2) << "the output is required";
  EXPECT_TRUE(Leftovers({"ok.tif", "notes.tif", "empty.tif"}).empty());
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

}  // namespace
}  // namespace Quarn::Qphase

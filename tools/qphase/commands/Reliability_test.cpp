// What a hostile file, a careless argument or an interrupt can do to qphase, one row per hazard:
// every row must end with its exit status and a message naming the file or option and the rule,
// and leave the work folder exactly as it was (no file added, none changed, none removed).
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "CliTestFixture.h"
#include "TiffIO.h"

namespace Quarn::Qphase {
namespace {

namespace fs = std::filesystem;

// One page that declares `side` x `side` 8-bit pixels behind a single deflate strip of `stored`
// arbitrary bytes: a few kilobytes that would make a careless reader allocate side^2 bytes.
void WriteDeclaredPage(const std::string& path, std::uint32_t side, std::size_t stored) {
  TIFF* tiff = TIFFOpen(path.c_str(), "w");
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, side);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, side);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
  TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, side);
  std::vector<std::uint8_t> bytes(stored);
  for (std::size_t i = 0; i < stored; ++i)
    bytes[i] = static_cast<std::uint8_t>(i * 2654435761u >> 13);
  TIFFWriteRawStrip(tiff, 0, bytes.data(), static_cast<tmsize_t>(bytes.size()));
  TIFFWriteDirectory(tiff);
  TIFFClose(tiff);
}

// Seven JPEG-compressed pages of fringes, then a run of bytes in the first page's data overwritten:
// libjpeg decodes around the damage and only warns.
void WriteDamagedJpegStack(const std::string& path) {
  TIFF* tiff = TIFFOpen(path.c_str(), "w");
  constexpr int kSide = 64;
  std::vector<std::uint8_t> row(kSide);
  for (int page = 0; page < 7; ++page) {
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, kSide);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, kSide);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_JPEG);
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, kSide);
    for (int r = 0; r < kSide; ++r) {
      for (int c = 0; c < kSide; ++c)
        row[static_cast<std::size_t>(c)] = static_cast<std::uint8_t>((r * 37 + c * 11 + page * 53) % 251);
      TIFFWriteScanline(tiff, row.data(), static_cast<std::uint32_t>(r), 0);
    }
    TIFFWriteDirectory(tiff);
  }
  TIFFClose(tiff);
  // The first page's strip follows the 8-byte header; its middle is entropy-coded data.
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(8 + 800);
  const std::string damage(200, '\x55');
  file.write(damage.data(), static_cast<std::streamsize>(damage.size()));
}

// A little-endian classic TIFF whose last directory points back to its second: a loop.
void MakeDirectoryLoop(const std::string& path) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  const auto read32 = [&](std::uint64_t at) {
    std::uint8_t b[4];
    file.seekg(static_cast<std::streamoff>(at));
    file.read(reinterpret_cast<char*>(b), 4);
    return std::uint32_t{b[0]} | std::uint32_t{b[1]} << 8 | std::uint32_t{b[2]} << 16 |
           std::uint32_t{b[3]} << 24;
  };
  const auto entries = [&](std::uint64_t at) {
    std::uint8_t b[2];
    file.seekg(static_cast<std::streamoff>(at));
    file.read(reinterpret_cast<char*>(b), 2);
    return std::uint32_t{b[0]} | std::uint32_t{b[1]} << 8;
  };
  std::vector<std::uint32_t> directories;
  for (std::uint32_t at = read32(4); at != 0; at = read32(at + 2 + 12 * entries(at)))
    directories.push_back(at);
  ASSERT_GE(directories.size(), 2u);
  const std::uint32_t last = directories.back();
  const std::uint32_t second = directories[1];
  const char bytes[4] = {static_cast<char>(second & 0xff), static_cast<char>(second >> 8 & 0xff),
                         static_cast<char>(second >> 16 & 0xff), static_cast<char>(second >> 24)};
  file.seekp(last + 2 + 12 * entries(last));
  file.write(bytes, 4);
}

struct Hazard {
  const char* item;       // the hazard, as the row's name in failure messages
  std::string arguments;  // shell text after "qphase"; {D} is the work folder
  int status;
  std::string message;           // must appear in standard error ({D} replaced)
  std::string environment = "";  // NAME=value set for this run only
  int signal = 0;                // sent once a temporary output exists
};

class ReliabilityTest : public CliTestFixture {
 protected:
  void SetUp() override {
    CliTestFixture::SetUp();
    WritePsiStack("stack.tif", 7);
    WritePsiStack("big.tif", 13, 80.0, 1024, 2048);  // a run long enough to be interrupted
    std::ofstream(Path("old.tif")) << "an earlier result\n";
    fs::create_directory(Path("dir"));
    mkfifo(Path("fifo").c_str(), 0600);
    WriteMap("q1.tif", 16, 16, [](int, int) { return 1.0; });
    WriteMap("q3.tif", 16, 16, [](int, int) { return 2.0; });
    WriteDeclaredPage(Path("bomb.tif"), 32768, 65536);
    WriteDamagedJpegStack(Path("jpegbad.tif"));
    WritePsiStack("loop.tif", 13, 80.0, 8, 8);
    MakeDirectoryLoop(Path("loop.tif"));
    fs::create_symlink(Path("missing.tif"), Path("dangling.tif"));
    // A device node, as `-o /dev/null` would meet as root: only where this process may make one.
    hasDevice_ = mknod(Path("null").c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0;
    for (const std::string& name : Files())
      if (fs::is_regular_file(fs::symlink_status(Path(name)))) before_[name] = Slurp(Path(name));
  }

  std::string Expand(std::string text) const {
    for (std::size_t at; (at = text.find("{D}")) != std::string::npos;)
      text.replace(at, 3, dir_.string());
    return text;
  }

  // Runs qphase with `arguments` as shell words, sending `signal` as soon as a temporary output
  // appears in the work folder. False when the run ended before one was seen (nothing to interrupt).
  bool RunInterrupted(const std::string& arguments, int signal, int& status) const {
    const pid_t child = fork();
    if (child == 0) {
      const int null = open("/dev/null", O_WRONLY);
      dup2(null, 1);
      dup2(null, 2);
      execl("/bin/sh", "sh", "-c", ("exec " + std::string(QPHASE_BINARY) + " " + arguments).c_str(),
            static_cast<char*>(nullptr));
      _exit(127);
    }
    bool sent = false;
    for (int wait = 0; wait < 200000 && !sent; ++wait) {
      for (const std::string& name : Files()) {
        if (name.find(".partial-") != std::string::npos) {
          kill(child, signal);
          sent = true;
          break;
        }
      }
      if (!sent && waitpid(child, &status, WNOHANG) == child) return false;
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    waitpid(child, &status, 0);
    return sent;
  }

  bool hasDevice_ = false;
  std::map<std::string, std::string> before_;  // the regular files and their bytes
};

TEST_F(ReliabilityTest, EveryHazardEndsWithItsStatusAndMessageAndLeavesTheFolderAsItWas) {
  const std::string out = " -o {D}/p.tif";
  const std::string spot = " --center 4,4 --radius 3 --obscuration 0";
  const Hazard hazards[] = {
      // 1. A frame range whose end does not fit an int.
      {"1 overflow", "psi-check {D}/stack.tif --first-frame 1 --frame-count 2147483647", 2,
       "frames 1-2147483647 were asked for, {D}/stack.tif has 7 frames"},
      // 2. A later output that cannot be committed: refused before any file is replaced.
      {"2 psi", "psi {D}/stack.tif -o {D}/old.tif --modulation {D}/dir", 2,
       "--modulation ({D}/dir) is a directory; an output must be a regular file"},
      {"2 swli", "swli {D}/stack.tif -o {D}/old.tif --scan-step 80 --intensity {D}/dir", 2,
       "--intensity ({D}/dir) is a directory"},
      {"2 carrier", "carrier {D}/stack.tif -o {D}/old.tif --modulation {D}/dir", 2,
       "--modulation ({D}/dir) is a directory"},
      {"2 quadrants", "quadrants --q1 {D}/q1.tif --q3 {D}/q3.tif -o {D}/old.tif --calibration {D}/dir", 2,
       "--calibration ({D}/dir) is a directory"},
      // 3. An output that is an input, however spelt.
      {"3 ./x", "psi {D}/stack.tif -o {D}/./stack.tif", 2, "is the input '{D}/stack.tif'"},
      {"3 a//x", "psi {D}/stack.tif -o {D}//stack.tif", 2, "is the input '{D}/stack.tif'"},
      {"3 --mask", "psi-check {D}/stack.tif --mask {D}/q1.tif -o {D}/q1.tif", 2, "is the input --mask"},
      {"3 --q1",
       "quadrants --q1 {D}/q1.tif --q3 {D}/q3.tif -o {D}/../" + dir_.filename().string() + "/q1.tif", 2,
       "is the input --q1"},
      {"3 spot --png", "spot {D}/stack.tif --png {D}/stack.tif" + spot, 2, "is the input"},
      // 4. Special files and links at an output path.
      {"4 FIFO output", "psi {D}/stack.tif -o {D}/fifo", 2, "-o ({D}/fifo) is a FIFO (named pipe)"},
      {"4 dangling link", "psi {D}/stack.tif -o {D}/dangling.tif", 2, "is a symbolic link to a missing file"},
      // 5. A FIFO as input is refused at once instead of blocking.
      {"5 FIFO input", "psi {D}/fifo" + out, 2, "{D}/fifo: a FIFO (named pipe), not a regular file"},
      {"5 FIFO mask", "psi-check {D}/stack.tif --mask {D}/fifo", 2,
       "a FIFO (named pipe), not a regular file"},
      // 6. Interrupts while writing leave no temporary file.
      {"6 SIGINT", "psi {D}/big.tif" + out + " --modulation {D}/m.tif", -SIGINT, "", "", SIGINT},
      {"6 SIGTERM", "psi {D}/big.tif" + out + " --modulation {D}/m.tif", -SIGTERM, "", "", SIGTERM},
      // 7. Memory from small files: refused before the declared size is allocated, and a frame limit.
      {"7 spot", "spot {D}/bomb.tif" + spot, 2, "page 1 declares 32768 x 32768 8-bit pixels"},
      {"7 mask", "psi-check {D}/stack.tif --mask {D}/bomb.tif", 2, "more than the file holds"},
      {"7 limit", "psi {D}/stack.tif" + out, 2, "is 32 x 24 pixels, more than 100 pixels a frame may have",
       "QPHASE_MAX_FRAME_PIXELS=100"},
      {"7 limit text", "psi {D}/stack.tif" + out, 2, "QPHASE_MAX_FRAME_PIXELS: got 'lots'",
       "QPHASE_MAX_FRAME_PIXELS=lots"},
      // 8. Damaged compressed data is an error, with libjpeg's words.
      {"8 JPEG", "psi {D}/jpegbad.tif" + out, 2, "page 1 could not be decoded (JPEGLib: Corrupt JPEG data"},
      // 9. Messages that name the option and the rule.
      {"9 empty sign", "psi {D}/stack.tif" + out + " --phase-sign ''", 2,
       "qphase psi: error: --phase-sign: got an empty value; 1 or -1 is needed"},
      {"9 nan sign", "psi {D}/stack.tif" + out + " --phase-sign nan", 2,
       "--phase-sign: nan is not a finite number; 1 or -1 is needed"},
      {"9 empty quadrant", "carrier {D}/stack.tif" + out + " --quadrant ''", 2,
       "--quadrant: got an empty value; a whole number from 1 to 4 is needed"},
      {"9 threads", "psi {D}/stack.tif" + out + " --threads 1e2", 2,
       "--threads: got 1e2; a whole number from 0 to 1024 is needed"},
      {"9 max-saturated", "spot {D}/stack.tif --max-saturated 2147483647" + spot, 2,
       "--max-saturated: got 2147483647; a whole number from 0 to 2147483639 is needed"},
      {"9 scan step", "swli {D}/stack.tif" + out + " --scan-step 1e300", 2,
       "--scan-step: 1e300 nm is more than a millimetre"},
      {"9 empty output", "psi {D}/stack.tif -o ''", 2, "-o: the file name is empty; a file name is needed"},
      {"9 IFD loop", "psi {D}/loop.tif" + out, 2, "{D}/loop.tif: page 14 cannot be read ("},
      {"9 demo --only", "demo --only bogus --out {D}/demo-out", 2,
       "--only: no demo section is called 'bogus'; the sections are"},
      {"9 missing input", "psi {D}/absent.tif" + out, 2,
       "qphase psi: error: {D}/absent.tif: No such file or directory"},
      {"9 missing mask", "psi-check {D}/stack.tif --mask {D}/absent.tif", 2,
       "qphase psi-check: error: {D}/absent.tif: No such file or directory"},
  };
  for (const Hazard& hazard : hazards) {
    SCOPED_TRACE(hazard.item);
    const std::string arguments = Expand(hazard.arguments);
    std::string variable, value;
    if (!hazard.environment.empty()) {
      variable = hazard.environment.substr(0, hazard.environment.find('='));
      value = hazard.environment.substr(variable.size() + 1);
      setenv(variable.c_str(), value.c_str(), 1);
    }
    if (hazard.signal != 0) {
      int status = 0;
      if (RunInterrupted(arguments, hazard.signal, status)) {
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == hazard.signal) << "status " << status;
      }
      // A run that ended before its outputs appeared, or a signal held back while the outputs were
      // renamed into place: then both results stand complete; never one without the other.
      if (fs::exists(Path("p.tif")) && fs::exists(Path("m.tif"))) {
        fs::remove(Path("p.tif"));
        fs::remove(Path("m.tif"));
      }
    } else {
      const RunResult result = Run(arguments);
      EXPECT_EQ(result.status, hazard.status) << arguments << "\n" << result.err;
      EXPECT_THAT(result.err, HasSubstr(Expand(hazard.message))) << arguments;
    }
    if (!variable.empty()) unsetenv(variable.c_str());
    // Nothing added or removed (the stdout/stderr captures are removed by Run), nothing changed.
    std::vector<std::string> expected;
    for (const auto& [name, bytes] : before_)
      expected.push_back(name);
    for (const std::string name : {"dir", "fifo", "dangling.tif"})
      expected.push_back(name);
    if (hasDevice_) expected.push_back("null");
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(Files(), expected);
    for (const auto& [name, bytes] : before_)
      EXPECT_EQ(Slurp(Path(name)), bytes) << name << " changed";
    EXPECT_TRUE(fs::is_empty(Path("dir")));
  }
  if (hasDevice_) {
    const RunResult result = Run(Expand("psi {D}/stack.tif -o {D}/null"));
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr("is a character device; an output must be a regular file"));
    struct stat info {};
    EXPECT_TRUE(stat(Path("null").c_str(), &info) == 0 && S_ISCHR(info.st_mode)) << "the device node stays";
  }
}

// A link to an existing file is followed: the file it names gets the result and the link stays.
TEST_F(ReliabilityTest, AnOutputLinkIsFollowedAndKept) {
  fs::create_symlink(Path("old.tif"), Path("link.tif"));
  const RunResult result = Run(Expand("psi {D}/stack.tif -o {D}/link.tif"));
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(fs::is_symlink(Path("link.tif")));
  Core::DoubleMatrix2D phase;
  ReadFloatTiff(Path("old.tif"), phase);
  EXPECT_EQ(phase.GetRows(), 24);
  EXPECT_TRUE(Leftovers({"stack.tif", "big.tif", "old.tif", "link.tif", "dir", "fifo", "q1.tif", "q3.tif",
                         "bomb.tif", "jpegbad.tif", "loop.tif", "dangling.tif", "null"})
                  .empty())
      << ::testing::PrintToString(Files());
}

}  // namespace
}  // namespace Quarn::Qphase

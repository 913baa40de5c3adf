// qphase film and qphase film-library seen from a shell: thickness and height of a known film,
// a library file reused and resampled, and bad inputs refused by name with nothing written.
#include <cmath>
#include <complex>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "CliTestFixture.h"
#include "Synthetic/SeededRandom.h"
#include "TiffIO.h"
#include "commands/FilmLibrary.h"

namespace Quarn::Qphase {
namespace {

namespace fs = std::filesystem;

constexpr int kRows = 6, kCols = 10, kFrames = 128;
constexpr double kStepNm = 80.0;

std::string Stack(double fromUm, double toUm, double stepUm) {
  return R"({"materials": {"SiO2": {"model": "Complex-Cauchy/um", "parameters": [1.4485, 0.00354, 0, 0, 0, 0]}},
 "ambient": "Air", "layers": [{"material": "SiO2", "thickness_um": 1.0}], "substrate": "Si",
 "zero_height_layer": 0,
 "source": [{"amplitude": 1.0, "centre_rad_per_um": 10.47, "width_rad_per_um": 1.2}], "source_cutoff": 0.02,
 "numerical_aperture": 0.2, "polarization": "CircularlyPolarized",
 "vary": [{"layer": 0, "kind": "Thickness", "from_um": )" +
         std::to_string(fromUm) + R"(, "to_um": )" + std::to_string(toUm) + R"(, "step_um": )" +
         std::to_string(stepUm) + "}]}";
}

class FilmCliTest : public CliTestFixture {
 protected:
  void SetUp() override {
    CliTestFixture::SetUp();
    Write("stack.json", Stack(0.3, 0.8, 0.002));
  }
  void Write(const std::string& name, const std::string& text) const { std::ofstream(Path(name)) << text; }

  // A scan whose pixel (r, c) has the film thickness 0.35 + 0.04 c + 0.0005 r µm (between the
  // 2 nm library steps) and its top 0.3 r + 0.15 c frames above the scan's middle: the spectra of
  // a library generated at a quarter of that step (one per pixel's thickness), moved by the height
  // as a linear phase and transformed back; 16-bit, bias 20000, fringe gain 20000.
  std::string MakeScan(const std::string& name, int frames, double stepNm) const {
    Write("fine.json", Stack(0.35, 0.35 + 0.04 * (kCols - 1) + 0.0005 * (kRows - 1) + 1e-9, 0.0005));
    Core::DoubleMatrix2D fine;
    LibraryFileInfo info;
    BuildFilmLibrary(Path("fine.json"), frames, stepNm, fine, info);
    Core::FrameBuffer buffer;
    buffer.Allocate(Core::Window2D(0, 0, kRows, kCols), frames, Core::FrameBuffer::kRes16Bit);
    const int bins = frames / 2 + 1;
    for (int r = 0; r < kRows; ++r)
      for (int c = 0; c < kCols; ++c) {
        const int signal = 80 * c + r;
        const double shift = HeightFrames(r, c);
        for (int j = 0; j < frames; ++j) {
          double v = 0.0;
          for (int m = 1; m < bins - 1; ++m) {
            const std::complex<double> x(fine(signal, 2 * m), fine(signal, 2 * m + 1));
            v += 2.0 * (x * std::polar(1.0, 2.0 * std::numbers::pi * m * (j - shift) / frames)).real();
          }
          buffer.GetFrame<std::uint16_t>(j)[r * kCols + c] =
              static_cast<std::uint16_t>(std::lround(20000.0 + 20000.0 * v / frames));
        }
      }
    WriteTiffStack(Path(name), buffer);
    return Path(name);
  }
  static double ThicknessNm(int r, int c) { return 1000.0 * (0.35 + 0.04 * c + 0.0005 * r); }
  static double HeightFrames(int r, int c) { return 0.3 * r + 0.15 * c; }
};

// Thickness to a small fraction of the 2 nm library step and height to a fraction of a nanometre:
// the scan is noise-free up to 16-bit rounding, so what remains is the interpolation across the
// library step (the merit's parabola), a few hundredths of a nanometre.
TEST_F(FilmCliTest, ThicknessAndHeightOfAKnownFilm) {
  const std::string scan = MakeScan("scan.tif", kFrames, kStepNm);
  for (const std::string search : {"linear", "fast"}) {
    const RunResult result = Run("film " + scan + " --stack " + Path("stack.json") + " --scan-step 80 -o " +
                                 Path("h.tif") + " --thickness " + Path("t.tif") + " --merit " +
                                 Path("m.tif") + " --json " + Path("s.json") + " --search " + search);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("100.0 % valid"), std::string::npos) << result.out;
    Core::DoubleMatrix2D height, thickness, merit;
    ReadFloatTiff(Path("h.tif"), height);
    ReadFloatTiff(Path("t.tif"), thickness);
    ReadFloatTiff(Path("m.tif"), merit);
    for (int r = 0; r < kRows; ++r)
      for (int c = 0; c < kCols; ++c) {
        SCOPED_TRACE(search + " pixel " + std::to_string(r) + "," + std::to_string(c));
        EXPECT_NEAR(thickness(r, c), ThicknessNm(r, c), 0.1);
        EXPECT_NEAR(height(r, c), (kFrames / 2 + HeightFrames(r, c)) * kStepNm, 0.3);
        EXPECT_GT(merit(r, c), 0.999);
      }
    EXPECT_TRUE(fs::exists(Path("s.json")));
  }
}

// --max-value reaches the search: a saturation level below every pixel's brightest sample (the
// fringes swing thousands of counts about 20000) leaves no valid pixel, exit 1, nothing written.
TEST_F(FilmCliTest, MaxValueRejectsSaturatedPixels) {
  const std::string scan = MakeScan("scan.tif", kFrames, kStepNm);
  const RunResult result = Run("film " + scan + " --stack " + Path("stack.json") +
                               " --scan-step 80 --max-value 20001 -o " + Path("h.tif"));
  EXPECT_EQ(result.status, 1) << result.err;
  EXPECT_NE(result.err.find("unsaturated"), std::string::npos) << result.err;
  EXPECT_FALSE(fs::exists(Path("h.tif")));
}

// A scan whose file name is not UTF-8 (Latin-1 here) is measured and summarised all the same: the
// name's invalid byte becomes U+FFFD in the JSON rather than failing the run at its last step.
TEST_F(FilmCliTest, SummaryOfAScanWithALatin1NameIsWritten) {
  const std::string scan = MakeScan("caf\xe9.tif", kFrames, kStepNm);
  const RunResult result = Run("film " + scan + " --stack " + Path("stack.json") + " --scan-step 80 -o " +
                               Path("h.tif") + " --json " + Path("s.json"));
  ASSERT_EQ(result.status, 0) << result.err;
  std::ifstream file(Path("s.json"));
  const nlohmann::json summary = nlohmann::json::parse(file);
  const std::string name = summary.at("scan").get<std::string>();
  EXPECT_TRUE(name.ends_with("caf\xef\xbf\xbd.tif")) << name;
  EXPECT_EQ(summary.at("valid_fraction").get<double>(), 1.0);
}

// A library file written once serves scans of its own sampling unchanged and scans of another
// sampling resampled: 160 frames of 64 nm span the same 10.24 µm, so every bin lands on a library
// bin and the answer matches the library generated for that sampling.
TEST_F(FilmCliTest, LibraryFileIsReusedAndResampled) {
  ASSERT_EQ(
      Run("film-library --stack " + Path("stack.json") + " --frames 128 --scan-step 80 -o " + Path("lib.tif"))
          .status,
      0);
  const std::string scan = MakeScan("scan.tif", 160, 64.0);
  const RunResult fromFile = Run("film " + scan + " --library " + Path("lib.tif") + " --scan-step 64 -o " +
                                 Path("h1.tif") + " --thickness " + Path("t1.tif"));
  ASSERT_EQ(fromFile.status, 0) << fromFile.err;
  const RunResult direct = Run("film " + scan + " --stack " + Path("stack.json") + " --scan-step 64 -o " +
                               Path("h2.tif") + " --thickness " + Path("t2.tif"));
  ASSERT_EQ(direct.status, 0) << direct.err;
  Core::DoubleMatrix2D t1, t2, h1, h2;
  ReadFloatTiff(Path("t1.tif"), t1);
  ReadFloatTiff(Path("t2.tif"), t2);
  ReadFloatTiff(Path("h1.tif"), h1);
  ReadFloatTiff(Path("h2.tif"), h2);
  for (int r = 0; r < kRows; ++r)
    for (int c = 0; c < kCols; ++c) {
      EXPECT_NEAR(t1(r, c), ThicknessNm(r, c), 0.2) << r << "," << c;
      EXPECT_NEAR(t1(r, c), t2(r, c), 0.2) << r << "," << c;
      EXPECT_NEAR(h1(r, c), h2(r, c), 0.5) << r << "," << c;
    }
}

struct BadInput {
  const char* name;
  const char* command;                  // film or film-library
  std::string stackReplace, stackWith;  // an edit of the good STACK.json ("" : none)
  std::string extra;                    // further arguments
  std::string expected;                 // part of the message
};

// Names the case in test listings (instead of its bytes).
[[maybe_unused]] void PrintTo(const BadInput& c, std::ostream* os) {
  *os << c.name;
}

class FilmBadInputTest : public FilmCliTest, public testing::WithParamInterface<BadInput> {};

// Every malformed or impossible field is refused with exit 2 and a message naming it, and no file
// is left behind.
TEST_P(FilmBadInputTest, RefusedByNameWithNothingWritten) {
  const BadInput& c = GetParam();
  std::string stack = Stack(0.3, 0.8, 0.002);
  if (!c.stackReplace.empty()) {
    const auto at = stack.find(c.stackReplace);
    ASSERT_NE(at, std::string::npos) << c.stackReplace;
    stack.replace(at, c.stackReplace.size(), c.stackWith);
  }
  Write("bad.json", stack);
  std::string arguments = std::string(c.command) + " ";
  if (std::string(c.command) == "film") {
    // A real scan, so that only the stack or the options are wrong.
    arguments += MakeScan("scan.tif", kFrames, kStepNm) + " --scan-step 80 -o " + Path("out.tif");
  } else {
    const bool frames = c.extra.find("--frames") != std::string::npos;
    arguments += std::string(frames ? "" : "--frames 128 ") + "--scan-step 80 -o " + Path("out.tif");
  }
  arguments += " --stack " + Path("bad.json") + " " + c.extra;
  const RunResult result = Run(arguments);
  EXPECT_EQ(result.status, 2) << result.err;
  EXPECT_NE(result.err.find(c.expected), std::string::npos) << result.err;
  EXPECT_FALSE(fs::exists(Path("out.tif")));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FilmBadInputTest,
    testing::Values(
        BadInput{"UnknownMaterial", "film-library", R"("substrate": "Si")", R"("substrate": "Unobtainium")",
                 "", "substrate"},
        BadInput{"UnknownModel", "film-library", R"("model": "Complex-Cauchy/um")", R"("model": "Sellmeier")",
                 "", "model"},
        BadInput{"ParameterCount", "film-library", "[1.4485, 0.00354, 0, 0, 0, 0]", "[1.4485, 0.00354]", "",
                 "parameters"},
        BadInput{"NegativeThickness", "film-library", R"("thickness_um": 1.0)", R"("thickness_um": -0.1)", "",
                 "thickness_um"},
        BadInput{"ApertureOutside", "film-library", R"("numerical_aperture": 0.2)",
                 R"("numerical_aperture": 1.2)", "", "numerical_aperture"},
        BadInput{"InvertedRange", "film-library", R"("to_um": 0.8)", R"("to_um": 0.1)", "", "vary"},
        BadInput{"NoLayer", "film-library", R"("layer": 0)", R"("layer": 3)", "", "layer"},
        BadInput{"NoGaussian", "film-library",
                 R"([{"amplitude": 1.0, "centre_rad_per_um": 10.47, "width_rad_per_um": 1.2}])", "[]", "",
                 "source"},
        BadInput{"FramesNotMultipleOf4", "film-library", "", "", "--frames 130", "--frames"},
        BadInput{"FilmStackAndLibrary", "film", "", "", "--library " + std::string("/dev/null"), "--library"},
        BadInput{"FilmUnknownMaterial", "film", R"("ambient": "Air")", R"("ambient": "Vacuum")", "",
                 "ambient"}),
    [](const testing::TestParamInfo<BadInput>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace Quarn::Qphase

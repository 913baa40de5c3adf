#include "TiffIO.h"

#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "CliTestFixture.h"
#include "MapPreview.h"
#include "ToolError.h"

namespace Quarn::Qphase {
namespace {

// Expects the call to throw a usage error whose message contains `fragment`.
template <typename F>
void ExpectUsageError(F&& call, const std::string& fragment) {
  try {
    call();
    FAIL() << "no error; expected one mentioning '" << fragment << "'";
  } catch (const ToolError& e) {
    EXPECT_EQ(e.GetExitStatus(), kExitUsage);
    EXPECT_THAT(e.what(), HasSubstr(fragment));
  }
}

// 8-bit pages of a declared size, each with one strip of `stored` zero bytes (0: the whole page).
struct Page {
  std::uint32_t width, height;
  int samples = 1;
  std::size_t stored = 0;
};

void WritePages(const std::string& path, const std::vector<Page>& pages, int compression = COMPRESSION_NONE) {
  TIFF* tiff = TIFFOpen(path.c_str(), "w");
  for (const Page& page : pages) {
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, page.width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, page.height);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, page.samples);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, page.samples == 1 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, compression);
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, page.height);
    std::vector<std::uint8_t> bytes(page.stored ? page.stored : page.width * page.height * page.samples);
    TIFFWriteRawStrip(tiff, 0, bytes.data(), static_cast<tmsize_t>(bytes.size()));
    TIFFWriteDirectory(tiff);
  }
  TIFFClose(tiff);
}

class TiffStackRoundTripTest : public CliTestFixture,
                               public ::testing::WithParamInterface<Core::FrameBuffer::ElementRes> {};
using TiffIOTest = CliTestFixture;

TEST_P(TiffStackRoundTripTest, PagesComeBackAsFramesSampleForSample) {
  Core::FrameBuffer written;
  ASSERT_TRUE(written.Allocate(Core::Window2D(0, 0, 5, 7), 4, GetParam()));
  for (int f = 0; f < 4; ++f) {
    std::vector<std::int32_t> image(35);
    for (int p = 0; p < 35; ++p)
      image[static_cast<std::size_t>(p)] =
          (GetParam() == Core::FrameBuffer::kRes8Bit ? 7 : 1901) * (f + 1) + p;
    ASSERT_TRUE(written.StoreFrame(f, image.data()));
  }
  const std::string path = Path("stack.tif");
  WriteTiffStack(path, written);
  Core::FrameBuffer read;
  const TiffStackInfo info = ReadTiffStack(path, read);
  EXPECT_TRUE(info.pages == 4 && info.rows == 5 && info.cols == 7);
  ASSERT_EQ(read.GetElementRes(), GetParam());
  for (int p = 0; p < 35; ++p) {
    for (int f = 0; f < 4; ++f)
      ASSERT_EQ(written.ExtractIndex<int>(0, p)[f], read.ExtractIndex<int>(0, p)[f]) << p << "/" << f;
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, TiffStackRoundTripTest,
                         ::testing::Values(Core::FrameBuffer::kRes8Bit, Core::FrameBuffer::kRes16Bit));

TEST_F(TiffIOTest, UnsuitableFilesAreNamedWithTheirProblem) {
  const std::string path = Path("bad.tif");
  WritePages(path, {{4, 2}, {6, 2}});
  ExpectUsageError([&] { InspectTiffStack(path); }, "page 2 is 6 x 2 8-bit, page 1 is 4 x 2 8-bit");
  WritePages(path, {{2, 1, 3}});
  ExpectUsageError([&] { InspectTiffStack(path); }, "3 samples per pixel");
  // A few hundred bytes that declare three 40000 x 40000 pages (4.8 GB) of 100 stored bytes each,
  // raw and compressed: refused before a frame buffer of that size is allocated.
  for (const int compression : {COMPRESSION_NONE, COMPRESSION_ADOBE_DEFLATE}) {
    WritePages(path, std::vector<Page>(3, Page{40000, 40000, 1, 100}), compression);
    Core::FrameBuffer frames;
    ExpectUsageError([&] { ReadTiffStack(path, frames); }, "page 1 declares 40000 x 40000 8-bit pixels");
  }
}

// A full disk shows when the last buffered bytes are written: the writers must fail, not leave a
// truncated file to be committed.
TEST_F(TiffIOTest, WritersReportAFullDisk) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  ExpectUsageError([] { WriteFloatTiff("/dev/full", Core::DoubleMatrix2D(8, 8)); }, "/dev/full: ");
  ExpectUsageError([] { WritePng("/dev/full", RgbImage(16, 16)); }, "/dev/full: writing the PNG failed");
}

// A map written in bands of 7 rows, which straddle the strips of 65 rows a 4000-column map gets, is
// the file WriteFloatTiff writes, byte for byte (no data as NaN included); a band of another width,
// too many rows or a Finish before the last row are refused, naming the file.
TEST_F(TiffIOTest, AMapWrittenInBandsIsTheFileOfTheWholeMap) {
  const int rows = 150, cols = 4000;
  Core::DoubleMatrix2D map(rows, cols);
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c)
      map(r, c) = (r * 7 + c) % 13 == 0 ? Core::DoubleMatrix2D::NoData() : 0.001 * r - 0.0003 * c;
  }
  const std::string whole = Path("whole.tif"), banded = Path("banded.tif");
  WriteFloatTiff(whole, map);
  FloatTiffWriter writer(WriteTarget::Create(banded), rows, cols);
  EXPECT_EQ(writer.RowsPerStrip(), 65);
  Core::DoubleMatrix2D band;
  for (int first = 0; first < rows; first += 7) {
    const int count = std::min(7, rows - first);
    band.Resize(count, cols);
    std::copy(map.Row(first), map.Row(first) + static_cast<std::ptrdiff_t>(count) * cols, band.Data());
    writer.Append(band);
  }
  writer.Finish();
  EXPECT_EQ(Slurp(banded), Slurp(whole));
  ExpectUsageError([&] { writer.Append(band); }, "does not continue the 150 x 4000 map");
  FloatTiffWriter narrow(WriteTarget::Create(banded), rows, cols);
  ExpectUsageError([&] { narrow.Append(Core::DoubleMatrix2D(2, cols - 1)); }, "a band of 2 x 3999");
  ExpectUsageError([&] { narrow.Finish(); }, "0 of 150 rows were written");
}

// A map over 1024 pixels wide is shown one sample per block. Wrapped phase alternating between
// +3 and -3 rad must keep those two colours: a block mean (0 rad) would paint a false stripe along
// every wrap. A block whose centre has no data shows one of its valid pixels; one without any is grey.
TEST(MapPreviewTest, LargeMapsShowSamplesNotMeans) {
  Core::DoubleMatrix2D map(2048, 2048);
  for (int r = 0; r < 2048; ++r) {
    for (int c = 0; c < 2048; ++c)
      map(r, c) = r % 2 == 0 && c % 2 == 0 ? Core::DoubleMatrix2D::NoData() : c % 2 == 0 ? 3.0 : -3.0;
  }
  map(101, 100) = map(100, 101) = map(101, 101) = Core::DoubleMatrix2D::NoData();
  const double pi = 3.141592653589793;
  const RgbImage image = RenderPreview(map, PreviewStyle{"phase", "rad", true, -pi, pi});
  const Rgb plus = ColourAt((3.0 + pi) / (2 * pi)), minus = ColourAt((-3.0 + pi) / (2 * pi));
  for (int r = 0; r < 1024; ++r) {
    for (int c = 0; c < 1024; ++c) {
      const Rgb colour = image.Get(12 + c, 30 + r);  // the map starts at (12, 30)
      if (r == 50 && c == 50) {
        ASSERT_EQ(colour, kNoDataColour);
      } else {
        ASSERT_TRUE(colour == plus || colour == minus) << "preview pixel " << r << "," << c;
      }
    }
  }
}

}  // namespace
}  // namespace Quarn::Qphase

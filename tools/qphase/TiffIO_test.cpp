#include "TiffIO.h"

#include <tiffio.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "MapPreview.h"
#include "ToolError.h"

namespace Quarn::Qphase {
namespace {

std::string TempPath(const std::string& name) {
  return ::testing::TempDir() + "/tiffio_" + std::to_string(getpid()) + "_" + name;
}

// Expects the call to throw a usage error whose message contains `fragment`.
template <typename F>
void ExpectUsageError(F&& call, const std::string& fragment) {
  try {
    call();
    FAIL() << "no error; expected one mentioning '" << fragment << "'";
  } catch (const ToolError& e) {
    EXPECT_EQ(e.GetExitStatus(), kExitUsage);
    EXPECT_NE(std::string(e.what()).find(fragment), std::string::npos) << e.what();
  }
}

class TiffStackRoundTripTest : public ::testing::TestWithParam<Core::FrameBuffer::ElementRes> {};

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
  const std::string path = TempPath("stack.tif");
  WriteTiffStack(path, written);
  const TiffStackInfo info = InspectTiffStack(path);
  EXPECT_EQ(info.pages, 4);
  EXPECT_EQ(info.rows, 5);
  EXPECT_EQ(info.cols, 7);
  Core::FrameBuffer read;
  ReadTiffStack(path, read);
  ASSERT_EQ(read.GetElementRes(), GetParam());
  for (int p = 0; p < 35; ++p) {
    const int* a = written.ExtractIndex<int>(0, p);
    const int* b = read.ExtractIndex<int>(0, p);
    for (int f = 0; f < 4; ++f)
      ASSERT_EQ(a[f], b[f]) << "pixel " << p << " frame " << f;
  }
  Core::IntMatrix2D third;
  ReadTiffImage(path, third, 2);
  EXPECT_EQ(third(1, 3), written.ExtractIndex<int>(0, 10)[2]);

  // A ring of 6 scanned frames keeps the 4 pages as the last four frames.
  Core::FrameBuffer ring;
  ReadTiffStack(path, ring, 6);
  EXPECT_EQ(ring.GetNumberOfFrames(), 6);
  EXPECT_EQ(ring.GetFramesStored(), 4);
  EXPECT_EQ(ring.ExtractIndex<int>(0, 0)[ring.GetSlotOfFrame(2)], written.ExtractIndex<int>(0, 0)[0]);
  std::remove(path.c_str());
}

INSTANTIATE_TEST_SUITE_P(Widths, TiffStackRoundTripTest,
                         ::testing::Values(Core::FrameBuffer::kRes8Bit, Core::FrameBuffer::kRes16Bit));

TEST(TiffIOTest, FloatMapsCarryNaNForNoData) {
  Core::DoubleMatrix2D map(3, 4);
  for (int i = 0; i < 12; ++i)
    map.At(i) = 0.25 * i - 1.0;
  map(1, 2) = Core::DoubleMatrix2D::NoData();
  const std::string path = TempPath("map.tif");
  WriteFloatTiff(path, map);
  TIFF* tiff = TIFFOpen(path.c_str(), "r");
  ASSERT_NE(tiff, nullptr);
  std::uint16_t bits = 0, format = 0;
  TIFFGetField(tiff, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetField(tiff, TIFFTAG_SAMPLEFORMAT, &format);
  EXPECT_EQ(bits, 32);
  EXPECT_EQ(format, SAMPLEFORMAT_IEEEFP);
  float row[4];
  TIFFReadScanline(tiff, row, 1, 0);
  TIFFClose(tiff);
  EXPECT_EQ(row[0], 0.0f);
  EXPECT_EQ(row[1], 0.25f);
  EXPECT_TRUE(std::isnan(row[2]));
  std::remove(path.c_str());
}

TEST(TiffIOTest, UnsuitableFilesAreNamedWithTheirProblem) {
  // Two pages of different sizes.
  const std::string mixed = TempPath("mixed.tif");
  TIFF* tiff = TIFFOpen(mixed.c_str(), "w");
  for (int page = 0; page < 2; ++page) {
    const std::uint32_t width = page == 0 ? 4 : 6;
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, 2u);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    std::uint8_t row[6] = {};
    TIFFWriteScanline(tiff, row, 0, 0);
    TIFFWriteScanline(tiff, row, 1, 0);
    TIFFWriteDirectory(tiff);
  }
  TIFFClose(tiff);
  ExpectUsageError([&] { InspectTiffStack(mixed); }, "page 2 is 6 x 2 8-bit, page 1 is 4 x 2 8-bit");
  std::remove(mixed.c_str());

  // An RGB page.
  const std::string colour = TempPath("colour.tif");
  tiff = TIFFOpen(colour.c_str(), "w");
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, 2u);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, 1u);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
  std::uint8_t rgb[6] = {};
  TIFFWriteScanline(tiff, rgb, 0, 0);
  TIFFClose(tiff);
  ExpectUsageError([&] { InspectTiffStack(colour); }, "3 samples per pixel");
  std::remove(colour.c_str());

  // A few hundred bytes that declare three 40000 x 40000 pages (4.8 GB) of 100 stored bytes each,
  // raw and compressed: refused before a frame buffer of that size is allocated.
  for (const int compression : {COMPRESSION_NONE, COMPRESSION_ADOBE_DEFLATE}) {
    const std::string huge = TempPath("huge.tif");
    tiff = TIFFOpen(huge.c_str(), "w");
    for (int page = 0; page < 3; ++page) {
      TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, 40000u);
      TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, 40000u);
      TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
      TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1);
      TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
      TIFFSetField(tiff, TIFFTAG_COMPRESSION, compression);
      TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, 40000u);
      std::uint8_t bytes[100] = {};
      TIFFWriteRawStrip(tiff, 0, bytes, sizeof bytes);
      TIFFWriteDirectory(tiff);
    }
    TIFFClose(tiff);
    Core::FrameBuffer frames;
    ExpectUsageError([&] { ReadTiffStack(huge, frames); }, "page 1 declares 40000 x 40000 8-bit pixels");
    std::remove(huge.c_str());
  }
}

// A full disk shows when the last buffered bytes are written: the writers must fail, not leave a
// truncated file to be committed.
TEST(TiffIOTest, WritersReportAFullDisk) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  Core::DoubleMatrix2D map(8, 8);
  map.SetAll(1.0);
  ExpectUsageError([&] { WriteFloatTiff("/dev/full", map); }, "/dev/full: ");
  ExpectUsageError([&] { WritePng("/dev/full", RgbImage(16, 16)); }, "/dev/full: writing the PNG failed");
}

// A map over 1024 pixels wide is shown one sample per block. Wrapped phase alternating between
// +3 and -3 rad must keep those two colours: a block mean (0 rad) would paint a false stripe along
// every wrap. A block whose centre has no data shows one of its valid pixels, not grey.
TEST(MapPreviewTest, LargeMapsShowSamplesNotMeans) {
  Core::DoubleMatrix2D map(2048, 2048);
  for (int r = 0; r < 2048; ++r) {
    for (int c = 0; c < 2048; ++c)
      map(r, c) = c % 2 == 0 ? 3.0 : -3.0;
  }
  for (int r = 0; r < 2048; r += 2) {
    for (int c = 0; c < 2048; c += 2)
      map(r, c) = Core::DoubleMatrix2D::NoData();
  }
  map(100, 100) = map(100, 101) = map(101, 100) = map(101, 101) = Core::DoubleMatrix2D::NoData();
  const double pi = 3.141592653589793;
  const RgbImage image = RenderPreview(map, PreviewStyle{"phase", "rad", true, -pi, pi});
  const Rgb plus = ColourAt((3.0 + pi) / (2 * pi)), minus = ColourAt((-3.0 + pi) / (2 * pi));
  // The map starts at (12, 30) in the image.
  for (int r = 0; r < 1024; ++r) {
    for (int c = 0; c < 1024; ++c) {
      const Rgb colour = image.Get(12 + c, 30 + r);
      if (r == 50 && c == 50) {
        ASSERT_EQ(colour, kNoDataColour) << "a block without data stays grey";
      } else {
        ASSERT_TRUE(colour == plus || colour == minus) << "preview pixel " << r << "," << c;
      }
    }
  }
}

}  // namespace
}  // namespace Quarn::Qphase

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
  ExpectUsageError([] { InspectTiffStack(TempPath("missing.tif")); }, "missing.tif: No such file");
  const std::string text = TempPath("notes.tif");
  std::ofstream(text) << "these are notes, not an image\n";
  ExpectUsageError([&] { InspectTiffStack(text); }, "not a readable TIFF file");
  std::remove(text.c_str());

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
}

TEST(MapPreviewTest, NoDataIsNeutralAndTheRampRunsFromDarkToBright) {
  Core::DoubleMatrix2D map(10, 20);
  for (int r = 0; r < 10; ++r) {
    for (int c = 0; c < 20; ++c)
      map(r, c) = c;
  }
  map(5, 5) = Core::DoubleMatrix2D::NoData();
  const RgbImage image = RenderPreview(map, PreviewStyle{"test", "nm"});
  // The map starts at (12, 30); column 0 holds the minimum, column 19 the maximum.
  EXPECT_EQ(image.Get(12 + 5, 30 + 5), kNoDataColour);
  EXPECT_EQ(image.Get(12, 30), ColourAt(0.0));
  EXPECT_EQ(image.Get(12 + 19, 30), ColourAt(1.0));
  const Rgb dark = ColourAt(0.0), bright = ColourAt(1.0);
  EXPECT_LT(dark.r + dark.g + dark.b, bright.r + bright.g + bright.b);
  EXPECT_NE(kNoDataColour, ColourAt(0.5));
}

}  // namespace
}  // namespace Quarn::Qphase

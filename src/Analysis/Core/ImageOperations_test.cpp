// Tests of the small image facilities: dilation, clipping and valid-pixel statistics.
#include <cmath>

#include <gtest/gtest.h>

#include "Analysis/Core/Clipper.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "Analysis/Core/IppiWrapper.h"
#include "Analysis/Core/SurfaceStats.h"

namespace Quarn::Metrology::Analysis::Core {
namespace {

TEST(IppiWrapperTest, Dilate3x3GrowsByOnePixelIncludingDiagonalsAndClipsAtBorders) {
  DataMatrix2D<std::uint8_t> mask(5, 6);
  mask.SetAll(0);
  mask(2, 2) = 1;
  mask(0, 5) = 1;
  DataMatrix2D<std::uint8_t> grown;
  ASSERT_TRUE(IppiWrapper::Dilate3x3(mask, grown).IsOk());
  int on = 0;
  for (int r = 0; r < 5; ++r) {
    for (int c = 0; c < 6; ++c) {
      const bool nearCentre = std::abs(r - 2) <= 1 && std::abs(c - 2) <= 1;
      const bool nearCorner = r <= 1 && c >= 4;
      EXPECT_EQ(grown(r, c), (nearCentre || nearCorner) ? 1 : 0) << "at " << r << "," << c;
      on += grown(r, c);
    }
  }
  EXPECT_EQ(on, 9 + 4) << "the corner pixel grows only into the image";

  ASSERT_TRUE(IppiWrapper::Dilate3x3(mask, mask).IsOk()) << "in place";
  EXPECT_EQ(mask(1, 1), 1);
}

TEST(ClipperTest, ClipKeepsTheBandAndRemoveInsideDropsIt) {
  IntMatrix2D a(1, 6);
  const int values[] = {-5, 0, 3, 10, 11, IntMatrix2D::NoData()};
  std::copy(values, values + 6, a.Data());
  IntMatrix2D b = a;
  Clipper::Clip(a, 0, 10);
  Clipper::RemoveInside(b, 0, 10);
  for (int c = 0; c < 6; ++c) {
    const bool inside = values[c] >= 0 && values[c] <= 10;
    EXPECT_EQ(IntMatrix2D::IsDataValid(a(0, c)), inside) << c;
    EXPECT_EQ(IntMatrix2D::IsDataValid(b(0, c)), !inside && c != 5) << c;
  }
}

// The population deviation (divided by the count) of the valid pixels, on an offset of 2e9 whose
// squares a one-pass sum of squares could not hold apart: 2, 4, 4, 4, 6 above it give sqrt(8 / 5).
TEST(SurfaceStatsTest, MeanAndPopulationDeviationOfValidPixelsOnALargeOffset) {
  IntMatrix2D image(2, 3);
  const int values[] = {2000000002, 2000000004, 2000000004, 2000000004, IntMatrix2D::NoData(), 2000000006};
  std::copy(values, values + 6, image.Data());
  SurfaceStats stats;
  stats.Calculate(image);
  EXPECT_EQ(stats.GetCount(), 5);
  EXPECT_DOUBLE_EQ(stats.GetMean(), 2000000004.0);
  EXPECT_DOUBLE_EQ(stats.GetStdDev(), std::sqrt(8.0 / 5.0));
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

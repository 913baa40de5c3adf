#include "Analysis/Core/RegionFinderConnected.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Quarn::Metrology::Analysis::Core {
namespace {

// '#' is a valid pixel (any value), '.' an invalid one.
IntMatrix2D FromPicture(const std::vector<std::string>& picture) {
  IntMatrix2D m(static_cast<int>(picture.size()), static_cast<int>(picture[0].size()));
  for (int r = 0; r < m.GetRows(); ++r) {
    for (int c = 0; c < m.GetColumns(); ++c) m(r, c) = picture[static_cast<std::size_t>(r)][static_cast<std::size_t>(c)] == '#' ? 7 : IntMatrix2D::NoData();
  }
  return m;
}

TEST(RegionFinderConnectedTest, DiagonalNeighboursJoinOnlyWithEightConnectivity) {
  const IntMatrix2D input = FromPicture({
      "#...##",
      ".#..#.",
      "......",
      "##...#",
  });
  RegionIdMatrix2D ids;
  Array<RegionInfo> regions;
  RegionFinderConnected eight;
  eight.SetMatrix(input);
  ASSERT_TRUE(eight.MakeRegions(ids, regions));
  ASSERT_EQ(regions.Size(), 4);
  // Ids in the order a row-major scan meets the regions.
  EXPECT_EQ(ids(0, 0), 0);
  EXPECT_EQ(ids(1, 1), 0);
  EXPECT_EQ(ids(0, 4), 1);
  EXPECT_EQ(ids(1, 4), 1);
  EXPECT_EQ(ids(3, 0), 2);
  EXPECT_EQ(ids(3, 5), 3);
  EXPECT_FALSE(RegionIdMatrix2D::IsValid(ids(2, 2)));
  EXPECT_EQ(regions[0].pixelCount, 2);
  EXPECT_EQ(regions[1].pixelCount, 3);
  EXPECT_EQ(regions[1].window, Window2D(0, 4, 2, 2));

  RegionFinderConnected four(RegionFinderConnected::Connectivity::kFour);
  four.SetMatrix(input);
  ASSERT_TRUE(four.MakeRegions(ids, regions));
  EXPECT_EQ(regions.Size(), 5) << "the diagonal pair splits";
}

TEST(RegionFinderConnectedTest, UShapeMergesIntoOneRegionWithCameraWindow) {
  IntMatrix2D input = FromPicture({
      "#.#",
      "#.#",
      "###",
  });
  input.MoveStartTo(40, 60);
  RegionIdMatrix2D ids;
  Array<RegionInfo> regions;
  RegionFinderConnected finder;
  finder.SetMatrix(input);
  ASSERT_TRUE(finder.MakeRegions(ids, regions));
  ASSERT_EQ(regions.Size(), 1) << "two arms joined only at the bottom are one region";
  EXPECT_EQ(regions[0].pixelCount, 7);
  EXPECT_EQ(regions[0].window, Window2D(40, 60, 3, 3));
  EXPECT_EQ(ids.GetMatrixWindow(), input.GetMatrixWindow());
}

TEST(RegionFinderConnectedTest, DeleteRegionAndInPlaceUse) {
  RegionIdMatrix2D map;
  map.Resize(3, 5);
  const IntMatrix2D picture = FromPicture({"##..#", "....#", "#...."});
  std::copy(picture.Data(), picture.Data() + picture.GetCount(), map.Data());
  Array<RegionInfo> regions;
  RegionFinderConnected finder;
  finder.SetMatrix(map);
  ASSERT_TRUE(finder.MakeRegions(map, regions));  // in place
  ASSERT_EQ(regions.Size(), 3);
  map.DeleteRegion(regions[1]);
  EXPECT_FALSE(RegionIdMatrix2D::IsValid(map(0, 4)));
  EXPECT_FALSE(RegionIdMatrix2D::IsValid(map(1, 4)));
  EXPECT_EQ(map(0, 0), 0);
  EXPECT_EQ(map(2, 0), 2);

  RegionFinderConnected unset;
  EXPECT_FALSE(unset.MakeRegions(map, regions));
  EXPECT_EQ(unset.GetStatus().GetCode(), StatusCode::kNotSet);
}

TEST(RegionFinderConnectedTest, NoDataAreasOfADoubleMapBecomeRegions) {
  DoubleMatrix2D phase(3, 4);
  phase.SetAll(0.25);
  phase(0, 0) = DoubleMatrix2D::NoData();
  phase(2, 3) = DoubleMatrix2D::NoData();
  RegionIdMatrix2D holes;
  ASSERT_TRUE(holes.MarkNoDataOf(phase));
  Array<RegionInfo> regions;
  RegionFinderConnected finder;
  finder.SetMatrix(holes);
  ASSERT_TRUE(finder.MakeRegions(holes, regions));
  EXPECT_EQ(regions.Size(), 2);
  EXPECT_EQ(holes.CountValid(), 2);
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

#include "Analysis/Core/RegionFinderConnected.h"

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Testing/SeededRandom.h"

namespace Quarn::Metrology::Analysis::Core {
namespace {

// '#' is a valid pixel (any value), '.' an invalid one.
IntMatrix2D FromPicture(const std::vector<std::string>& picture) {
  IntMatrix2D m(static_cast<int>(picture.size()), static_cast<int>(picture[0].size()));
  for (int r = 0; r < m.GetRows(); ++r) {
    for (int c = 0; c < m.GetColumns(); ++c)
      m(r, c) = picture[static_cast<std::size_t>(r)][static_cast<std::size_t>(c)] == '#'
                    ? 7
                    : IntMatrix2D::NoData();
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

// Against a breadth-first flood fill, which numbers regions in the order a row-major scan meets
// them by construction: random masks from sparse to dense (so that labels merge in U, W and spiral
// shapes), both connectivities, a separate output and the input itself as output, an origin away
// from 0, and an output reused from a run on a different shape.
TEST(RegionFinderConnectedTest, MatchesAFloodFillOnRandomMasks) {
  Testing::SeededRandom random(808);
  SCOPED_TRACE(random.Describe());
  RegionIdMatrix2D reused(3, 3);
  for (int trial = 0; trial < 300; ++trial) {
    const int rows = random.UniformInt(1, 30), cols = random.UniformInt(1, 30);
    const double density = random.Uniform(0.05, 0.8);
    const bool eight = trial % 2 == 0;
    IntMatrix2D input(rows, cols);
    input.MoveStartTo(random.UniformInt(-5, 5), random.UniformInt(-5, 5));
    for (std::int64_t i = 0; i < input.GetCount(); ++i) {
      input.At(i) = random.Uniform(0, 1) < density ? random.UniformInt(-100, 100) : IntMatrix2D::NoData();
    }

    // The reference.
    std::vector<int> expected(static_cast<std::size_t>(input.GetCount()), IntMatrix2D::NoData());
    std::vector<RegionInfo> expectedRegions;
    for (int r0 = 0; r0 < rows; ++r0) {
      for (int c0 = 0; c0 < cols; ++c0) {
        if (!IntMatrix2D::IsDataValid(input(r0, c0)) ||
            expected[static_cast<std::size_t>(r0 * cols + c0)] != IntMatrix2D::NoData())
          continue;
        const int id = static_cast<int>(expectedRegions.size());
        int top = r0, bottom = r0, left = c0, right = c0, n = 0;
        std::deque<std::pair<int, int>> queue{{r0, c0}};
        expected[static_cast<std::size_t>(r0 * cols + c0)] = id;
        while (!queue.empty()) {
          const auto [r, c] = queue.front();
          queue.pop_front();
          ++n;
          top = std::min(top, r), bottom = std::max(bottom, r), left = std::min(left, c),
          right = std::max(right, c);
          for (int dr = -1; dr <= 1; ++dr) {
            for (int dc = -1; dc <= 1; ++dc) {
              if ((dr == 0 && dc == 0) || (!eight && dr != 0 && dc != 0)) continue;
              const int rr = r + dr, cc = c + dc;
              if (rr < 0 || cc < 0 || rr >= rows || cc >= cols || !IntMatrix2D::IsDataValid(input(rr, cc)))
                continue;
              int& mark = expected[static_cast<std::size_t>(rr * cols + cc)];
              if (mark != IntMatrix2D::NoData()) continue;
              mark = id;
              queue.emplace_back(rr, cc);
            }
          }
        }
        expectedRegions.push_back(RegionInfo{id, n,
                                             Window2D(input.GetStartRow() + top, input.GetStartCol() + left,
                                                      bottom - top + 1, right - left + 1)});
      }
    }

    RegionFinderConnected finder(eight ? RegionFinderConnected::Connectivity::kEight
                                       : RegionFinderConnected::Connectivity::kFour);
    Array<RegionInfo> regions;
    RegionIdMatrix2D inPlace;
    inPlace.Resize(input.GetMatrixWindow());
    std::copy(input.Data(), input.Data() + input.GetCount(), inPlace.Data());
    finder.SetMatrix(input);
    ASSERT_TRUE(finder.MakeRegions(reused, regions)) << "trial " << trial;
    Array<RegionInfo> inPlaceRegions;
    RegionFinderConnected again(finder.GetConnectivity());
    again.SetMatrix(inPlace);
    ASSERT_TRUE(again.MakeRegions(inPlace, inPlaceRegions)) << "trial " << trial;
    ASSERT_EQ(regions.Size(), static_cast<int>(expectedRegions.size())) << "trial " << trial;
    ASSERT_EQ(inPlaceRegions.Size(), regions.Size()) << "trial " << trial;
    EXPECT_EQ(reused.GetMatrixWindow(), input.GetMatrixWindow());
    for (int k = 0; k < regions.Size(); ++k) {
      EXPECT_EQ(regions[k].id, k);
      EXPECT_EQ(regions[k].pixelCount, expectedRegions[static_cast<std::size_t>(k)].pixelCount)
          << "trial " << trial;
      EXPECT_EQ(regions[k].window, expectedRegions[static_cast<std::size_t>(k)].window) << "trial " << trial;
      EXPECT_EQ(inPlaceRegions[k].window, regions[k].window) << "trial " << trial;
    }
    for (std::int64_t i = 0; i < input.GetCount(); ++i) {
      ASSERT_EQ(reused.At(i), expected[static_cast<std::size_t>(i)]) << "trial " << trial << ", pixel " << i;
      ASSERT_EQ(inPlace.At(i), expected[static_cast<std::size_t>(i)]) << "trial " << trial << ", pixel " << i;
    }
  }
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

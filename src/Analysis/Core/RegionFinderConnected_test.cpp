#include "Analysis/Core/RegionFinderConnected.h"

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Synthetic/SeededRandom.h"

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

// DeleteRegion invalidates exactly the region's pixels (the pixels of another region inside its
// window stay); a finder without an input fails.
TEST(RegionFinderConnectedTest, DeleteRegionAndMissingInput) {
  IntMatrix2D input = FromPicture({
      "#.#",
      "#..",
      "###",
  });
  input.MoveStartTo(40, 60);
  RegionIdMatrix2D ids;
  Array<RegionInfo> regions;
  RegionFinderConnected finder;
  finder.SetMatrix(input);
  ASSERT_TRUE(finder.MakeRegions(ids, regions));
  ASSERT_EQ(regions.Size(), 2);
  EXPECT_EQ(regions[0].window, Window2D(40, 60, 3, 3));
  ids.DeleteRegion(regions[0]);
  EXPECT_EQ(ids.CountValid(), 1);
  EXPECT_EQ(ids(0, 2), 1) << "inside the deleted region's window, another region";

  RegionFinderConnected unset;
  EXPECT_FALSE(unset.MakeRegions(ids, regions));
  EXPECT_EQ(unset.GetStatus().GetCode(), StatusCode::kNotSet);
}

// Against a breadth-first flood fill, which numbers regions in the order a row-major scan meets
// them by construction: random masks from sparse to dense (so that labels merge in U, W and spiral
// shapes), any invalid value (the output holds the no-data value there), both connectivities, a
// separate output and the input itself as output, an origin away from 0, and an output reused from
// a run on a different shape.
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
      input.At(i) = random.Uniform(0, 1) < density ? random.UniformInt(-100, 100)
                                                   : IntMatrix2D::NoData() + random.UniformInt(0, 7);
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
      const RegionInfo& e = expectedRegions[static_cast<std::size_t>(k)];
      EXPECT_TRUE(regions[k].id == k && regions[k].pixelCount == e.pixelCount &&
                  regions[k].window == e.window && inPlaceRegions[k].window == e.window)
          << "trial " << trial << ", region " << k;
    }
    for (std::int64_t i = 0; i < input.GetCount(); ++i) {
      ASSERT_EQ(reused.At(i), expected[static_cast<std::size_t>(i)]) << "trial " << trial << ", pixel " << i;
      ASSERT_EQ(inPlace.At(i), expected[static_cast<std::size_t>(i)]) << "trial " << trial << ", pixel " << i;
    }
  }
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

// The value classes of the align spot detector: spot moments and their text form, and the result
// dictionary.
#include "AlignSpotDetector/AsdSpotInfo.h"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AlignSpotDetector/AsdProperties.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {
namespace {

using Analysis::Core::RegionInfo;
using Analysis::Core::Window2D;

// Three pixels whose moments are worked out by hand: weights 100, 100, 200 at (10, 20), (12, 20),
// (11, 22). Sum 400; centre of mass (4400 / 400, 8400 / 400) = (11, 21); variances
// 48600 / 400 - 121 = 0.5 and 176800 / 400 - 441 = 1.
TEST(AsdSpotInfoTest, ToStringListsTheMomentsInOrderWithSixSignificantDigits) {
  AsdSpotInfo spot(RegionInfo{3, 3, Window2D(20, 10, 3, 3)});
  spot.Feed(10, 20, 100);
  spot.Feed(12, 20, 100);
  spot.Feed(11, 22, 200);
  spot.ReferenceToCenter(12.0, 25.0);  // one column left of the centre, four rows above it
  EXPECT_EQ(
      spot.ToString(),
      "Id = 3, Size = 3, Sum = 400, CoM.x = 11, CoM.y = 21, SigmaX = 0.707107, SigmaY = 1, Quadrant = 2, "
      "BoundingRect = (10, 20, 12, 22)");

  spot.Clear();
  EXPECT_EQ(spot.ToString(), AsdSpotInfo().ToString()) << "every field as constructed";
  spot.Feed(-5, 7, 1);
  EXPECT_EQ(spot.GetX0(), -5.0) << "an undefined corner takes the first value, even a negative one";
  EXPECT_EQ(spot.GetX1(), -5.0);
}

TEST(AsdSpotInfoTest, ASpotOneColumnWideHasZeroSpreadNotNaN) {
  // 0.1 is not a binary fraction: sumXX / sum comes out a rounding step below (sumX / sum)^2.
  AsdSpotInfo spot;
  for (int i = 0; i < 3; ++i)
    spot.Feed(0.1, i, 1.0);
  const double mean = (0.1 + 0.1 + 0.1) / 3.0;
  ASSERT_LT((0.1 * 0.1 + 0.1 * 0.1 + 0.1 * 0.1) / 3.0 - mean * mean, 0.0) << "the case this test is about";
  EXPECT_EQ(spot.SigmaX(), 0.0);
}

TEST(AsdPropertiesTest, AbsentKeysReadAsUndefinedAndNumbersKeepSixDigits) {
  AsdProperties properties;
  EXPECT_FALSE(properties.Set("Regions.Size", 1)) << "no dictionary before Initialize";
  EXPECT_EQ(properties.Get("Regions.Size"), "undefined");
  ASSERT_TRUE(properties.Initialize());

  EXPECT_EQ(properties.Get("Region.0"), "undefined");
  EXPECT_EQ(properties.GetAsDouble("Region.0.SigmaX"), 1.7976931348623157e308);
  EXPECT_EQ(properties.GetAsInt("Regions.Size"), 2147483640);

  properties.Set("Region.0.CenterOfMassX", 652.05269680462);
  properties.Set("Region.0.Quadrant", 3);
  properties.Set("Tiny", 1.5e-7);
  EXPECT_EQ(properties.Get("Region.0.CenterOfMassX"), "652.053");
  EXPECT_DOUBLE_EQ(properties.GetAsDouble("Region.0.CenterOfMassX"), 652.053);
  EXPECT_EQ(properties.GetAsInt("Region.0.Quadrant"), 3);
  EXPECT_EQ(properties.Get("Tiny"), "1.5e-07");
  EXPECT_EQ(properties.GetKeys(),
            (std::vector<std::string>{"Region.0.CenterOfMassX", "Region.0.Quadrant", "Tiny"}))
      << "ordered by key";

  // Copies are deep: they hold the values, and changing one leaves the original alone.
  AsdProperties copy = properties;
  copy.Set("Region.0.Quadrant", 1);
  EXPECT_EQ(properties.GetAsInt("Region.0.Quadrant"), 3);
  EXPECT_EQ(copy.Get("Tiny"), "1.5e-07");

  EXPECT_TRUE(properties.Finalize());
  EXPECT_EQ(properties.Get("Region.0.Quadrant"), "undefined");
  EXPECT_EQ(copy.GetAsInt("Region.0.Quadrant"), 1);
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment

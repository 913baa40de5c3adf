// The value classes of the align spot detector: spot moments and their text form, quadrants,
// restrictors and the result dictionary.
#include "AlignSpotDetector/AsdSpotInfo.h"

#include <cfloat>
#include <cmath>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "AlignSpotDetector/AsdProperties.h"
#include "AlignSpotDetector/AsdRegionRestrictor.h"
#include "AlignSpotDetector/AsdSpotPosition.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {
namespace {

using Analysis::Core::RegionInfo;
using Analysis::Core::Window2D;

// Three pixels whose moments are worked out by hand: weights 100, 100, 200 at (10, 20), (12, 20),
// (11, 22). Sum 400; centre of mass (4400 / 400, 8400 / 400) = (11, 21); variances
// 48600 / 400 - 121 = 0.5 and 176800 / 400 - 441 = 1.
AsdSpotInfo ThreePixelSpot() {
  AsdSpotInfo spot(RegionInfo{3, 3, Window2D(20, 10, 3, 3)});
  spot.Feed(10, 20, 100);
  spot.Feed(12, 20, 100);
  spot.Feed(11, 22, 200);
  return spot;
}

TEST(AsdSpotInfoTest, ToStringListsTheMomentsInOrderWithSixSignificantDigits) {
  AsdSpotInfo spot = ThreePixelSpot();
  spot.ReferenceToCenter(12.0, 25.0);  // one column left of the centre, four rows above it
  EXPECT_EQ(
      spot.ToString(),
      "Id = 3, Size = 3, Sum = 400, CoM.x = 11, CoM.y = 21, SigmaX = 0.707107, SigmaY = 1, Quadrant = 2, "
      "BoundingRect = (10, 20, 12, 22)");

  // Large coordinates keep six significant digits, not six decimals.
  AsdSpotInfo far(RegionInfo{12, 1, Window2D(1000, 1234, 1, 2)});
  far.Feed(1234, 1000, 1);
  far.Feed(1235, 1000, 2);
  far.ReferenceToCenter(0.0, 2000.0);
  EXPECT_EQ(far.ToString(),
            "Id = 12, Size = 2, Sum = 3, CoM.x = 1234.67, CoM.y = 1000, SigmaX = 0.471405, SigmaY = 0, "
            "Quadrant = 1, "
            "BoundingRect = (1234, 1000, 1235, 1000)");
}

TEST(AsdSpotInfoTest, MomentsOfAFedSpotAndClearGoesBackToTheStart) {
  AsdSpotInfo spot = ThreePixelSpot();
  EXPECT_EQ(spot.GetSize(), 3);
  EXPECT_DOUBLE_EQ(spot.CenterOfMassX(), 11.0);
  EXPECT_DOUBLE_EQ(spot.CenterOfMassY(), 21.0);
  EXPECT_DOUBLE_EQ(spot.SigmaX(), std::sqrt(0.5));
  EXPECT_DOUBLE_EQ(spot.SigmaY(), 1.0);
  EXPECT_EQ(spot.GetId(), 3);

  spot.Clear();
  EXPECT_EQ(spot.GetSize(), 0);
  EXPECT_EQ(spot.GetSum(), 0.0);
  EXPECT_EQ(spot.GetId(), 0);
  EXPECT_EQ(spot.GetX0(), DBL_MAX) << "the bounding rectangle is undefined again";
  spot.Feed(-5, 7, 1);
  EXPECT_EQ(spot.GetX0(), -5.0) << "an undefined corner takes the first value, even a negative one";
  EXPECT_EQ(spot.GetX1(), -5.0);
  EXPECT_EQ(spot.GetY0(), 7.0);
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

// Quadrants counted upwards: (dx, dy) with dy positive up, zero counting as right or up.
class QuadrantTest : public ::testing::TestWithParam<std::tuple<double, double, int>> {};

TEST_P(QuadrantTest, SignsOfTheOffsetPickTheQuadrant) {
  const auto [dx, dy, quadrant] = GetParam();
  EXPECT_EQ(AsdSpotInfo::Quadrant(dx, dy), quadrant);
}

INSTANTIATE_TEST_SUITE_P(Offsets, QuadrantTest,
                         ::testing::Values(std::make_tuple(3.0, 2.0, 1), std::make_tuple(-3.0, 2.0, 2),
                                           std::make_tuple(-3.0, -2.0, 3), std::make_tuple(3.0, -2.0, 4),
                                           std::make_tuple(0.0, 0.0, 1), std::make_tuple(0.0, -1e-9, 4),
                                           std::make_tuple(-1e-9, 0.0, 2), std::make_tuple(-0.0, 5.0, 1)));

class RestrictorTest : public ::testing::TestWithParam<int> {};

TEST_P(RestrictorTest, AdmitsTheQuadrantsOfItsDiagonal) {
  const AsdRegionRestrictor restrictor(GetParam());
  for (int q = 1; q <= 4; ++q) {
    bool expected = false;
    if (GetParam() == AsdRegionRestrictor::Full) expected = true;
    if (GetParam() == AsdRegionRestrictor::Quadrants13) expected = q == 1 || q == 3;
    if (GetParam() == AsdRegionRestrictor::Quadrants24) expected = q == 2 || q == 4;
    EXPECT_EQ(restrictor.IsInRestrictedRegion(q), expected)
        << "restrictor " << GetParam() << ", quadrant " << q;
  }
}

INSTANTIATE_TEST_SUITE_P(Values, RestrictorTest, ::testing::Values(0, 1, 2, 3, -1));

TEST(AsdSpotPositionTest, NamesEveryOutcome) {
  const std::vector<std::string> names = {"DetectionFailed",
                                          "Quadrant1",
                                          "Quadrant2",
                                          "Quadrant3",
                                          "Quadrant4",
                                          "SpotBehindObscuration",
                                          "TooManySaturatedPixels",
                                          "NoSignificantSpot",
                                          "TooManySignificantSpots"};
  for (int value = 0; value < static_cast<int>(names.size()); ++value) {
    EXPECT_EQ(AsdSpotPosition(value).ToString(), names[static_cast<std::size_t>(value)]);
  }
  EXPECT_STREQ(AsdSpotPosition(9).ToString(), "Unknown");
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
  properties.Set("Error.Msg", "Call to spotInfoList.Clear failed");
  properties.Set("Tiny", 1.5e-7);
  EXPECT_EQ(properties.Get("Region.0.CenterOfMassX"), "652.053");
  EXPECT_DOUBLE_EQ(properties.GetAsDouble("Region.0.CenterOfMassX"), 652.053);
  EXPECT_EQ(properties.GetAsInt("Region.0.Quadrant"), 3);
  EXPECT_EQ(properties.Get("Tiny"), "1.5e-07");
  EXPECT_EQ(properties.GetKeys(),
            (std::vector<std::string>{"Error.Msg", "Region.0.CenterOfMassX", "Region.0.Quadrant", "Tiny"}))
      << "ordered by key";

  // Copies are deep: changing the copy leaves the original alone.
  AsdProperties copy = properties;
  copy.Set("Region.0.Quadrant", 1);
  EXPECT_EQ(properties.GetAsInt("Region.0.Quadrant"), 3);
  EXPECT_EQ(copy.GetAsInt("Region.0.Quadrant"), 1);

  EXPECT_TRUE(properties.Finalize());
  EXPECT_EQ(properties.Get("Region.0.Quadrant"), "undefined");
  EXPECT_EQ(copy.GetAsInt("Region.0.Quadrant"), 1);
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment

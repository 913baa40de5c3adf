#include "Analysis/Core/DataWindow2D.h"

#include <cmath>
#include <limits>
#include <utility>

#include <gtest/gtest.h>

#include "Analysis/Core/AnyValid.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/IntMatrix2D.h"

namespace Quarn::Metrology::Analysis::Core {
namespace {

constexpr double kNo = DoubleWindow2D::NoData();

TEST(DataWindow2DTest, NoDataConvention) {
  EXPECT_TRUE(DoubleWindow2D::IsNoData(1.7976931348623157e308));
  EXPECT_FALSE(DoubleWindow2D::IsDataValid(1.7976931348623157e308));
  EXPECT_TRUE(DoubleWindow2D::IsNoData(std::numeric_limits<double>::infinity()));
  EXPECT_TRUE(DoubleWindow2D::IsDataValid(std::nextafter(1.7976931348623157e308, 0.0)));
  EXPECT_TRUE(DoubleWindow2D::IsDataValid(-std::numeric_limits<double>::infinity()));
  EXPECT_TRUE(IntWindow2D::IsNoData(2147483640));
  EXPECT_TRUE(IntWindow2D::IsDataValid(2147483639));
}

// Builds a rows x cols map that is no-data except at the given points.
DoubleMatrix2D MapWithPoints(int rows, int cols, std::initializer_list<std::pair<int, int>> points) {
  DoubleMatrix2D map(rows, cols);
  map.SetAll(kNo);
  for (const auto& [r, c] : points)
    map(r, c) = 1.0;
  return map;
}

TEST(DataWindow2DTest, FindMinEnclosingBoundsTheValidData) {
  DoubleMatrix2D map = MapWithPoints(6, 8, {{1, 5}, {4, 2}, {3, 6}});
  EXPECT_EQ(map.FindMinEnclosing(), Window2D(1, 2, 4, 5));

  // In camera coordinates once the matrix has an origin.
  map.MoveStartTo(100, 200);
  EXPECT_EQ(map.FindMinEnclosing(), Window2D(101, 202, 4, 5));

  // Only the current window is searched.
  map.SetWindow(Window2D(100, 200, 2, 8));
  EXPECT_EQ(map.FindMinEnclosing(), Window2D(101, 205, 1, 1));

  DoubleMatrix2D empty = MapWithPoints(3, 3, {});
  empty.MoveStartTo(7, 9);
  EXPECT_EQ(empty.FindMinEnclosing(), Window2D(7, 9, 0, 0));
  EXPECT_FALSE(Calculation::AnyValid(empty));

  DoubleMatrix2D corner = MapWithPoints(5, 5, {{4, 4}});
  EXPECT_EQ(corner.FindMinEnclosing(), Window2D(4, 4, 1, 1));
  EXPECT_TRUE(Calculation::AnyValid(corner));
}

TEST(DataWindow2DTest, ValueOperationsRespectTheWindow) {
  DoubleMatrix2D map(3, 3);
  map.SetAll(1.0);
  map(1, 1) = kNo;
  map.SetWindow(Window2D(0, 0, 2, 3));
  map.SetValid(5.0);
  EXPECT_EQ(map(0, 0), 5.0);
  EXPECT_EQ(map(1, 1), kNo) << "SetValid leaves no-data alone";
  EXPECT_EQ(map(2, 2), 1.0) << "outside the window";
  map.Replace(5.0, 7.0);
  EXPECT_EQ(map(1, 0), 7.0);
  EXPECT_EQ(map.CountValid(), 5);
}

TEST(DataWindow2DTest, ResizeToValidDataCropsAndKeepsValues) {
  DoubleMatrix2D map = MapWithPoints(6, 6, {{2, 3}, {4, 1}});
  map(2, 3) = 23.0;
  map(4, 1) = 41.0;
  ASSERT_TRUE(map.ResizeToValidData());
  EXPECT_EQ(map.GetMatrixWindow(), Window2D(2, 1, 3, 3));
  EXPECT_EQ(map(0, 2), 23.0);
  EXPECT_EQ(map(2, 0), 41.0);
  EXPECT_EQ(map(1, 1), kNo);
}

// A window made before the matrix was resized is stale: it reads as the whole matrix, and every way
// of copying takes the window only when it is current in the source, so that a stale one cannot come
// back to life over the copy's smaller storage.
TEST(DataWindow2DTest, StaleWindowsAreTheWholeMatrixAndCopiesKeepOnlyACurrentOne) {
  DoubleMatrix2D stale(10, 10);
  stale.SetWindow(Window2D(0, 0, 10, 10));
  ASSERT_TRUE(stale.Resize(5, 5));  // the window was made before: stale
  stale.SetAll(kNo);
  stale(4, 4) = 2.0;
  EXPECT_EQ(stale.GetWindow(), Window2D(0, 0, 5, 5));
  DoubleMatrix2D copy(stale);
  EXPECT_EQ(copy.GetWindow(), Window2D(0, 0, 5, 5));
  copy.SetAll(0.0);  // over the stale 10 x 10 window this would write 75 doubles past the end
  DoubleMatrix2D assigned(2, 2);
  assigned = stale;
  EXPECT_EQ(assigned.GetWindow(), Window2D(0, 0, 5, 5));
  ASSERT_TRUE(assigned.CopyAll(stale));
  EXPECT_EQ(assigned.GetWindow(), Window2D(0, 0, 5, 5));
  EXPECT_EQ(stale.FindMinEnclosing(), Window2D(4, 4, 1, 1));

  DoubleMatrix2D current = MapWithPoints(3, 4, {{1, 1}});
  current.MoveStartTo(10, 20);
  const Window2D window(10, 20, 2, 2);
  current.SetWindow(window);
  UnitManager units;
  units.SetConverter(UnitAxis::kValue, LinearConverter(Units::kNanometers));
  current.SetUnitManager(units);
  ASSERT_TRUE(assigned.CopyAll(current));
  EXPECT_EQ(assigned.GetMatrixWindow(), current.GetMatrixWindow());
  EXPECT_EQ(assigned.GetWindow(), window);
  EXPECT_EQ(assigned(1, 1), 1.0);
  EXPECT_EQ(assigned.GetUnitManager(), units);
  DoubleMatrix2D copied(current);
  EXPECT_EQ(copied.GetWindow(), window);
  DoubleMatrix2D moved(std::move(copied));
  EXPECT_EQ(moved.GetWindow(), window);
  assigned = current;
  EXPECT_EQ(assigned.GetWindow(), window);
  assigned = std::move(moved);
  EXPECT_EQ(assigned.GetWindow(), window);
  EXPECT_EQ(assigned.CountValid(), 1) << "the window spans 4 elements, one of them valid";
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

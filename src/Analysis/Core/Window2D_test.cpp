#include "Analysis/Core/Window2D.h"

#include <ostream>
#include <string>

#include <gtest/gtest.h>

namespace Quarn::Metrology::Analysis::Core {
namespace {

struct IntersectionCase {
  const char* name;
  Window2D a, b, expected;
};

void PrintTo(const IntersectionCase& c, std::ostream* os) {
  *os << c.name;
}

class Window2DIntersectionTest : public ::testing::TestWithParam<IntersectionCase> {};

// Start and end differ on both axes in every case, so a min taken for a max (or the reverse) on
// either bound of either axis changes the answer.
TEST_P(Window2DIntersectionTest, IsTheCommonRectangleEitherWayRound) {
  const IntersectionCase& c = GetParam();
  EXPECT_EQ(Window2D(c.a, c.b), c.expected);
  EXPECT_EQ(Window2D(c.b, c.a), c.expected);
  if (c.expected.GetCount() > 0) {
    EXPECT_TRUE(c.a.Contains(c.expected));
    EXPECT_TRUE(c.b.Contains(c.expected));
  }
  EXPECT_EQ(c.a.Contains(c.b), c.expected == c.b);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Window2DIntersectionTest,
    ::testing::Values(IntersectionCase{"PartialOverlap", {0, 0, 10, 10}, {5, 8, 10, 10}, {5, 8, 5, 2}},
                      IntersectionCase{"OverlapAtTheOtherCorners", {3, 4, 6, 5}, {0, 6, 5, 10}, {3, 6, 2, 3}},
                      IntersectionCase{"NegativeOrigin", {-5, -7, 10, 10}, {0, 0, 10, 10}, {0, 0, 5, 3}},
                      IntersectionCase{"Containment", {0, 0, 10, 10}, {2, 3, 4, 5}, {2, 3, 4, 5}},
                      IntersectionCase{"Identical", {1, 2, 3, 4}, {1, 2, 3, 4}, {1, 2, 3, 4}},
                      IntersectionCase{"DisjointRowsOnly", {0, 0, 3, 4}, {5, 1, 3, 5}, {5, 1, 0, 3}},
                      IntersectionCase{"DisjointDiagonally", {0, 0, 3, 3}, {10, 20, 2, 2}, {10, 20, 0, 0}},
                      IntersectionCase{"TouchingEdge", {0, 0, 3, 3}, {3, 1, 3, 3}, {3, 1, 0, 2}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Window2DTest, ContainmentAndEqualityUseEveryBound) {
  const Window2D w(1, 2, 3, 4);
  EXPECT_TRUE(w.Contains(1, 2));
  EXPECT_TRUE(w.Contains(3, 5));
  EXPECT_FALSE(w.Contains(4, 5)) << "the end row is one past the last";
  EXPECT_FALSE(w.Contains(3, 6)) << "the end column is one past the last";
  EXPECT_FALSE(w.Contains(0, 2));
  EXPECT_FALSE(w.Contains(1, 1));
  for (const Window2D& other :
       {Window2D(0, 2, 3, 4), Window2D(1, 0, 3, 4), Window2D(1, 2, 0, 4), Window2D(1, 2, 3, 0)}) {
    EXPECT_NE(w, other);
  }
  const Window2D malformed(0, 0, -1, 3);
  EXPECT_EQ(malformed.GetStatus().GetCode(), StatusCode::kNegativeDimension);
  EXPECT_EQ(malformed.GetCount(), 0);
  EXPECT_FALSE(Window2D(malformed, w).IsWellFormed()) << "a malformed operand stays visible";
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

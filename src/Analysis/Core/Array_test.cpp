#include "Analysis/Core/Array.h"

#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Quarn::Metrology::Analysis::Core {
namespace {

TEST(ArrayTest, GrowsInPowersOfTwoAndKeepsElements) {
  Array<int> a;
  EXPECT_EQ(a.Capacity(), 0);
  ASSERT_TRUE(a.Resize(5));
  EXPECT_EQ(a.Capacity(), 8);
  for (int i = 0; i < 5; ++i)
    a[i] = 10 * i;
  const int* storage = a.Data();
  ASSERT_TRUE(a.Resize(8));
  EXPECT_EQ(a.Capacity(), 8);
  EXPECT_EQ(a.Data(), storage) << "a resize within the capacity must not reallocate";
  ASSERT_TRUE(a.Resize(9));
  EXPECT_EQ(a.Capacity(), 16);
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(a[i], 10 * i) << "element " << i << " lost in growth";

  Array<int> one;
  ASSERT_TRUE(one.Resize(1));
  EXPECT_EQ(one.Capacity(), 2) << "the smallest grown capacity is 2";
}

TEST(ArrayTest, ZeroReplacesStorageAndNegativeKeepsIt) {
  Array<int> a;
  a.Resize(20);
  a.Resize(0);
  EXPECT_EQ(a.Size(), 0);
  EXPECT_EQ(a.Capacity(), 4);

  a.Resize(3);
  const int* storage = a.Data();
  a.Resize(-1);
  EXPECT_EQ(a.Size(), 0);
  EXPECT_EQ(a.Capacity(), 4);
  EXPECT_EQ(a.Data(), storage);
}

// Growth frees the storage that an element of the array lives in, and an insert shifts it: an
// element of the array itself must be copied first. It is longer than a small-string buffer, so that
// reading it from freed memory is noticed.
TEST(ArrayTest, AddInsertAndEraseShiftTheTailEvenForItsOwnElements) {
  const std::string L(100, 'L');
  Array<std::string> a;
  ASSERT_TRUE(a.Add("b", L));      // capacity 2
  ASSERT_TRUE(a.Add(a[1]));        // grows 2 -> 4
  ASSERT_TRUE(a.Add(a[0], a[1]));  // the second element grows 4 -> 8
  ASSERT_TRUE(a.Insert(0, a[1]));  // no growth; the shift moves a[1] before it is read
  ASSERT_TRUE(a.Insert(6, "e"));
  ASSERT_TRUE(a.Erase(2));
  const std::vector<std::string> expected = {L, "b", L, "b", L, "e"};
  ASSERT_EQ(a.Size(), 6);
  EXPECT_TRUE(std::equal(a.begin(), a.end(), expected.begin()));
  EXPECT_FALSE(a.Erase(6));
  EXPECT_EQ(a.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_FALSE(a.Insert(8, "x"));
}

TEST(ArrayTest, CopiesAreDeepAndResizeNoCopyDropsOldElements) {
  Array<std::string> a;
  a.Add("x", "y", "z");
  Array<std::string> b = a;
  b[0] = "changed";
  EXPECT_EQ(a[0], "x") << "a copy owns its elements";
  ASSERT_TRUE(a.ResizeNoCopy(100));
  EXPECT_EQ(a.Capacity(), 128);
  EXPECT_EQ(a[0], "") << "grown without copying: fresh elements";
  ASSERT_TRUE(b.Resize(100));
  EXPECT_EQ(b[2], "z") << "Resize keeps them";
}

TEST(ArrayTest, ImpossibleGrowthIsAllocationFailure) {
  Array<double> a;
  a.Add(1.0);
  EXPECT_FALSE(a.Resize(INT_MAX));
  EXPECT_EQ(a.GetStatus().GetCode(), StatusCode::kAllocationFailed);
  EXPECT_EQ(a.GetStatus().GetFile(), "analysis\\core\\Array");
  EXPECT_EQ(a.Size(), 1) << "a failed growth must leave the array as it was";
  EXPECT_EQ(a[0], 1.0);
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

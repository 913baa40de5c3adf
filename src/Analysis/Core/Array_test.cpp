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

TEST(ArrayTest, AddInsertAndEraseShiftTheTail) {
  Array<std::string> a;
  ASSERT_TRUE(a.Add("b", "d"));
  ASSERT_TRUE(a.Insert(0, "a"));
  ASSERT_TRUE(a.Insert(2, "c"));
  ASSERT_TRUE(a.Insert(4, "e"));
  ASSERT_EQ(a.Size(), 5);
  std::string joined;
  for (const std::string& s : a)
    joined += s;
  EXPECT_EQ(joined, "abcde");
  ASSERT_TRUE(a.Erase(1));
  ASSERT_TRUE(a.Erase(3));
  joined.clear();
  for (const std::string& s : a)
    joined += s;
  EXPECT_EQ(joined, "acd");
  EXPECT_FALSE(a.Erase(3));
  EXPECT_EQ(a.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
}

// An element of the array itself may be added or inserted: growth frees the storage it lives in and
// an insert shifts it, so it has to be copied first.
TEST(ArrayTest, AddingItsOwnElementsSurvivesGrowthAndShift) {
  const std::string text(100, 'L');  // longer than a small-string buffer: a freed copy is noticed
  Array<std::string> a;
  ASSERT_TRUE(a.Resize(2));
  a[0] = text;
  a[1] = "b";
  ASSERT_TRUE(a.Add(a[0]));        // grows 2 -> 4
  ASSERT_TRUE(a.Add(a[1], a[0]));  // the second element grows 4 -> 8
  ASSERT_TRUE(a.Insert(0, a[1]));  // no growth; the shift moves a[1] before it is read
  const std::vector<std::string> expected = {"b", text, "b", text, "b", text};
  ASSERT_EQ(a.Size(), 6);
  EXPECT_TRUE(std::equal(a.begin(), a.end(), expected.begin()));
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

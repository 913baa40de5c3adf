#include "Testing/ImageEquivalence.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

namespace Quarn::Testing {
namespace {

using Metrology::Analysis::Core::Window2D;

TEST(UlpDistanceTest, CountsDoublesBetweenAcrossZeroAndNoData) {
  const double one = 1.0;
  EXPECT_EQ(UlpDistance(one, one), 0);
  EXPECT_EQ(UlpDistance(one, std::nextafter(one, 2.0)), 1);
  EXPECT_EQ(UlpDistance(std::nextafter(one, 0.0), std::nextafter(one, 2.0)), 2);
  EXPECT_EQ(UlpDistance(0.0, -0.0), 0);
  const double tiny = std::numeric_limits<double>::denorm_min();
  EXPECT_EQ(UlpDistance(tiny, -tiny), 2) << "one step to each side of zero";
  const double noData = std::numeric_limits<double>::max();
  EXPECT_GT(UlpDistance(noData, 3.0), std::int64_t{1} << 60) << "no data is never near a valid value";
  EXPECT_EQ(UlpDistance(-noData, noData), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(UlpDistance(std::nan(""), 1.0), std::numeric_limits<std::int64_t>::max());
}

// A pixel-local operation, value = f(row, column) of the image, written over a window; the plain
// form of it is the reference.
ImageMaps Evaluate(const Window2D& window, double (*f)(int, int)) {
  ImageMaps maps(1);
  for (int r = window.GetStartRow(); r < window.GetEndRow(); ++r)
    for (int c = window.GetStartCol(); c < window.GetEndCol(); ++c)
      maps[0].push_back(f(r, c));
  return maps;
}

double Surface(int r, int c) {
  return std::sin(0.1 * r) * std::cos(0.07 * c);
}

TEST(ImageEquivalenceTest, AFaithfulFastPathPasses) {
  CheckImageEquivalence(
      {9, 13, {{"surface", 0}}}, [](const Window2D& w) { return Evaluate(w, Surface); },
      [](const Window2D& w, int) { return Evaluate(w, Surface); });
}

// The failures a check reports, intercepted so that the test can look at them.
std::vector<std::string> FailuresOf(const std::function<void()>& check) {
  ::testing::TestPartResultArray results;
  {
    ::testing::ScopedFakeTestPartResultReporter intercept(
        ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
    check();
  }
  std::vector<std::string> messages;
  for (int i = 0; i < results.size(); ++i)
    messages.push_back(results.GetTestPartResult(i).message());
  return messages;
}

bool AnyContains(const std::vector<std::string>& messages, const std::string& part) {
  return std::any_of(messages.begin(), messages.end(),
                     [&](const std::string& m) { return m.find(part) != std::string::npos; });
}

// Each fault of a fast path that the helper exists to catch, seen on the runs that provoke it.
TEST(ImageEquivalenceTest, EachKindOfFaultIsReported) {
  const auto reference = [](const Window2D& w) { return Evaluate(w, Surface); };
  const EquivalenceSettings settings{9, 13, {{"surface", 1}}};

  // Two ulp off with more than two threads only (a race, a wrong chunk edge).
  std::vector<std::string> failures = FailuresOf([&] {
    CheckImageEquivalence(settings, reference, [](const Window2D& w, int threads) {
      ImageMaps maps = Evaluate(w, Surface);
      if (threads > 2) maps[0][5] = std::nextafter(std::nextafter(maps[0][5], 9.0), 9.0);
      return maps;
    });
  });
  EXPECT_TRUE(AnyContains(failures, "2 ulp apart, 1 allowed")) << ::testing::PrintToString(failures);
  EXPECT_TRUE(AnyContains(failures, "on 3 threads"));
  EXPECT_FALSE(AnyContains(failures, "on 2 threads"));

  // Indexing from the image's origin instead of the window's: right on the whole image only.
  failures = FailuresOf([&] {
    CheckImageEquivalence(settings, reference, [](const Window2D& w, int) {
      return Evaluate(Window2D(0, 0, w.GetRows(), w.GetCols()), Surface);
    });
  });
  EXPECT_TRUE(AnyContains(failures, "window (1, 1) 7 x 11")) << ::testing::PrintToString(failures);
  EXPECT_FALSE(AnyContains(failures, "whole image"));

  // The last row dropped: the one-row image comes back empty.
  failures = FailuresOf([&] {
    CheckImageEquivalence(settings, reference, [](const Window2D& w, int) {
      return Evaluate(Window2D(w.GetStartRow(), w.GetStartCol(), w.GetRows() - 1, w.GetCols()), Surface);
    });
  });
  EXPECT_TRUE(AnyContains(failures, "holds 0 values for 13 pixels")) << ::testing::PrintToString(failures);
}

}  // namespace
}  // namespace Quarn::Testing

#include "Testing/ImageEquivalence.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>

#include <gtest/gtest.h>

namespace Quarn::Testing {

using Metrology::Analysis::Core::Window2D;

namespace {

// Doubles ordered as integers: non-negative ones keep their bits, negative ones are mirrored below
// zero, so that neighbouring doubles differ by one and -0 meets +0.
std::int64_t Ordered(double value) {
  std::int64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits >= 0 ? bits : std::numeric_limits<std::int64_t>::min() - bits;
}

// Compares the maps of one run on `window` with the reference of the whole image at the same
// pixels; true when all lie within tolerance.
bool CompareRun(const EquivalenceSettings& settings, const ImageMaps& whole, const ImageMaps& got,
                const Window2D& window, const std::string& run) {
  if (got.size() != settings.maps.size()) {
    ADD_FAILURE() << run << ": " << got.size() << " maps, expected " << settings.maps.size();
    return false;
  }
  const std::size_t count = static_cast<std::size_t>(window.GetRows()) * window.GetCols();
  for (std::size_t m = 0; m < settings.maps.size(); ++m) {
    const MapTolerance& tolerance = settings.maps[m];
    if (got[m].size() != count) {
      ADD_FAILURE() << run << ": map " << tolerance.name << " holds " << got[m].size() << " values for "
                    << count << " pixels";
      return false;
    }
    for (int r = 0; r < window.GetRows(); ++r) {
      for (int c = 0; c < window.GetCols(); ++c) {
        const int row = window.GetStartRow() + r, column = window.GetStartCol() + c;
        const double expected = whole[m][static_cast<std::size_t>(row) * settings.columns + column];
        const double actual = got[m][static_cast<std::size_t>(r) * window.GetCols() + c];
        const std::int64_t distance = UlpDistance(actual, expected);
        if (distance > tolerance.maxUlp) {
          ADD_FAILURE() << run << ": map " << tolerance.name << " at row " << row << ", column " << column
                        << " is " << actual << ", the reference " << expected << " (" << distance
                        << " ulp apart, " << tolerance.maxUlp << " allowed)";
          return false;
        }
      }
    }
  }
  return true;
}

std::string Describe(const Window2D& window, int threads) {
  std::ostringstream text;
  text << "window (" << window.GetStartRow() << ", " << window.GetStartCol() << ") " << window.GetRows()
       << " x " << window.GetCols() << " on " << threads << (threads == 1 ? " thread" : " threads");
  return text.str();
}

}  // namespace

std::int64_t UlpDistance(double a, double b) {
  if (std::memcmp(&a, &b, sizeof a) == 0) return 0;
  if (std::isnan(a) || std::isnan(b)) return std::numeric_limits<std::int64_t>::max();
  const std::int64_t ia = Ordered(a), ib = Ordered(b);
  // The difference of two ordered doubles fits an int64 except across the whole range.
  if ((ia < 0) != (ib < 0)) {
    const std::uint64_t span =
        static_cast<std::uint64_t>(std::max(ia, ib)) - static_cast<std::uint64_t>(std::min(ia, ib));
    return span > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())
               ? std::numeric_limits<std::int64_t>::max()
               : static_cast<std::int64_t>(span);
  }
  return ia > ib ? ia - ib : ib - ia;
}

void CheckImageEquivalence(const EquivalenceSettings& settings,
                           const std::function<ImageMaps(const Window2D&)>& reference,
                           const std::function<ImageMaps(const Window2D&, int)>& fast) {
  ASSERT_GT(settings.rows, 0);
  ASSERT_GT(settings.columns, 0);
  ASSERT_FALSE(settings.threadCounts.empty());
  const Window2D image(0, 0, settings.rows, settings.columns);
  const ImageMaps whole = reference(image);
  ASSERT_TRUE(CompareRun(settings, whole, whole, image, "the reference itself"));

  for (const int threads : settings.threadCounts)
    CompareRun(settings, whole, fast(image, threads), image, "whole image, " + Describe(image, threads));
  if (!settings.pixelLocal) return;

  const int most = *std::max_element(settings.threadCounts.begin(), settings.threadCounts.end());
  const int rows = settings.rows, columns = settings.columns;
  std::vector<std::pair<Window2D, int>> runs;
  if (rows > 2 && columns > 2) runs.emplace_back(Window2D(1, 1, rows - 2, columns - 2), most);
  if (rows > 1 && columns > 1)
    runs.emplace_back(Window2D(rows / 3, columns / 4, (rows + 1) / 2, (columns + 1) / 2), 3);
  // One row: a single worker, and more workers than there are rows to give them.
  runs.emplace_back(Window2D(rows / 2, 0, 1, columns), 1);
  runs.emplace_back(Window2D(rows / 2, 0, 1, columns), most);
  for (const auto& [window, threads] : runs)
    CompareRun(settings, whole, fast(window, threads), window, Describe(window, threads));
}

}  // namespace Quarn::Testing

#include "AlignSpotDetector/detail/SpotImageOps.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <vector>

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment::detail {

namespace {

using Analysis::Core::IntWindow2D;
using Analysis::Core::Window2D;

__extension__ typedef unsigned __int128 UInt128;
__extension__ typedef __int128 Int128;

constexpr int kInvalid = IntWindow2D::NoData();

std::uint32_t Magnitude(int v) {
  const auto bits = static_cast<std::uint32_t>(v);
  return v < 0 ? 0u - bits : bits;
}

struct Moments {
  std::int64_t count = 0;
  std::int64_t sum = 0;
  UInt128 squares = 0;
};

// One row's contribution. The squares of a row go into 64 bits, which holds them whenever
// columns x max|v|^2 < 2^64 (any 16-bit camera row of up to 2^32 pixels); a row of larger values
// is summed again in 128 bits.
void AddRow(const int* v, int n, int lo, int hi, Moments& m) {
  std::int64_t count = 0;
  std::int64_t sum = 0;
  std::uint64_t squares = 0;
  std::uint32_t largest = 0;
  for (int i = 0; i < n; ++i) {
    const int x = v[i];
    const bool take = x < kInvalid && x >= lo && x <= hi;
    const std::uint32_t a = take ? Magnitude(x) : 0u;
    count += take ? 1 : 0;
    sum += take ? x : 0;
    squares += static_cast<std::uint64_t>(a) * a;
    largest = std::max(largest, a);
  }
  m.count += count;
  m.sum += sum;
  if (static_cast<UInt128>(largest) * largest * static_cast<UInt128>(n) < (static_cast<UInt128>(1) << 64)) {
    m.squares += squares;
    return;
  }
  for (int i = 0; i < n; ++i) {
    const int x = v[i];
    if (x < kInvalid && x >= lo && x <= hi) m.squares += static_cast<UInt128>(Magnitude(x)) * Magnitude(x);
  }
}

}  // namespace

BandStatistics StatisticsInBand(const IntWindow2D& image, int lo, int hi) {
  const Window2D w = image.GetWindow();
  Moments m;
  for (int r = w.GetStartRow(); r < w.GetEndRow(); ++r) {
    const int* row = image.Row(r - image.GetStartRow()) + (w.GetStartCol() - image.GetStartCol());
    AddRow(row, w.GetCols(), lo, hi, m);
  }
  BandStatistics stats;
  stats.count = m.count;
  if (m.count == 0) return stats;
  const double n = static_cast<double>(m.count);
  stats.mean = static_cast<double>(m.sum) / n;
  // n sum(v^2) - (sum v)^2 >= 0 exactly (Cauchy-Schwarz); both terms are below 2^125.
  const UInt128 sumMagnitude = static_cast<UInt128>(m.sum < 0 ? -static_cast<Int128>(m.sum) : m.sum);
  const UInt128 spread = static_cast<UInt128>(m.count) * m.squares - sumMagnitude * sumMagnitude;
  stats.stdDev = std::sqrt(static_cast<double>(spread)) / n;
  return stats;
}

int TruncateToInt(double value) {
  if (std::isnan(value)) return 0;
  if (value >= static_cast<double>(INT_MAX)) return INT_MAX;
  if (value <= static_cast<double>(INT_MIN)) return INT_MIN;
  return static_cast<int>(value);
}

bool SplitAtBand(const IntWindow2D& input, int lo, int hi, IntWindow2D& inside, IntWindow2D& outside) {
  const Window2D all = input.GetMatrixWindow();
  const Window2D w = input.GetWindow();
  for (IntWindow2D* target : {&inside, &outside}) {
    if (!target->Resize(all)) return false;
    target->SetUnitManager(input.GetUnitManager());
    if (w != all) {
      target->SetWindow(w);
    } else {
      target->ResetWindow();
    }
  }
  const int cols = input.GetColumns();
  const int first = w.GetStartCol() - input.GetStartCol();
  const int last = first + w.GetCols();
  for (int r = 0; r < input.GetRows(); ++r) {
    const int* in = input.Row(r);
    int* keep = inside.Row(r);
    int* drop = outside.Row(r);
    const int cameraRow = r + input.GetStartRow();
    if (cameraRow < w.GetStartRow() || cameraRow >= w.GetEndRow() || w.IsEmpty()) {
      std::copy(in, in + cols, keep);
      std::copy(in, in + cols, drop);
      continue;
    }
    std::copy(in, in + first, keep);
    std::copy(in, in + first, drop);
    for (int c = first; c < last; ++c) {
      const int v = in[c];
      const bool valid = v < kInvalid;
      const bool inBand = v >= lo && v <= hi;
      keep[c] = valid && inBand ? v : kInvalid;
      drop[c] = valid && !inBand ? v : kInvalid;
    }
    std::copy(in + last, in + cols, keep + last);
    std::copy(in + last, in + cols, drop + last);
  }
  return true;
}

void ApplySquareAndObscurationMask(IntWindow2D& image, double centerX, double centerY, double halfWidth,
                                   double obscurationRadius) {
  const Window2D w = image.GetWindow();
  if (w.IsEmpty()) return;
  // Columns: outside the square, and near enough to the centre to be under the obscuration. The
  // expressions are those of the reference, so the flags agree with it bit for bit.
  std::vector<unsigned char> columnOutside(static_cast<std::size_t>(w.GetCols()));
  int nearFirst = w.GetCols(), nearEnd = 0;
  for (int c = 0; c < w.GetCols(); ++c) {
    const double dx = (w.GetStartCol() + c) - centerX;
    columnOutside[static_cast<std::size_t>(c)] = std::fabs(dx) > halfWidth ? 1 : 0;
    if (std::fabs(dx) < obscurationRadius) {
      nearFirst = std::min(nearFirst, c);
      nearEnd = c + 1;
    }
  }
  // Runs of outside columns, so that each row is cut with a few fills.
  std::vector<std::pair<int, int>> runs;
  for (int c = 0; c < w.GetCols();) {
    if (!columnOutside[static_cast<std::size_t>(c)]) {
      ++c;
      continue;
    }
    const int start = c;
    while (c < w.GetCols() && columnOutside[static_cast<std::size_t>(c)])
      ++c;
    runs.emplace_back(start, c);
  }
  for (int r = w.GetStartRow(); r < w.GetEndRow(); ++r) {
    int* row = image.Row(r - image.GetStartRow()) + (w.GetStartCol() - image.GetStartCol());
    const double dy = r - centerY;
    if (std::fabs(dy) > halfWidth) {
      std::fill(row, row + w.GetCols(), kInvalid);
      continue;
    }
    for (const auto& [start, end] : runs)
      std::fill(row + start, row + end, kInvalid);
    // A pixel can be under the obscuration only if |dx| < radius and |dy| < radius: the rounded
    // sqrt(dx^2 + dy^2) is never below |dx| or |dy|.
    if (!(std::fabs(dy) < obscurationRadius)) continue;
    for (int c = nearFirst; c < nearEnd; ++c) {
      const double dx = (w.GetStartCol() + c) - centerX;
      if (std::sqrt(dx * dx + dy * dy) < obscurationRadius) row[c] = kInvalid;
    }
  }
}

void ApplySquareAndObscurationMaskReference(IntWindow2D& image, double centerX, double centerY,
                                            double halfWidth, double obscurationRadius) {
  const Window2D w = image.GetWindow();
  for (int y = w.GetStartRow(); y < w.GetEndRow(); ++y) {
    int* row = image.Row(y - image.GetStartRow());
    for (int x = w.GetStartCol(); x < w.GetEndCol(); ++x) {
      const double dx = x - centerX;
      const double dy = y - centerY;
      if (std::sqrt(dx * dx + dy * dy) < obscurationRadius || std::fabs(dx) > halfWidth ||
          std::fabs(dy) > halfWidth) {
        row[x - image.GetStartCol()] = kInvalid;
      }
    }
  }
}

std::int64_t CountAtOrAbove(const IntWindow2D& image, int threshold) {
  const Window2D w = image.GetWindow();
  std::int64_t total = 0;
  for (int r = w.GetStartRow(); r < w.GetEndRow(); ++r) {
    const int* row = image.Row(r - image.GetStartRow()) + (w.GetStartCol() - image.GetStartCol());
    std::int64_t count = 0;
    for (int c = 0; c < w.GetCols(); ++c)
      count += (row[c] >= threshold && row[c] < kInvalid) ? 1 : 0;
    total += count;
  }
  return total;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment::detail

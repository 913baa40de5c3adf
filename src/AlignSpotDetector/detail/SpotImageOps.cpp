#include "AlignSpotDetector/detail/SpotImageOps.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <vector>

#include "AlignSpotDetector/detail/SpotRowKernels.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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
  int min = INT_MAX;  // of every pixel seen, taken or not
  int max = INT_MIN;

  void Add(const Moments& other) {
    count += other.count;
    sum += other.sum;
    squares += other.squares;
    min = std::min(min, other.min);
    max = std::max(max, other.max);
  }
};

bool Take(int x, int lo, int hi) {
  return x < kInvalid && x >= lo && x <= hi;
}

// One row's contribution, pixel by pixel in exact integers.
void AddRowReference(const int* v, int n, int lo, int hi, Moments& m) {
  for (int i = 0; i < n; ++i) {
    m.min = std::min(m.min, v[i]);
    m.max = std::max(m.max, v[i]);
    if (!Take(v[i], lo, hi)) continue;
    ++m.count;
    m.sum += v[i];
    m.squares += static_cast<UInt128>(Magnitude(v[i])) * Magnitude(v[i]);
  }
}

// Number of bits needed for the magnitudes of which `bits` is the bitwise or.
int BitWidth(std::uint32_t bits) {
  return bits == 0 ? 0 : 32 - __builtin_clz(bits);
}

// Whether n squares of magnitudes below 2^bits fit into 64 bits.
bool SquaresFit(int bits, int n) {
  return 2 * bits + BitWidth(static_cast<std::uint32_t>(n)) < 64;
}

// The widest vector kernel of this processor over the longest prefix it takes, the rest pixel by
// pixel. A row whose squares could have overflowed a kernel's 64-bit lanes (magnitudes above 2^20
// or so) is summed again exactly.
void AddRowFast(const int* v, int n, int lo, int hi, Moments& m) {
  static const RowMomentsFunction kernel = SelectRowMomentsFunction();
  RowMomentSums sums;
  const int done = kernel(v, n, lo, hi, sums);
  if (!SquaresFit(BitWidth(sums.magnitudeBits), (done + 1) / 2)) {
    AddRowReference(v, n, lo, hi, m);
    return;
  }
  m.count += sums.count;
  m.sum += sums.sum;
  m.squares += sums.squares;
  m.min = std::min(m.min, sums.min);
  m.max = std::max(m.max, sums.max);
  AddRowReference(v + done, n - done, lo, hi, m);
}

BandStatistics FromMoments(const Moments& m) {
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

const int* WindowRow(const IntWindow2D& image, int r) {
  const Window2D w = image.GetWindow();
  return image.Row(r - image.GetStartRow()) + (w.GetStartCol() - image.GetStartCol());
}

}  // namespace

BandStatistics StatisticsInBand(const IntWindow2D& image, int lo, int hi, PixelPath path) {
  const Window2D w = image.GetWindow();
  Moments m;
  for (int r = w.GetStartRow(); r < w.GetEndRow(); ++r) {
    if (path == PixelPath::kFast) {
      AddRowFast(WindowRow(image, r), w.GetCols(), lo, hi, m);
    } else {
      AddRowReference(WindowRow(image, r), w.GetCols(), lo, hi, m);
    }
  }
  return FromMoments(m);
}

void ClippedStatistics(const IntWindow2D& image, double k, BandStatistics& all, BandStatistics& floor,
                       PixelPath path) {
  if (path == PixelPath::kReference) {
    all = StatisticsInBand(image, INT_MIN, INT_MAX, path);
    floor = StatisticsInBand(image, TruncateToInt(all.mean - k * all.stdDev),
                             TruncateToInt(all.mean + k * all.stdDev), path);
    return;
  }
  const Window2D w = image.GetWindow();
  std::vector<Moments> rows(static_cast<std::size_t>(w.GetRows()));
  Moments total;
  for (int r = 0; r < w.GetRows(); ++r) {
    AddRowFast(WindowRow(image, w.GetStartRow() + r), w.GetCols(), INT_MIN, INT_MAX,
               rows[static_cast<std::size_t>(r)]);
    total.Add(rows[static_cast<std::size_t>(r)]);
  }
  all = FromMoments(total);
  const int lo = TruncateToInt(all.mean - k * all.stdDev);
  const int hi = TruncateToInt(all.mean + k * all.stdDev);
  Moments inBand;
  for (int r = 0; r < w.GetRows(); ++r) {
    const Moments& row = rows[static_cast<std::size_t>(r)];
    if (row.count == 0) continue;
    // The range is that of the valid pixels only when the row holds no invalid one; any other row
    // is summed again.
    const bool allValid = row.count == w.GetCols();
    if (allValid && (row.max < lo || row.min > hi)) continue;
    if (allValid && row.min >= lo && row.max <= hi) {
      inBand.Add(row);
    } else {
      AddRowFast(WindowRow(image, w.GetStartRow() + r), w.GetCols(), lo, hi, inBand);
    }
  }
  floor = FromMoments(inBand);
}

int TruncateToInt(double value) {
  if (std::isnan(value)) return 0;
  if (value >= static_cast<double>(INT_MAX)) return INT_MAX;
  if (value <= static_cast<double>(INT_MIN)) return INT_MIN;
  return static_cast<int>(value);
}

namespace {

// Orders the streaming stores of a split before anything that follows it (another thread may read
// the images next).
void FinishStreaming() {
#if defined(__SSE2__)
  _mm_sfence();
#endif
}

// Sizes a split output like the input: shape, origin, units and window.
bool SizeLike(const IntWindow2D& input, IntWindow2D& target) {
  const Window2D all = input.GetMatrixWindow();
  const Window2D w = input.GetWindow();
  if (!target.Resize(all)) return false;
  target.SetUnitManager(input.GetUnitManager());
  if (w != all) {
    target.SetWindow(w);
  } else {
    target.ResetWindow();
  }
  return true;
}

// Pixels outside the input's window were not examined: they belong to neither the background nor
// the foreground. Left as copies of the input, the margins of a windowed frame would stand in the
// foreground as one large region.
void InvalidateSpan(int* keep, int* drop, int from, int to) {
  std::fill(keep + from, keep + to, kInvalid);
  std::fill(drop + from, drop + to, kInvalid);
}

std::int64_t CountSpan(const int* row, int from, int to, int threshold) {
  std::int64_t count = 0;
  for (int c = from; c < to; ++c)
    count += (row[c] >= threshold && row[c] < kInvalid) ? 1 : 0;
  return count;
}

// The split of in[from, to): pixels in the band to `keep`, valid pixels beyond it to `drop` (or,
// with `dropAll`, every pixel of `drop` invalid: the mask takes them anyway). Returns the number
// of pixels written to `drop` at or above `threshold`; `anyDropped` becomes true when a valid pixel
// was written to `drop` (it is never reset).
//
// Four pixels at a time where `keep` and `drop` are equally aligned (matrices of one shape are):
// the outputs are written with streaming stores, which do not first read the lines they fill.
std::int64_t SplitSpan(const int* in, int* keep, int* drop, int from, int to, int lo, int hi, int threshold,
                       bool dropAll, bool& anyDropped) {
  const auto scalar = [&](int c) {
    const int v = in[c];
    const bool valid = v < kInvalid;
    const bool inBand = v >= lo && v <= hi;
    keep[c] = valid && inBand ? v : kInvalid;
    drop[c] = valid && !inBand && !dropAll ? v : kInvalid;
    anyDropped = anyDropped || drop[c] < kInvalid;
    return drop[c] >= threshold && drop[c] < kInvalid ? 1 : 0;
  };
  std::int64_t count = 0;
  int c = from;
#if defined(__SSE2__)
  const auto misalignment = [](const int* p) { return reinterpret_cast<std::uintptr_t>(p) & 15u; };
  if (misalignment(keep) == misalignment(drop)) {
    while (c < to && misalignment(keep + c) != 0)
      count += scalar(c++);
    // In the band: lo <= v <= min(hi, last valid value); valid: v below the invalid value; counted:
    // dropped and at or above the threshold. Compared as "greater than one less" (lo - 1 wraps only
    // for lo = INT_MIN, where nothing is below).
    const bool unbounded = lo == INT_MIN;
    const __m128i belowLow = _mm_set1_epi32(unbounded ? lo : lo - 1);
    const __m128i high = _mm_set1_epi32(std::min(hi, kInvalid - 1));
    const __m128i lastValid = _mm_set1_epi32(kInvalid - 1);
    const __m128i invalid = _mm_set1_epi32(kInvalid);
    const __m128i all = _mm_set1_epi32(-1);
    const bool countAll = threshold == INT_MIN;
    const __m128i belowThreshold = _mm_set1_epi32(countAll ? threshold : threshold - 1);
    __m128i counts = _mm_setzero_si128();
    __m128i dropSeen = _mm_setzero_si128();
    for (; c + 4 <= to; c += 4) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + c));
      const __m128i aboveHigh = _mm_cmpgt_epi32(v, high);
      const __m128i inBand = _mm_andnot_si128(aboveHigh, unbounded ? all : _mm_cmpgt_epi32(v, belowLow));
      const __m128i keepValue = _mm_or_si128(_mm_and_si128(inBand, v), _mm_andnot_si128(inBand, invalid));
      _mm_stream_si128(reinterpret_cast<__m128i*>(keep + c), keepValue);
      if (dropAll) {
        _mm_stream_si128(reinterpret_cast<__m128i*>(drop + c), invalid);
        continue;
      }
      const __m128i valid = _mm_andnot_si128(_mm_cmpgt_epi32(v, lastValid), all);
      const __m128i dropped = _mm_andnot_si128(inBand, valid);
      const __m128i dropValue = _mm_or_si128(_mm_and_si128(dropped, v), _mm_andnot_si128(dropped, invalid));
      _mm_stream_si128(reinterpret_cast<__m128i*>(drop + c), dropValue);
      dropSeen = _mm_or_si128(dropSeen, dropped);
      const __m128i counted = countAll ? dropped : _mm_and_si128(dropped, _mm_cmpgt_epi32(v, belowThreshold));
      counts = _mm_sub_epi32(counts, counted);
    }
    alignas(16) std::int32_t lanes[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), counts);
    count += static_cast<std::int64_t>(lanes[0]) + lanes[1] + lanes[2] + lanes[3];
    anyDropped = anyDropped || _mm_movemask_epi8(dropSeen) != 0;
  }
#endif
  while (c < to)
    count += scalar(c++);
  return count;
}

// The mask's geometry over a window: the columns within the square (an interval, since |dx| grows
// both ways from the centre), the columns close enough to the centre to be under the obscuration,
// and the rules for a row and a pixel. The expressions are those of the per-pixel rule, so the
// results agree with it bit for bit; the square root is needed only near the centre, because the
// rounded sqrt(dx^2 + dy^2) is never below |dx| or |dy|.
struct MaskGeometry {
  MaskGeometry(const Window2D& w, double cx, double cy, double halfWidth, double radius)
      : startCol(w.GetStartCol()), centerX(cx), centerY(cy), halfWidth(halfWidth), radius(radius) {
    for (int c = 0; c < w.GetCols(); ++c) {
      const double dx = (startCol + c) - centerX;
      if (!(std::fabs(dx) > halfWidth)) {
        insideFirst = std::min(insideFirst, c);
        insideEnd = c + 1;
      }
      if (std::fabs(dx) < radius) {
        nearFirst = std::min(nearFirst, c);
        nearEnd = c + 1;
      }
    }
    insideFirst = std::min(insideFirst, insideEnd);
    nearFirst = std::min(nearFirst, nearEnd);
  }

  bool RowOutside(int y) const { return std::fabs(y - centerY) > halfWidth; }
  bool RowNearObscuration(int y) const { return std::fabs(y - centerY) < radius; }
  bool UnderObscuration(int c, int y) const {
    const double dx = (startCol + c) - centerX;
    const double dy = y - centerY;
    return std::sqrt(dx * dx + dy * dy) < radius;
  }

  int startCol;
  double centerX, centerY, halfWidth, radius;
  int insideFirst = INT_MAX, insideEnd = 0;  // window columns
  int nearFirst = INT_MAX, nearEnd = 0;
};

}  // namespace

bool SplitAtBand(const IntWindow2D& input, int lo, int hi, IntWindow2D& inside, IntWindow2D& outside) {
  if (!SizeLike(input, inside) || !SizeLike(input, outside)) return false;
  const Window2D w = input.GetWindow();
  const int cols = input.GetColumns();
  const int first = w.GetStartCol() - input.GetStartCol();
  const int last = first + w.GetCols();
  for (int r = 0; r < input.GetRows(); ++r) {
    const int* in = input.Row(r);
    int* keep = inside.Row(r);
    int* drop = outside.Row(r);
    const int cameraRow = r + input.GetStartRow();
    if (cameraRow < w.GetStartRow() || cameraRow >= w.GetEndRow() || w.IsEmpty()) {
      InvalidateSpan(keep, drop, 0, cols);
      continue;
    }
    InvalidateSpan(keep, drop, 0, first);
    bool unused = false;
    SplitSpan(in, keep, drop, first, last, lo, hi, INT_MAX, false, unused);
    InvalidateSpan(keep, drop, last, cols);
  }
  FinishStreaming();
  return true;
}

bool SplitMaskAndCount(const IntWindow2D& input, int lo, int hi, double centerX, double centerY,
                       double halfWidth, double obscurationRadius, int threshold, IntWindow2D& inside,
                       IntWindow2D& outside, std::int64_t& count, RowSpan* outsideRows) {
  count = 0;
  if (!SizeLike(input, inside) || !SizeLike(input, outside)) return false;
  const Window2D w = input.GetWindow();
  const MaskGeometry mask(w, centerX, centerY, halfWidth, obscurationRadius);
  const int cols = input.GetColumns();
  const int first = w.GetStartCol() - input.GetStartCol();
  const int last = first + w.GetCols();
  RowSpan used{input.GetRows(), 0};
  const auto markUsed = [&used](int r) {
    used.first = std::min(used.first, r);
    used.end = r + 1;
  };
  for (int r = 0; r < input.GetRows(); ++r) {
    const int* in = input.Row(r);
    int* keep = inside.Row(r);
    int* drop = outside.Row(r);
    const int y = r + input.GetStartRow();
    if (y < w.GetStartRow() || y >= w.GetEndRow() || w.IsEmpty()) {
      InvalidateSpan(keep, drop, 0, cols);
      continue;
    }
    InvalidateSpan(keep, drop, 0, first);
    InvalidateSpan(keep, drop, last, cols);
    bool dropped = false;
    if (mask.RowOutside(y)) {
      SplitSpan(in, keep, drop, first, last, lo, hi, INT_MAX, true, dropped);
      if (dropped) markUsed(r);
      continue;
    }
    const int a = first + mask.insideFirst, b = first + mask.insideEnd;
    SplitSpan(in, keep, drop, first, a, lo, hi, INT_MAX, true, dropped);
    count += SplitSpan(in, keep, drop, a, b, lo, hi, threshold, false, dropped);
    SplitSpan(in, keep, drop, b, last, lo, hi, INT_MAX, true, dropped);
    if (dropped) markUsed(r);
    if (!mask.RowNearObscuration(y)) continue;
    for (int c = mask.nearFirst; c < mask.nearEnd; ++c) {
      int& v = drop[first + c];
      if (v == kInvalid || !mask.UnderObscuration(c, y)) continue;
      if (v >= threshold) --count;
      v = kInvalid;
    }
  }
  FinishStreaming();
  if (outsideRows) *outsideRows = used.first < used.end ? used : RowSpan{0, 0};
  return true;
}

void ApplySquareAndObscurationMask(IntWindow2D& image, double centerX, double centerY, double halfWidth,
                                   double obscurationRadius) {
  const Window2D w = image.GetWindow();
  if (w.IsEmpty()) return;
  const MaskGeometry mask(w, centerX, centerY, halfWidth, obscurationRadius);
  for (int y = w.GetStartRow(); y < w.GetEndRow(); ++y) {
    int* row = image.Row(y - image.GetStartRow()) + (w.GetStartCol() - image.GetStartCol());
    if (mask.RowOutside(y)) {
      std::fill(row, row + w.GetCols(), kInvalid);
      continue;
    }
    std::fill(row, row + mask.insideFirst, kInvalid);
    std::fill(row + mask.insideEnd, row + w.GetCols(), kInvalid);
    if (!mask.RowNearObscuration(y)) continue;
    for (int c = mask.nearFirst; c < mask.nearEnd; ++c) {
      if (mask.UnderObscuration(c, y)) row[c] = kInvalid;
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
    total += CountSpan(row, 0, w.GetCols(), threshold);
  }
  return total;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment::detail

#include "Analysis/Core/RegionFinderConnected.h"

#include <algorithm>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Quarn::Metrology::Analysis::Core {

namespace {

// Union-find over provisional labels; the smaller root wins so labels stay in scan order.
int FindRoot(std::vector<int>& parent, int label) {
  while (parent[label] != label) {
    parent[label] = parent[parent[label]];
    label = parent[label];
  }
  return label;
}

void Unite(std::vector<int>& parent, int a, int b) {
  a = FindRoot(parent, a);
  b = FindRoot(parent, b);
  if (a < b) {
    parent[b] = a;
  } else if (b < a) {
    parent[a] = b;
  }
}

// The provisional labels of the first pass: a union-find forest over them and, per label, its
// pixel count and bounding box (rows and columns of the matrix).
struct ProvisionalLabels {
  std::vector<int> parent, pixels, minRow, maxRow, minCol, maxCol;

  // Gives the run of valid pixels [first, end) of row r its label: that of the first labelled
  // pixel touching it in the row above (`touching` of them, labels or the no-data value), with all
  // the others united into it, or a new label when none touches. Pixels of a run share their left
  // neighbour's label, so a run takes one label as a whole; neighbours above come in runs too, so
  // only a change of label is looked at.
  int LabelRun(int r, int first, int end, const int* touching, int count) {
    constexpr int kNone = RegionIdMatrix2D::NoData();
    int current = -1;
    int last = kNone;
    for (int k = 0; k < count; ++k) {
      const int neighbour = touching[k];
      if (neighbour == last) continue;
      last = neighbour;
      if (neighbour == kNone) continue;
      if (current < 0) {
        current = neighbour;
      } else {
        Unite(parent, current, neighbour);
      }
    }
    if (current < 0) {
      current = static_cast<int>(parent.size());
      parent.push_back(current);
      pixels.push_back(0);
      minRow.push_back(r);
      maxRow.push_back(r);
      minCol.push_back(first);
      maxCol.push_back(end - 1);
    }
    const auto k = static_cast<std::size_t>(current);
    pixels[k] += end - first;
    maxRow[k] = r;
    minCol[k] = std::min(minCol[k], first);
    maxCol[k] = std::max(maxCol[k], end - 1);
    return current;
  }
};

// The first valid pixel of in[c, cols), or cols. Most of a sparse mask is invalid, so the scan for
// the next region pixel goes four pixels at a time.
int NextValid(const int* in, int c, int cols) {
#if defined(__SSE2__)
  const __m128i invalid = _mm_set1_epi32(RegionIdMatrix2D::NoData());
  for (; c + 4 <= cols; c += 4) {
    const __m128i valid = _mm_cmplt_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + c)), invalid);
    const int mask = _mm_movemask_ps(_mm_castsi128_ps(valid));
    if (mask != 0) return c + __builtin_ctz(static_cast<unsigned>(mask));
  }
#endif
  while (c < cols && !IntWindow2D::IsDataValid(in[c]))
    ++c;
  return c;
}

// Sets label[c, end) to the no-data value. In place, the input's invalid values are mostly that
// value already (a map made by MarkNoDataOf holds nothing else), so only what differs is written
// and a sparse map is read, not rewritten.
void ClearLabels(int* label, int c, int end, bool inPlace) {
  constexpr int kNone = RegionIdMatrix2D::NoData();
  if (!inPlace) {
    std::fill(label + c, label + end, kNone);
    return;
  }
#if defined(__SSE2__)
  const __m128i none = _mm_set1_epi32(kNone);
  for (; c + 4 <= end; c += 4) {
    const __m128i same = _mm_cmpeq_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(label + c)), none);
    if (_mm_movemask_ps(_mm_castsi128_ps(same)) != 0xF)
      _mm_storeu_si128(reinterpret_cast<__m128i*>(label + c), none);
  }
#endif
  for (; c < end; ++c) {
    if (label[c] != kNone) label[c] = kNone;
  }
}

// The first invalid pixel of in[c, cols), or cols.
int NextInvalid(const int* in, int c, int cols) {
#if defined(__SSE2__)
  const __m128i invalid = _mm_set1_epi32(RegionIdMatrix2D::NoData());
  for (; c + 4 <= cols; c += 4) {
    const __m128i valid = _mm_cmplt_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + c)), invalid);
    const int mask = _mm_movemask_ps(_mm_castsi128_ps(valid));
    if (mask != 0xF) return c + __builtin_ctz(static_cast<unsigned>(~mask));
  }
#endif
  while (c < cols && IntWindow2D::IsDataValid(in[c]))
    ++c;
  return c;
}

// Labels row r: `in` the input row, `label` the output row, `above` the labels of the row above
// (null for the first row), run by run. True when the row holds a region pixel.
bool LabelRow(const int* in, int* label, const int* above, int cols, int r, bool eight,
              ProvisionalLabels& provisional) {
  bool used = false;
  int c = 0;
  while (true) {
    // Only pixels already read are overwritten, even when `label` is `in`.
    const int first = NextValid(in, c, cols);
    ClearLabels(label, c, first, label == in);
    if (first >= cols) return used;
    used = true;
    const int end = NextInvalid(in, first, cols);
    // The row above touches the run over [first, end), and diagonally one pixel either side.
    const int from = eight ? std::max(first - 1, 0) : first;
    const int to = eight ? std::min(end + 1, cols) : end;
    const int current = above ? provisional.LabelRun(r, first, end, above + from, to - from)
                              : provisional.LabelRun(r, first, end, nullptr, 0);
    std::fill(label + first, label + end, current);
    c = end;
  }
}

}  // namespace

bool RegionFinderConnected::MakeRegions(RegionIdMatrix2D& regionIds, Array<RegionInfo>& regions) {
  if (!input_) {
    status_ = Status(0, StatusCode::kNotSet, __LINE__, status_.GetFile(), "No input matrix set");
    return false;
  }
  const int rows = input_->GetRows();
  const int cols = input_->GetColumns();
  const Window2D window = input_->GetMatrixWindow();
  const UnitManager units = input_->GetUnitManager();
  // The provisional labels go straight into the output. That is safe even when the output is the
  // input itself: a pixel is read before its label is written, and only labels already written
  // (the row above, the pixel to the left) are read back as labels.
  const bool inPlace = regionIds.Data() == input_->Data() && rows > 0 && cols > 0;
  QUARN_RETURN_IF_CALL_FAILED(inPlace || regionIds.Resize(window), status_, status_.GetFile().c_str(),
                              regionIds, "regionIds.Resize", false);

  // First pass: provisional labels (their own numbering) with the pixel count and bounding box of
  // each, the no-data value outside every region, and which rows hold a region pixel at all.
  ProvisionalLabels provisional;
  std::vector<unsigned char> rowUsed(static_cast<std::size_t>(rows), 0);
  const bool eight = connectivity_ == Connectivity::kEight;
  for (int r = 0; r < rows; ++r) {
    rowUsed[static_cast<std::size_t>(r)] =
        LabelRow(input_->Row(r), regionIds.Row(r), r > 0 ? regionIds.Row(r - 1) : nullptr, cols, r, eight,
                 provisional);
  }
  const std::vector<int>& pixels = provisional.pixels;
  const std::vector<int>& minRow = provisional.minRow;
  const std::vector<int>& maxRow = provisional.maxRow;
  const std::vector<int>& minCol = provisional.minCol;
  const std::vector<int>& maxCol = provisional.maxCol;
  std::vector<int>& parent = provisional.parent;

  // Final ids in order of first appearance in the scan (the smallest provisional label of a region
  // is its root and the first met), each with the merged counts and boxes of its labels.
  std::vector<int> finalId(parent.size(), -1);
  int regionCount = 0;
  bool renumbered = false;
  for (std::size_t i = 0; i < parent.size(); ++i) {
    const int root = FindRoot(parent, static_cast<int>(i));
    if (finalId[static_cast<std::size_t>(root)] < 0) finalId[static_cast<std::size_t>(root)] = regionCount++;
    finalId[i] = finalId[static_cast<std::size_t>(root)];
    renumbered = renumbered || finalId[i] != static_cast<int>(i);
  }
  QUARN_RETURN_IF_CALL_FAILED(regions.Resize(regionCount), status_, status_.GetFile().c_str(), regions,
                              "regions.Resize", false);
  std::vector<int> count(static_cast<std::size_t>(regionCount), 0);
  std::vector<int> top(count.size(), rows), bottom(count.size(), -1), left(count.size(), cols),
      right(count.size(), -1);
  for (std::size_t i = 0; i < parent.size(); ++i) {
    const auto k = static_cast<std::size_t>(finalId[i]);
    count[k] += pixels[i];
    top[k] = std::min(top[k], minRow[i]);
    bottom[k] = std::max(bottom[k], maxRow[i]);
    left[k] = std::min(left[k], minCol[i]);
    right[k] = std::max(right[k], maxCol[i]);
  }

  // Second pass, only where labels were merged or renumbered and only over rows holding regions.
  if (renumbered) {
    for (int r = 0; r < rows; ++r) {
      if (!rowUsed[static_cast<std::size_t>(r)]) continue;
      int* label = regionIds.Row(r);
      for (int c = NextValid(label, 0, cols); c < cols;) {
        const int end = NextInvalid(label, c, cols);
        for (; c < end; ++c)
          label[c] = finalId[static_cast<std::size_t>(label[c])];
        c = NextValid(label, end, cols);
      }
    }
  }
  regionIds.ResetWindow();
  regionIds.SetUnitManager(units);
  for (int id = 0; id < regionCount; ++id) {
    const auto k = static_cast<std::size_t>(id);
    regions[id] = RegionInfo{id, count[k],
                             Window2D(window.GetStartRow() + top[k], window.GetStartCol() + left[k],
                                      bottom[k] - top[k] + 1, right[k] - left[k] + 1)};
  }
  return true;
}

}  // namespace Quarn::Metrology::Analysis::Core

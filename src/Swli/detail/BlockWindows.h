#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "Swli/FrameBlockEvaluator.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// The windows of a block of pixels evaluated straight from the frame planes, cut as the windowed
// loaders cut them so that a block gives what the pixel path would: each lane's first frame and the
// peak frame the pixel path would be handed. Forward: centred on the peak, or the first or last q
// frames with the peak moved to h or S - h - 1. Reversed: frames p - h + 1 .. p + h mirrored, or the
// last or first q frames, and the peak mirrored to S - p.
struct BlockWindows {
  int start[FramePlaneBlock::kPixels];  // -1: the lane is not evaluated in the block
  int peak[FramePlaneBlock::kPixels];
  int lo = 0, hi = 0;  // the frames the block's windows cover; none when hi <= lo
};

// Places the windows of the lanes `wanted(i)` accepts among `stored` frames and returns the mask of
// lanes left to the pixel path: those whose peak must be estimated from the whole signal, and, when
// the windows spread over more than two signals (a tall step inside the block, a stray peak), those
// more than half a signal from the median window, so that a block never spans more than 2q frames.
template <typename Wanted>
std::uint64_t PlaceBlockWindows(const FramePlaneBlock& block, int stored, int q, bool reversed,
                                const Wanted& wanted, BlockWindows& w) {
  constexpr int kLanes = FramePlaneBlock::kPixels;
  const int h = q / 2;
  std::uint64_t left = 0;
  w.lo = stored;
  w.hi = 0;
  for (int i = 0; i < kLanes; ++i) {
    w.start[i] = -1;
    if (i >= block.width || !wanted(i)) continue;
    const int p = block.peaks[i];
    if (p <= 0 || (reversed && stored - p <= 0)) {  // a peak to estimate: the pixel path does that
      left |= std::uint64_t{1} << i;
      continue;
    }
    if (reversed) {
      w.start[i] = p < h ? stored - q : p >= stored - h ? 0 : p - h + 1;
      w.peak[i] = stored - p;
    } else if (h <= p && p < stored - h) {
      w.start[i] = p - h;
      w.peak[i] = p;
    } else if (p < h) {
      w.start[i] = 0;
      w.peak[i] = h;
    } else {
      w.start[i] = stored - q;
      w.peak[i] = stored - h - 1;
    }
    w.lo = std::min(w.lo, w.start[i]);
    w.hi = std::max(w.hi, w.start[i] + q);
  }
  if (w.hi <= w.lo || w.hi - w.lo <= 2 * q) return left;
  int sorted[kLanes], used = 0;
  for (int i = 0; i < kLanes; ++i) {
    if (w.start[i] >= 0) sorted[used++] = w.start[i];
  }
  std::nth_element(sorted, sorted + used / 2, sorted + used);
  const int median = sorted[used / 2];
  w.lo = stored;
  w.hi = 0;
  for (int i = 0; i < kLanes; ++i) {
    if (w.start[i] < 0) continue;
    if (std::abs(w.start[i] - median) > h) {
      w.start[i] = -1;
      left |= std::uint64_t{1} << i;
      continue;
    }
    w.lo = std::min(w.lo, w.start[i]);
    w.hi = std::max(w.hi, w.start[i] + q);
  }
  return left;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

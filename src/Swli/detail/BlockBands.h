#pragma once

#include <cstdint>

#include "QuarnPhaseProcessingExport.h"
#include "Swli/detail/BandAnalysis.h"
#include "Swli/detail/BandTransform.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// BlockBands
//
// The band transform (BandTransform.h) of a whole block of 64 pixels at once, with vector lanes
// for pixels: each pixel's window is cut from the block's copy of its frames, folded in integers
// across the pixels, and every band bin is summed for a vector of pixels against one twiddle factor
// at a time. Each lane repeats the single-signal kernel's arithmetic step for step (the same exact
// folds and offset, the same four partial sums of products in the same order, the same fused or
// separate multiply-adds, the same joining of the partial sums and of the mirror bins), so a lane's
// bins are those of BandBins on the pixel's loaded signal bit for bit. Signals of 64 or 128 integer
// samples (8 or 16 bits) only.
struct BlockBandsJob {
  static constexpr int kLanes = 64;
  // Row r holds frame lo + r of the block's 64 pixels (std::uint8_t, or std::uint16_t when `wide`).
  const void* frames = nullptr;
  bool wide = false;
  // Scan order runs backwards through the frames: sample j of a window is its frame q - 1 - j.
  bool reversed = false;
  // Per lane: the row of its window's first frame, or -1 for a lane not wanted.
  const int* offsets = nullptr;
  // Out, per lane i: band bin b at [(i / kBandLanes) x bins + b] x kBandLanes + i % kBandLanes (the
  // layout of two blocks for BandAnalysis); lanes of a vector without any wanted lane are zero.
  double* re = nullptr;
  double* im = nullptr;
  // Out, per wanted lane: x(h-4) + x(h-3) + 3 (x(h-2) + x(h-1) + x(h) + x(h+1)) + x(h+2) + x(h+3) of
  // its window (h = q / 2), the standard fringe-removal window's integer sum.
  std::int32_t* intensity = nullptr;
};

// False (nothing written) unless the transform is planned for 64 or 128 samples.
using BlockBandsFunction = bool (*)(const BandTransform& transform, const BlockBandsJob& job);

QUARN_PP_EXPORT bool BlockBandsSse2(const BandTransform& transform, const BlockBandsJob& job);
QUARN_PP_EXPORT bool BlockBandsAvx2(const BandTransform& transform, const BlockBandsJob& job);
QUARN_PP_EXPORT bool BlockBandsAvx512(const BandTransform& transform, const BlockBandsJob& job);

// The widest implementation this processor runs, with the arithmetic of SelectBandBins' kernel
// (fused multiply-adds exactly where it fuses them). QUARN_SWLI_ISA=avx2 or sse2 caps the choice.
QUARN_PP_EXPORT BlockBandsFunction SelectBlockBands();

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

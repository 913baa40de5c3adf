#pragma once

#include <cstdint>

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// Everything the vectorised peak-frame finder needs; plain data so that it can cross into the
// instruction-set-specific translation units without pulling library headers into them.
struct PeakFinderParams {
  const void* const* planes = nullptr;  // one pointer per stored frame to its samples (pixel 0 first)
  int frames = 0;
  int sampleBytes = 1;    // 1: uint8, 2: uint16 (32-bit samples take the plain path)
  bool reversed = false;  // ties go to the last frame instead of the first
  int* peaks = nullptr;   // one per pixel, pixel 0 first
};

// Finds the peak frames of pixels [first, end).
using PeakFinderFunction = void (*)(const PeakFinderParams& params, std::int64_t first, std::int64_t end);

// Implementations per instruction set; only call one the processor supports.
void FindPeaksSse2(const PeakFinderParams& params, std::int64_t first, std::int64_t end);
void FindPeaksAvx2(const PeakFinderParams& params, std::int64_t first, std::int64_t end);
void FindPeaksAvx512(const PeakFinderParams& params, std::int64_t first, std::int64_t end);

// The widest implementation this processor runs (the AVX2 one also needs FMA, the AVX-512 one BW and
// VNNI besides); QUARN_SWLI_ISA=sse2 or avx2 caps the choice (to compare the paths on one machine).
PeakFinderFunction SelectPeakFinderFunction();

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

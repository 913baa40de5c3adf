#pragma once

#include <cstdint>

#include "Analysis/Core/NoData.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// The frequency-domain analysis's two heights of each pixel over [first, end), from its phase fit
// (x the intercept, y the slope, z the peak frame) and the coherence height of its window in
// `coherence` (pixels whose coherence is at or above no-data are left alone; NaN counts as a height):
//   coherence' = coherence + c y
//   phase      = z delta + ((k0 y + x) c) / k0
// and, when `canFold`, the phase height moved by whole wavelengths to within half a wavelength of
// coherence': by the computed number of wavelengths, ceil((d - half) / wavelength) for a difference
// d = phase - coherence' above half a wavelength (ceil((-half - d) / wavelength) below minus half),
// then at most four single wavelengths each way where rounding left it at the boundary.
// coherence' replaces the coherence height; phase is written to `phase`.
struct HeightFoldStep {
  double* coherence = nullptr;
  double* phase = nullptr;
  const Analysis::Core::AdcPoint* fits = nullptr;
  double c = 0.0;      // the signal's length over 2 pi
  double delta = 0.0;  // the scan step
  double k0 = 1.0;     // the mean peak bin
  double wavelength = 0.0;
  double halfWavelength = 0.0;
  bool canFold = false;
};

using FoldHeightsFunction = void (*)(const HeightFoldStep& step, std::int64_t first, std::int64_t end);

// One pixel at a time (the reference).
QUARN_PP_EXPORT void FoldHeights(const HeightFoldStep& step, std::int64_t first, std::int64_t end);
// Four pixels at a time with AVX2: the same operations in the same order, each rounded on its own
// (no fused multiply-add), selects for the branches and the four settling steps each way unrolled:
// the same bits as the reference.
QUARN_PP_EXPORT void FoldHeightsAvx2(const HeightFoldStep& step, std::int64_t first, std::int64_t end);

// The widest implementation this processor runs (QUARN_SWLI_ISA=sse2 caps the choice), chosen once.
QUARN_PP_EXPORT FoldHeightsFunction SelectFoldHeights();

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

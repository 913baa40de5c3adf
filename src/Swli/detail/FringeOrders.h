#pragma once

#include <cstdint>

#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// The last step of the fringe-order analysis, pixel by pixel over [first, end): for every pixel with
// both heights (neither at or above the no-data value; NaN counts as a height, as everywhere in the
// maps), the phase height p moved by whole `wavelength` to within half a wavelength of coherence c
// plus `gap`:
//   offset = (p - c) - gap,  order = round half away from zero (offset / wavelength),
//   surface = p - order x wavelength, or no-data where |offset - order x wavelength| > limit.
// Other pixels' surface is left as it is.
struct FringeOrderStep {
  const double* coherence = nullptr;
  const double* phase = nullptr;
  double* surface = nullptr;
  double gap = 0.0;
  double wavelength = 1.0;
  double limit = 0.5;
};

using ChooseFringeOrdersFunction = void (*)(const FringeOrderStep& step, std::int64_t first,
                                            std::int64_t end);

// One pixel at a time (the reference).
QUARN_PP_EXPORT void ChooseFringeOrders(const FringeOrderStep& step, std::int64_t first, std::int64_t end);
// Four pixels at a time with AVX2, the same operations in the same order, each exactly rounded (no
// fused multiply-add), and selects for the branches: the same bits as the reference.
QUARN_PP_EXPORT void ChooseFringeOrdersAvx2(const FringeOrderStep& step, std::int64_t first,
                                            std::int64_t end);

// The widest implementation this processor runs (QUARN_SWLI_ISA=sse2 caps the choice), chosen once.
QUARN_PP_EXPORT ChooseFringeOrdersFunction SelectChooseFringeOrders();

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

// The fringe-order step one pixel at a time, and the choice of implementation; see FringeOrders.h.
#include "Swli/detail/FringeOrders.h"

#include <cmath>

#include "Analysis/Core/NoData.h"
#include "Swli/detail/IsaCap.h"
#include "Swli/detail/Rounding.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

void ChooseFringeOrders(const FringeOrderStep& step, std::int64_t first, std::int64_t end) {
  using Analysis::Core::NoDataTraits;
  const double wavelength = step.wavelength;
  for (std::int64_t i = first; i < end; ++i) {
    const double coherence = step.coherence[i], phase = step.phase[i];
    if (NoDataTraits<double>::IsNoData(coherence) || NoDataTraits<double>::IsNoData(phase)) continue;
    const double offset = phase - coherence - step.gap;
    const double order = RoundHalfAway(offset / wavelength);
    const double residual = offset - order * wavelength;
    step.surface[i] =
        std::abs(residual) > step.limit ? NoDataTraits<double>::Value() : phase - order * wavelength;
  }
}

ChooseFringeOrdersFunction SelectChooseFringeOrders() {
  return MayUseAvx2() ? &ChooseFringeOrdersAvx2 : &ChooseFringeOrders;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

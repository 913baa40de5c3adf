// The FDA's heights one pixel at a time, and the choice of implementation; see HeightFold.h.
#include "Swli/detail/HeightFold.h"

#include "Swli/detail/IsaCap.h"
#include "Swli/detail/Rounding.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

void FoldHeights(const HeightFoldStep& step, std::int64_t first, std::int64_t end) {
  const double c = step.c, delta = step.delta, k0 = step.k0;
  const double wavelength = step.wavelength, half = step.halfWavelength;
  for (std::int64_t i = first; i < end; ++i) {
    if (Analysis::Core::IsNoDataValue(step.coherence[i])) continue;
    const Analysis::Core::AdcPoint& fit = step.fits[i];
    const double coherence = step.coherence[i] + c * fit.y;
    double phase = fit.z * delta + (k0 * fit.y + fit.x) * c / k0;
    if (step.canFold) {
      // Whole wavelengths to within half a wavelength of the coherence height; the jump is
      // computed, the loops only settle rounding at the boundary.
      const double difference = phase - coherence;
      if (difference > half) {
        phase -= wavelength * Ceil((difference - half) / wavelength);
      } else if (difference < -half) {
        phase += wavelength * Ceil((-half - difference) / wavelength);
      }
      for (int settle = 0; settle < 4 && phase - coherence > half; ++settle)
        phase -= wavelength;
      for (int settle = 0; settle < 4 && phase - coherence < -half; ++settle)
        phase += wavelength;
    }
    step.coherence[i] = coherence;
    step.phase[i] = phase;
  }
}

FoldHeightsFunction SelectFoldHeights() {
  return MayUseAvx2() ? &FoldHeightsAvx2 : &FoldHeights;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

// The vectorised peak-frame finder compiled for AVX2; see PeakFinderBody.inc.
#include <cstdint>

#include "Swli/detail/PeakFinderKernel.h"

namespace {
#include "Swli/detail/PeakFinderBody.inc"
}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

void FindPeaksAvx2(const PeakFinderParams& params, std::int64_t first, std::int64_t end) {
  FindPeaksBody(params, first, end);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

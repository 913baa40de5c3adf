// The block band analysis compiled for AVX-512, eight pixels a vector (products and sums rounded apart,
// as on the baseline: no contraction into the fused multiply-adds AVX-512 brings); see BandAnalysis.h.
#include "Swli/detail/BandAnalysis.h"

#include <cstring>

namespace {
#include "Swli/detail/BandAnalysisBody.inc"
}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

BandAnalysisFunctions BandAnalysisAvx512() {
  return {&Powers, &UnwrapAndSum};
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

// The block band analysis compiled for AVX2 (products and sums rounded apart, as on the baseline);
// see BandAnalysis.h.
#include "Swli/detail/BandAnalysis.h"

#include <cstring>

namespace {
#include "Swli/detail/BandAnalysisBody.inc"
}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

BandAnalysisFunctions BandAnalysisAvx2() {
  return {&Powers, &UnwrapAndSum};
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

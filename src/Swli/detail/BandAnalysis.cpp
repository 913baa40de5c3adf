// The block band analysis on the x86-64 baseline (SSE2), and the choice of implementation; see
// BandAnalysis.h.
#include "Swli/detail/BandAnalysis.h"
#include "Swli/detail/IsaCap.h"

#include <cstdlib>
#include <cstring>

namespace {
#include "Swli/detail/BandAnalysisBody.inc"
}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

BandAnalysisFunctions BandAnalysisSse2() {
  return {&Powers, &UnwrapAndSum};
}

BandAnalysisFunctions SelectBandAnalysis() {
  const IsaCap allowed = ReadIsaCap();
  const bool allowAvx2 = allowed.avx2;
  const bool allowAvx512 = allowed.avx512;
  __builtin_cpu_init();
  if (allowAvx512 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq"))
    return BandAnalysisAvx512();
  if (allowAvx2 && __builtin_cpu_supports("avx2")) return BandAnalysisAvx2();
  return BandAnalysisSse2();
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

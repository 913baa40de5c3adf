// The block band analysis on the x86-64 baseline (SSE2), and the choice of implementation; see
// BandAnalysis.h.
#include "Swli/detail/BandAnalysis.h"

#include <cstdlib>
#include <cstring>

namespace {
#include "Swli/detail/BandAnalysisBody.inc"
void Powers(const band::BandAnalysisBlock& block) {
  PowersBody(block);
}
void UnwrapAndSum(const band::BandAnalysisBlock& block) {
  UnwrapAndSumBody(block);
}
}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

BandAnalysisFunctions BandAnalysisSse2() {
  return {&Powers, &UnwrapAndSum};
}

BandAnalysisFunctions SelectBandAnalysis() {
  const char* cap = std::getenv("QUARN_SWLI_ISA");
  const bool allowAvx2 = !cap || std::strcmp(cap, "sse2") != 0;
  const bool allowAvx512 = allowAvx2 && (!cap || std::strcmp(cap, "avx2") != 0);
  __builtin_cpu_init();
  if (allowAvx512 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq"))
    return BandAnalysisAvx512();
  if (allowAvx2 && __builtin_cpu_supports("avx2")) return BandAnalysisAvx2();
  return BandAnalysisSse2();
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

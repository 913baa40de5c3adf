#include <cstdlib>
#include <cstring>

#include "Swli/detail/CentroidBlockKernel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

namespace {
void CentroidBlockSums8Plain(const CentroidBlockInput<std::uint8_t>& in, CentroidBlockSums& out) {
  CentroidBlockSumsPlain(in, out);
}
}  // namespace

CentroidBlockSums8Function SelectCentroidBlockSums8() {
  const char* cap = std::getenv("QUARN_SWLI_ISA");
  const bool allowAvx2 = !cap || std::strcmp(cap, "sse2") != 0;
  __builtin_cpu_init();
  if (allowAvx2 && __builtin_cpu_supports("avx2")) return &CentroidBlockSums8Avx2;
  return &CentroidBlockSums8Plain;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

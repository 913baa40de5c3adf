#include <cstdlib>
#include <cstring>

#include "Psi/detail/PsiBlockKernel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail {

PsiBlockFunction SelectPsiBlockFunction() {
  // QUARN_PSI_ISA=sse2|avx2 caps the choice (to compare the paths on one machine).
  const char* cap = std::getenv("QUARN_PSI_ISA");
  const bool allowAvx512 = !cap || std::strcmp(cap, "avx512") == 0;
  const bool allowAvx2 = allowAvx512 || std::strcmp(cap, "avx2") == 0;
  __builtin_cpu_init();
  if (allowAvx512 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
      __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl")) {
    return &ConvertBlockAvx512;
  }
  if (allowAvx2 && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return &ConvertBlockAvx2;
  return &ConvertBlockSse2;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail

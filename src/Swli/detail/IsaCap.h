#pragma once

#include <cstdlib>
#include <cstring>

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// The widest vector instructions the white-light kernels may choose. QUARN_SWLI_ISA=sse2 keeps them
// on the baseline and QUARN_SWLI_ISA=avx2 stops them below AVX-512, so that the tests reach every
// path on a machine that would pick the widest; each kernel still checks what the processor has.
struct IsaCap {
  bool avx2 = true;
  bool avx512 = true;
};

inline IsaCap ReadIsaCap() {
  const char* cap = std::getenv("QUARN_SWLI_ISA");
  IsaCap allowed;
  allowed.avx2 = !cap || std::strcmp(cap, "sse2") != 0;
  allowed.avx512 = allowed.avx2 && (!cap || std::strcmp(cap, "avx2") != 0);
  return allowed;
}

// Whether a kernel that needs AVX2 alone may run: allowed by the cap and present in the processor.
inline bool MayUseAvx2() {
  __builtin_cpu_init();
  return ReadIsaCap().avx2 && __builtin_cpu_supports("avx2");
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

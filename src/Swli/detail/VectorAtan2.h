#pragma once

#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// atan2(y[i], x[i]) for i < count, by SLEEF's 3.5-ulp vector kernels: eight at a time with AVX-512,
// four with AVX2 and FMA where the processor has them (QUARN_SWLI_ISA=avx2 or sse2 caps the choice),
// else two at a time.
// `count` must be a multiple of four; callers pad their arrays.
using VectorAtan2Function = void (*)(const double* y, const double* x, double* out, int count);

QUARN_PP_EXPORT void VectorAtan2Sse2(const double* y, const double* x, double* out, int count);
QUARN_PP_EXPORT void VectorAtan2Avx2(const double* y, const double* x, double* out, int count);
QUARN_PP_EXPORT void VectorAtan2Avx512(const double* y, const double* x, double* out, int count);

// The widest implementation this processor runs, chosen once.
QUARN_PP_EXPORT VectorAtan2Function SelectVectorAtan2();

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

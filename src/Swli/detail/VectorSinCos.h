#pragma once

#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// sin(x[i]) and cos(x[i]) for i < count, by SLEEF's 3.5-ulp vector kernels (what they feed, a sum of
// thousands of terms, rounds far more than that): eight at a time with AVX-512, four with AVX2 and
// FMA where the processor has them (QUARN_SWLI_ISA=avx2 or sse2 caps the choice), else two at a time.
// `count` must be a multiple of four; callers pad their arrays.
using VectorSinCosFunction = void (*)(const double* x, double* sine, double* cosine, int count);

QUARN_PP_EXPORT void VectorSinCosSse2(const double* x, double* sine, double* cosine, int count);
QUARN_PP_EXPORT void VectorSinCosAvx2(const double* x, double* sine, double* cosine, int count);
QUARN_PP_EXPORT void VectorSinCosAvx512(const double* x, double* sine, double* cosine, int count);

// The widest implementation this processor runs, chosen once.
QUARN_PP_EXPORT VectorSinCosFunction SelectVectorSinCos();

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

#pragma once

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// sin(x[i]) and cos(x[i]) for i < count, by SLEEF's 1-ulp vector kernels: four at a time with AVX2
// and FMA where the processor has them (QUARN_SWLI_ISA=sse2 caps the choice), else two at a time.
// `count` must be a multiple of four; callers pad their arrays.
using VectorSinCosFunction = void (*)(const double* x, double* sine, double* cosine, int count);

void VectorSinCosSse2(const double* x, double* sine, double* cosine, int count);
void VectorSinCosAvx2(const double* x, double* sine, double* cosine, int count);

// The widest implementation this processor runs, chosen once.
VectorSinCosFunction SelectVectorSinCos();

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

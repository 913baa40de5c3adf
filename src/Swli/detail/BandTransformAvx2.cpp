// The band transform's kernel compiled for AVX2 with FMA (each product added with one rounding); see
// BandTransform.h.
#include "Swli/detail/BandTransform.h"

#include <immintrin.h>

#include <cstring>

namespace {
#include "Swli/detail/BandTransformBody.inc"
}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

void BandBinsAvx2(const BandTransform& transform, const double* x, double* re, double* im,
                  std::ptrdiff_t stride) {
  BandBinsBody(transform, x, re, im, stride);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

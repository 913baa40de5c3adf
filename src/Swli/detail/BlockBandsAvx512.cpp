// The block band transform compiled for AVX-512 with FMA (each product added with one rounding, as the
// single-signal AVX2 kernel adds it), eight pixels a vector; see BlockBands.h.
#include "Swli/detail/BlockBands.h"

#include <immintrin.h>

#include <cstdint>
#include <cstring>

namespace {
#include "Swli/detail/BlockBandsBody.inc"
}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

bool BlockBandsAvx512(const BandTransform& transform, const BlockBandsJob& job) {
  return BlockBandsBody(transform, job);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

// The block band transform compiled for AVX2 with FMA (each product added with one rounding, as the
// single-signal AVX2 kernel adds it); see BlockBands.h.
#include "Swli/detail/BlockBands.h"

#include <immintrin.h>

#include <cstdint>
#include <cstring>

namespace {
#include "Swli/detail/BlockBandsBody.inc"
}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

bool BlockBandsAvx2(const BandTransform& transform, const BlockBandsJob& job) {
  return BlockBandsBody(transform, job);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

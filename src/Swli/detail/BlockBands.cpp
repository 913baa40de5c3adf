// The block band transform on the x86-64 baseline (SSE2), and the choice of implementation; see
// BlockBands.h.
#include "Swli/detail/BlockBands.h"
#include "Swli/detail/IsaCap.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {
#include "Swli/detail/BlockBandsBody.inc"
}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

bool BlockBandsSse2(const BandTransform& transform, const BlockBandsJob& job) {
  return BlockBandsBody(transform, job);
}

BlockBandsFunction SelectBlockBands() {
  // The single-signal kernel's choice decides whether products are fused: the lanes must match it.
  if (SelectBandBins() != &BandBinsAvx2) return &BlockBandsSse2;
  const bool allowAvx512 = ReadIsaCap().avx512;
  __builtin_cpu_init();
  if (allowAvx512 && __builtin_cpu_supports("avx512f")) return &BlockBandsAvx512;
  return &BlockBandsAvx2;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

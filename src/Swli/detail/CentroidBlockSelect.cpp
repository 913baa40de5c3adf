#include "Swli/detail/CentroidBlockKernel.h"
#include "Swli/detail/IsaCap.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

CentroidBlockSumsFunction<std::uint8_t> SelectCentroidBlockSums8() {
  return MayUseAvx2() ? &CentroidBlockSums8Avx2 : &CentroidBlockSumsPlain<std::uint8_t>;
}

CentroidBlockSumsFunction<std::uint16_t> SelectCentroidBlockSums16() {
  return MayUseAvx2() ? &CentroidBlockSums16Avx2 : &CentroidBlockSumsPlain<std::uint16_t>;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

#include "Swli/detail/CentroidBlockKernel.h"
#include "Swli/detail/IsaCap.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

namespace {
bool UseAvx2() {
  const bool allowAvx2 = ReadIsaCap().avx2;
  __builtin_cpu_init();
  return allowAvx2 && __builtin_cpu_supports("avx2");
}
}  // namespace

CentroidBlockSumsFunction<std::uint8_t> SelectCentroidBlockSums8() {
  return UseAvx2() ? &CentroidBlockSums8Avx2 : &CentroidBlockSumsPlain<std::uint8_t>;
}

CentroidBlockSumsFunction<std::uint16_t> SelectCentroidBlockSums16() {
  return UseAvx2() ? &CentroidBlockSums16Avx2 : &CentroidBlockSumsPlain<std::uint16_t>;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

#include "Analysis/Core/detail/FftwPlanning.h"

namespace Quarn::Metrology::Analysis::Core::detail {

std::mutex& FftwPlannerMutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace Quarn::Metrology::Analysis::Core::detail

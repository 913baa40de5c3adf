#include "Analysis/Core/detail/FftwPlanning.h"

#include <atomic>

namespace Quarn::Metrology::Analysis::Core::detail {

namespace {
std::atomic<std::int64_t> planSetsMade{0};
}  // namespace

std::mutex& FftwPlannerMutex() {
  static std::mutex mutex;
  return mutex;
}

std::int64_t FftwPlanSetsMade() {
  return planSetsMade.load();
}

void CountFftwPlanSet() {
  ++planSetsMade;
}

}  // namespace Quarn::Metrology::Analysis::Core::detail

#include "Analysis/Core/Threading/CpuCounter.h"

#include <cstdlib>
#include <thread>

namespace Quarn::Metrology::Analysis::Core::Threading {

CpuCounter::CpuCounter() {
  const unsigned hardware = std::thread::hardware_concurrency();
  processors_ = hardware > 0 ? static_cast<int>(hardware) : 1;
  if (const char* env = std::getenv("QUARN_NUM_PROCESSORS")) {
    const long requested = std::strtol(env, nullptr, 10);
    if (requested > 0 && requested <= 4096) processors_ = static_cast<int>(requested);
  }
}

CpuCounter& CpuCounter::Instance() {
  static CpuCounter counter;
  return counter;
}

}  // namespace Quarn::Metrology::Analysis::Core::Threading

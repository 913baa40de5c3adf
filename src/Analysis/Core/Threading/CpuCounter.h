#pragma once

#include "Analysis/Core/QuarnCoreExport.h"

namespace Quarn::Metrology::Analysis::Core::Threading {

// CpuCounter
//
// The host's processor count, which sizes "one worker per processor". Taken once from the
// hardware; the environment variable QUARN_NUM_PROCESSORS (a positive integer) overrides it, so a
// host or a test can pin the count.
class QUARN_CORE_EXPORT CpuCounter {
 public:
  static CpuCounter& Instance();
  int GetNumberOfProcessors() const { return processors_; }

 private:
  CpuCounter();
  int processors_ = 1;
};

}  // namespace Quarn::Metrology::Analysis::Core::Threading

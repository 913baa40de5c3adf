#pragma once

#include <condition_variable>
#include <mutex>

#include "Analysis/Core/QuarnCoreExport.h"

namespace Quarn::Metrology::Analysis::Core::Threading {

// ManualEvent
//
// A manual-reset event: once `Set`, every `Wait` returns at once until `Reset`. The dispatcher
// gives each worker one and waits for all of them after queuing the work.
class QUARN_CORE_EXPORT ManualEvent {
 public:
  explicit ManualEvent(bool initiallySet = false) : set_(initiallySet) {}
  ManualEvent(const ManualEvent&) = delete;
  ManualEvent& operator=(const ManualEvent&) = delete;

  void Set();
  void Reset();
  void Wait();
  bool IsSet();

  // Waits for every event of the array (the wait-all of the dispatcher, infinite timeout).
  static void WaitAll(ManualEvent* const* events, int count);

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool set_;
};

}  // namespace Quarn::Metrology::Analysis::Core::Threading

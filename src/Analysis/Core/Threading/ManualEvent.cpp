#include "Analysis/Core/Threading/ManualEvent.h"

namespace Quarn::Metrology::Analysis::Core::Threading {

void ManualEvent::Set() {
  // Notified under the lock: a waiter can only return, and then destroy the event, after this call
  // has released the mutex, never while it is still inside notify_all.
  std::lock_guard<std::mutex> lock(mutex_);
  set_ = true;
  changed_.notify_all();
}

void ManualEvent::Reset() {
  std::lock_guard<std::mutex> lock(mutex_);
  set_ = false;
}

void ManualEvent::Wait() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return set_; });
}

bool ManualEvent::IsSet() {
  std::lock_guard<std::mutex> lock(mutex_);
  return set_;
}

void ManualEvent::WaitAll(ManualEvent* const* events, int count) {
  // Waiting on each in turn is a wait-all: a manual-reset event stays set once set.
  for (int i = 0; i < count; ++i)
    events[i]->Wait();
}

}  // namespace Quarn::Metrology::Analysis::Core::Threading

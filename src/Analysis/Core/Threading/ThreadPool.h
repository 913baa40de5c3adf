#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "Analysis/Core/QuarnCoreExport.h"

namespace Quarn::Metrology::Analysis::Core::Threading {

// Delegate
//
// A work item of the pool: `Run` is called once, on one pool thread, for each time it is queued.
class QUARN_CORE_EXPORT Delegate {
 public:
  virtual ~Delegate();
  virtual void Run() = 0;
};

// ThreadPool
//
// A fixed set of worker threads that run queued delegates in queue order. Users attach with
// `Enable` and detach with `Disable`; the threads start with the first user (or the first `Queue`)
// and, for pools other than the global one, stop when the last user detaches. The global pool
// (`GetGlobalPool`, one thread per processor) lives until the process ends.
//
// The pool neither waits for nor reports on the work: a delegate signals its own completion (the
// dispatcher gives each one an event). Delegates must not wait for other queued delegates.
//
// Lifetime: a pool must outlive every dispatcher attached to it (a dispatcher detaches in its
// destructor, and its queued delegates run on the pool's threads); destroying a pool that still has
// users is undefined. The global pool is never destroyed before the process ends.
//
// Re-entrance: a work function running on a pool thread that calls `Invoke` (with more than one
// worker) on a dispatcher attached to the same pool blocks that thread until its new chunks have
// run on the same pool. When every pool thread is blocked that way nothing is left to run them and
// the process deadlocks, so nested parallel work must use another pool or a single worker (which
// runs in the calling thread).
class QUARN_CORE_EXPORT ThreadPool {
 public:
  // numberOfThreads <= 0: one thread per processor (`CpuCounter`).
  explicit ThreadPool(int numberOfThreads = -1);
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;
  ~ThreadPool();

  static ThreadPool* GetGlobalPool();

  void Enable();
  void Disable();
  int GetNumberOfUsers();
  int GetNumberOfThreads() const { return numberOfThreads_; }

  // Queues `count` delegates; each is run exactly once.
  void Queue(Delegate* const* delegates, int count);

 private:
  void StartLocked();
  void StopAndJoin();
  void WorkerLoop(std::uint64_t epoch);

  const int numberOfThreads_;
  bool global_ = false;
  std::mutex mutex_;
  std::condition_variable workAvailable_;
  std::deque<Delegate*> queue_;
  std::vector<std::thread> threads_;
  int users_ = 0;
  std::uint64_t epoch_ = 0;
};

}  // namespace Quarn::Metrology::Analysis::Core::Threading

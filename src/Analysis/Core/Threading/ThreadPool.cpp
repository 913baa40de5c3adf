#include "Analysis/Core/Threading/ThreadPool.h"

#include "Analysis/Core/Threading/CpuCounter.h"

namespace Quarn::Metrology::Analysis::Core::Threading {

Delegate::~Delegate() = default;

ThreadPool::ThreadPool(int numberOfThreads)
    : numberOfThreads_(numberOfThreads > 0 ? numberOfThreads
                                           : CpuCounter::Instance().GetNumberOfProcessors()) {}

ThreadPool::~ThreadPool() {
  StopAndJoin();
}

ThreadPool* ThreadPool::GetGlobalPool() {
  // Deliberately never destroyed: dispatchers held in static objects may detach from it during
  // static destruction, and its idle threads simply end with the process.
  static ThreadPool* const pool = [] {
    auto* created = new ThreadPool(-1);
    created->global_ = true;
    return created;
  }();
  return pool;
}

void ThreadPool::Enable() {
  std::lock_guard<std::mutex> lock(mutex_);
  ++users_;
  StartLocked();
}

void ThreadPool::Disable() {
  bool stop = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (users_ > 0) --users_;
    stop = users_ == 0 && !global_ && queue_.empty();
  }
  if (stop) StopAndJoin();
}

int ThreadPool::GetNumberOfUsers() {
  std::lock_guard<std::mutex> lock(mutex_);
  return users_;
}

void ThreadPool::Queue(Delegate* const* delegates, int count) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    StartLocked();
    for (int i = 0; i < count; ++i)
      queue_.push_back(delegates[i]);
  }
  workAvailable_.notify_all();
}

void ThreadPool::StartLocked() {
  if (!threads_.empty()) return;
  threads_.reserve(static_cast<std::size_t>(numberOfThreads_));
  const std::uint64_t epoch = epoch_;
  for (int i = 0; i < numberOfThreads_; ++i)
    threads_.emplace_back([this, epoch] { WorkerLoop(epoch); });
}

void ThreadPool::StopAndJoin() {
  std::vector<std::thread> joining;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    // Threads of the ending epoch leave once the queue is empty; a later start makes new ones.
    ++epoch_;
    joining.swap(threads_);
  }
  workAvailable_.notify_all();
  for (std::thread& thread : joining)
    thread.join();
}

void ThreadPool::WorkerLoop(std::uint64_t epoch) {
  for (;;) {
    Delegate* next = nullptr;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      workAvailable_.wait(lock, [this, epoch] { return epoch_ != epoch || !queue_.empty(); });
      // Work already queued is finished before a stop, so no waiter is left hanging.
      if (queue_.empty()) return;
      next = queue_.front();
      queue_.pop_front();
    }
    next->Run();
  }
}

}  // namespace Quarn::Metrology::Analysis::Core::Threading

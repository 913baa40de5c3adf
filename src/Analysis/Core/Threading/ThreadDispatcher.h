#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "Analysis/Core/Status.h"
#include "Analysis/Core/Threading/CpuCounter.h"
#include "Analysis/Core/Threading/ManualEvent.h"
#include "Analysis/Core/Threading/ThreadDispatcherDelegate.h"
#include "Analysis/Core/Threading/ThreadPool.h"

namespace Quarn::Metrology::Analysis::Core::Threading {

// ThreadDispatcher<T>
//
// Runs one member function of an algorithm object of class T over an index range (pixels or rows)
// cut into contiguous chunks, one per worker, on the threads of a pool, and blocks until every
// chunk has ended. Every multi-threaded algorithm embeds one, with itself as the object.
//
// Chunking: a range of n = end - first with W workers gives worker i the elements
// [first + floor(i n / W), first + floor((i + 1) n / W)), so chunks differ by at most one element
// and worker i always gets the i-th block (a range of 10 over 4 workers: 0-2, 2-5, 5-7, 7-10).
//
// The number of threads is the capacity (delegates allocated); the number of workers is how many
// the next `Invoke` uses. A range shorter than the number of workers lowers the number of workers
// to the range length, and that lower number stays for later calls until it is set again.
//
// Failures: with more than one worker an empty or negative range sets code 21 in the dispatcher's
// own status and runs nothing. After the chunks end, the status of the first failing worker (in
// worker order) is thrown as a `Status`; the caller catches it at its public boundary.
//
// The pool must outlive the dispatcher, and a work function must not `Invoke` another dispatcher
// on the same pool with several workers: see `ThreadPool` on lifetime and re-entrance.
//
//   class Smoother {
//     ThreadDispatcher<Smoother> dispatcher_{this};
//     void Rows(int thread, int first, int end);  // touches rows [first, end) and scratch[thread]
//    public:
//     void Run(int rows) { dispatcher_.Invoke(&Smoother::Rows, 0, rows); }
//   };
template <typename T>
class ThreadDispatcher {
 public:
  using Worker = ThreadDispatcherDelegate<T>;
  using RangeFunction = typename Worker::RangeFunction;
  using ThreadRangeFunction = typename Worker::ThreadRangeFunction;
  using DataThreadRangeFunction = typename Worker::DataThreadRangeFunction;

  // numberOfThreads = -1: one per processor. pool = null: the global pool.
  explicit ThreadDispatcher(T* object, ThreadPool* pool = nullptr, int numberOfThreads = -1, int priority = 0)
      : object_(object), threadPriority_(priority) {
    const int processors = CpuCounter::Instance().GetNumberOfProcessors();
    numberOfThreads_ = numberOfThreads < 0 ? processors : std::max(1, numberOfThreads);
    numberOfWorkers_ = std::max(1, std::min(processors, numberOfThreads_));
    AllocateDelegates();
    SetPool(pool ? pool : ThreadPool::GetGlobalPool());
  }

  // A copy has its own delegates and events for the same object, pool and counts; an owner that is
  // copied points its copy at itself with `SetObject`.
  ThreadDispatcher(const ThreadDispatcher& other)
      : object_(other.object_),
        numberOfThreads_(other.numberOfThreads_),
        numberOfWorkers_(other.numberOfWorkers_),
        threadPriority_(other.threadPriority_) {
    AllocateDelegates();
    SetPool(other.pool_);
  }
  ThreadDispatcher& operator=(const ThreadDispatcher& other) {
    if (this == &other) return *this;
    object_ = other.object_;
    numberOfThreads_ = other.numberOfThreads_;
    numberOfWorkers_ = other.numberOfWorkers_;
    threadPriority_ = other.threadPriority_;
    AllocateDelegates();
    SetPool(other.pool_);
    return *this;
  }
  virtual ~ThreadDispatcher() { SetPool(nullptr); }

  void SetObject(T* object) {
    object_ = object;
    for (auto& worker : delegates_)
      worker->SetObject(object);
  }
  T* GetObject() const { return object_; }

  void SetPool(ThreadPool* pool) {
    if (pool_ == pool) return;
    if (pool_) pool_->Disable();
    pool_ = pool;
    if (pool_) pool_->Enable();
  }
  ThreadPool* GetPool() const { return pool_; }

  // n <= 0 gives 1; otherwise at most the number of threads.
  void SetNumberOfWorkers(int n) { numberOfWorkers_ = n <= 0 ? 1 : std::min(n, numberOfThreads_); }
  void ResetNumberOfWorkers() { numberOfWorkers_ = std::max(1, numberOfThreads_); }
  int GetNumberOfWorkers() const { return numberOfWorkers_; }
  int GetNumberOfThreads() const { return numberOfThreads_; }

  int GetThreadPriority() const { return threadPriority_; }
  void SetThreadPriority(int priority) { threadPriority_ = priority; }

  Status& GetStatus() { return status_; }
  const Status& GetStatus() const { return status_; }

  // The status a work function writes to report the failure of its chunk.
  Status& GetDelegateStatus(int thread) { return delegates_[static_cast<std::size_t>(thread)]->GetStatus(); }

  void Invoke(RangeFunction f, int first, int end) {
    Dispatch(first, end, [f](Worker& worker, int a, int b) { worker.Prepare(f, a, b); });
  }
  void Invoke(ThreadRangeFunction f, int first, int end) {
    Dispatch(first, end, [f](Worker& worker, int a, int b) { worker.Prepare(f, a, b); });
  }
  void Invoke(DataThreadRangeFunction f, void* data, int first, int end) {
    Dispatch(first, end, [f, data](Worker& worker, int a, int b) { worker.Prepare(f, data, a, b); });
  }

 private:
  static constexpr const char* kSource = "Analysis\\Core/Threading/ThreadDispatcher";

  void AllocateDelegates() {
    delegates_.clear();
    events_.clear();
    queued_.clear();
    for (int i = 0; i < numberOfThreads_; ++i) {
      delegates_.push_back(std::make_unique<Worker>(object_, i));
      events_.push_back(&delegates_.back()->GetEvent());
      queued_.push_back(delegates_.back().get());
    }
  }

  template <typename PrepareFn>
  void Dispatch(int first, int end, PrepareFn prepare) {
    if (numberOfWorkers_ == 1) {
      Worker& only = *delegates_[0];
      prepare(only, first, end);
      only.Run();
      if (only.GetStatus().IsError()) throw Status(only.GetStatus());
      return;
    }
    const std::int64_t n = static_cast<std::int64_t>(end) - first;
    if (n < 1) {
      status_ = Status(0, StatusCode::kNotSet, __LINE__, kSource, "");
      return;
    }
    const int workers = static_cast<int>(
        std::clamp<std::int64_t>(std::min<std::int64_t>(numberOfWorkers_, n), 1, numberOfThreads_));
    numberOfWorkers_ = workers;  // deliberately persistent, see the class comment
    for (int i = 0; i < workers; ++i) {
      const int chunkFirst = first + static_cast<int>(i * n / workers);
      const int chunkEnd = i == workers - 1 ? end : first + static_cast<int>((i + 1) * n / workers);
      prepare(*delegates_[static_cast<std::size_t>(i)], chunkFirst, chunkEnd);
    }
    if (pool_) {
      pool_->Queue(queued_.data(), workers);
      ManualEvent::WaitAll(events_.data(), workers);
    } else {
      // Detached from every pool: the chunks still run, one after the other on this thread.
      for (int i = 0; i < workers; ++i)
        queued_[static_cast<std::size_t>(i)]->Run();
    }
    for (int i = 0; i < workers; ++i) {
      const Status& chunkStatus = delegates_[static_cast<std::size_t>(i)]->GetStatus();
      if (chunkStatus.IsError()) throw Status(chunkStatus);
    }
  }

  Status status_{__LINE__, kSource};
  ThreadPool* pool_ = nullptr;
  T* object_;
  int numberOfThreads_ = 1;
  int numberOfWorkers_ = 1;
  int threadPriority_ = 0;
  std::vector<ManualEvent*> events_;
  std::vector<std::unique_ptr<Worker>> delegates_;
  std::vector<Delegate*> queued_;  // the same delegates, as the pool takes them
};

}  // namespace Quarn::Metrology::Analysis::Core::Threading

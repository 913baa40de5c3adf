#pragma once

#include <memory>

#include "Analysis/Core/Status.h"
#include "Analysis/Core/Threading/ManualEvent.h"
#include "Analysis/Core/Threading/ThreadPool.h"

namespace Quarn::Metrology::Analysis::Core::Threading {

// ThreadDispatcherDelegate<T>
//
// One worker of a `ThreadDispatcher<T>`: a pool work item that calls one member function of the
// algorithm object over its chunk [first, end) and then sets its event. At most one of the three
// member-function shapes is set per run:
//   f(first, end)                 plain range,
//   f(thread, first, end)         with the worker's index (for per-thread scratch),
//   f(data, thread, first, end)   with a caller pointer as well.
//
// A work function reports failure by writing this delegate's status (the dispatcher hands it out
// by thread index). An exception that escapes the work function is caught here so that it never
// unwinds a pool thread: a thrown `Status` is kept as it is, anything else becomes code 6
// "Unhandled exception".
template <typename T>
class ThreadDispatcherDelegate : public Delegate {
 public:
  using RangeFunction = void (T::*)(int first, int end);
  using ThreadRangeFunction = void (T::*)(int thread, int first, int end);
  using DataThreadRangeFunction = void (T::*)(void* data, int thread, int first, int end);

  ThreadDispatcherDelegate(T* object, int threadIndex) : object_(object), threadIndex_(threadIndex) {}

  void Run() override {
    status_.ClearError();
    try {
      if (object_) {
        if (rangeFunction_) {
          (object_->*rangeFunction_)(first_, end_);
        } else if (threadRangeFunction_) {
          (object_->*threadRangeFunction_)(threadIndex_, first_, end_);
        } else if (dataThreadRangeFunction_) {
          (object_->*dataThreadRangeFunction_)(data_, threadIndex_, first_, end_);
        }
      }
    } catch (const Status& thrown) {
      status_ = thrown;
    } catch (...) {
      status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Unhandled exception");
    }
    done_.Set();
  }

  void Prepare(RangeFunction f, int first, int end) {
    SetRange(first, end);
    rangeFunction_ = f;
  }
  void Prepare(ThreadRangeFunction f, int first, int end) {
    SetRange(first, end);
    threadRangeFunction_ = f;
  }
  void Prepare(DataThreadRangeFunction f, void* data, int first, int end) {
    SetRange(first, end);
    dataThreadRangeFunction_ = f;
    data_ = data;
  }

  void SetObject(T* object) { object_ = object; }
  int GetThreadIndex() const { return threadIndex_; }
  int GetFirst() const { return first_; }
  int GetEnd() const { return end_; }
  ManualEvent& GetEvent() { return done_; }
  Status& GetStatus() { return status_; }

 private:
  static constexpr const char* kSource = "analysis\\core\\threading\\ThreadDispatcherDelegate";

  void SetRange(int first, int end) {
    done_.Reset();
    rangeFunction_ = nullptr;
    threadRangeFunction_ = nullptr;
    dataThreadRangeFunction_ = nullptr;
    data_ = nullptr;
    first_ = first;
    end_ = end;
  }

  T* object_;
  int threadIndex_;
  Status status_{__LINE__, kSource};
  RangeFunction rangeFunction_ = nullptr;
  ThreadRangeFunction threadRangeFunction_ = nullptr;
  DataThreadRangeFunction dataThreadRangeFunction_ = nullptr;
  void* data_ = nullptr;
  int first_ = 0;
  int end_ = 0;
  ManualEvent done_;
};

}  // namespace Quarn::Metrology::Analysis::Core::Threading

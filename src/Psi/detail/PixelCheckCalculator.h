#pragma once

#include <algorithm>

#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Analysis/Core/Status.h"
#include "Analysis/Core/Threading/CpuCounter.h"
#include "Analysis/Core/Threading/ThreadDispatcher.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail {

// PixelCheckCalculator
//
// The common body of the two phase-shifter checks, `CorvaneCalculator` (a map of step values) and
// `GainCorrectionCalculator` (one gain number): an algorithm run over the pixels of a frame buffer
// chosen by a scan period and an optional region mask, on the workers of a dispatcher of the
// calculator's own type, with the settings, the copy semantics and the thread count those two
// classes offer. `Derived` names its status source as `Derived::kSource`; its `Calculate` calls
// `Run` (defined in Psi/detail/PixelCheckRun.h, where the calculators' sources include it) with
// its per-range work function and the setup of its algorithm.
template <typename Derived, typename Algorithm>
class PixelCheckCalculator {
 public:
  void SetAlgorithm(Algorithm* algorithm) { algorithm_ = algorithm; }
  Algorithm* GetAlgorithm() const { return algorithm_; }
  void SetMinimumModulation(double percent) { minimumModulation_ = percent; }
  double GetMinimumModulation() const { return minimumModulation_; }
  void SetScanPeriod(int period) { scanPeriod_ = period; }
  int GetScanPeriod() const { return scanPeriod_; }
  void SetAllowMultipleThreads(bool allow) { allowMultipleThreads_ = allow; }
  bool GetAllowMultipleThreads() const { return allowMultipleThreads_; }

  // The number of workers a run with multiple threads uses: n <= 0 gives 1, otherwise n but at most
  // one per processor (the default). The dispatcher is rebuilt with that many threads, so that a
  // run, which resets its workers to the number of threads, uses exactly this many; the getter
  // returns the dispatcher's number of workers.
  void SetNumberOfThreads(int n) {
    const int processors = Analysis::Core::Threading::CpuCounter::Instance().GetNumberOfProcessors();
    const int threads = n <= 0 ? 1 : std::min(n, std::max(1, processors));
    dispatcher_ = Analysis::Core::Threading::ThreadDispatcher<Derived>(Self(), dispatcher_.GetPool(), threads,
                                                                       dispatcher_.GetThreadPriority());
  }
  int GetNumberOfThreads() const { return dispatcher_.GetNumberOfWorkers(); }

  Analysis::Core::Status& GetStatus() { return status_; }

 protected:
  PixelCheckCalculator() : dispatcher_(Self(), nullptr, -1, 0), status_(__LINE__, Derived::kSource) {}
  // A copy takes the settings, the dispatcher (working for the copy) and the status, not the frame
  // buffer and mask of a run.
  PixelCheckCalculator(const PixelCheckCalculator& other)
      : algorithm_(other.algorithm_),
        minimumModulation_(other.minimumModulation_),
        scanPeriod_(other.scanPeriod_),
        allowMultipleThreads_(other.allowMultipleThreads_),
        dispatcher_(other.dispatcher_),
        status_(other.status_) {
    dispatcher_.SetObject(Self());
  }
  PixelCheckCalculator& operator=(const PixelCheckCalculator& other) {
    if (this == &other) return *this;
    algorithm_ = other.algorithm_;
    minimumModulation_ = other.minimumModulation_;
    scanPeriod_ = other.scanPeriod_;
    allowMultipleThreads_ = other.allowMultipleThreads_;
    dispatcher_ = other.dispatcher_;
    dispatcher_.SetObject(Self());
    status_ = other.status_;
    return *this;
  }
  ~PixelCheckCalculator() = default;

  // One guarded run over `frames`: code 6 without an algorithm, else `prepare(workers)` sets the
  // algorithm up and `work` walks each range. True when the algorithm's `PostProcess` ran.
  template <typename Prepare>
  bool Run(Analysis::Core::FrameBuffer& frames, Analysis::Core::RegionIdMatrix2D* regions,
           void (Derived::*work)(void*, int, int, int), Prepare&& prepare);

  Derived* Self() { return static_cast<Derived*>(this); }

  Algorithm* algorithm_ = nullptr;
  double minimumModulation_ = 15.0;  // percent of the saturation level
  int scanPeriod_ = 1;
  bool allowMultipleThreads_ = true;
  Analysis::Core::FrameBuffer* frameBuffer_ = nullptr;
  Analysis::Core::RegionIdMatrix2D* regionMask_ = nullptr;
  Analysis::Core::Threading::ThreadDispatcher<Derived> dispatcher_;
  Analysis::Core::Status status_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail

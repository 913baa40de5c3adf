#pragma once

#include <algorithm>
#include <string>

#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Analysis/Core/Status.h"
#include "Analysis/Core/Threading/CpuCounter.h"
#include "Analysis/Core/Threading/ThreadDispatcher.h"
#include "Psi/detail/PixelWalk.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail {

// What `CorvaneCalculator` and `GainCorrectionCalculator` share: the thread count, the guarded run
// and the run itself, which differ only in how the algorithm is set up and called per pixel.

// The thread count of a calculator: n <= 0 gives 1, otherwise n but at most one per processor. The
// dispatcher is rebuilt with that many threads, so that a run, which resets its workers to the
// number of threads, uses exactly this many; its number of workers is then what the calculator's
// `GetNumberOfThreads` reports.
template <typename Owner>
void SetCalculatorThreads(Analysis::Core::Threading::ThreadDispatcher<Owner>& dispatcher, Owner* owner,
                          int n) {
  const int processors = Analysis::Core::Threading::CpuCounter::Instance().GetNumberOfProcessors();
  const int threads = n <= 0 ? 1 : std::min(n, std::max(1, processors));
  dispatcher = Analysis::Core::Threading::ThreadDispatcher<Owner>(owner, dispatcher.GetPool(), threads,
                                                                  dispatcher.GetThreadPriority());
}

// Runs `body` so that nothing escapes a calculator's public call: a worker's failure, thrown as a
// `Status` by the dispatcher, becomes the calculator's status as it is, anything else code 6
// "Unhandled exception".
template <typename Body>
void RunGuarded(Analysis::Core::Status& status, const char* source, Body&& body) {
  try {
    body();
  } catch (const Analysis::Core::Status& thrown) {
    status = thrown;
  } catch (...) {
    status = Analysis::Core::Status(0, Analysis::Core::StatusCode::kCallFailed, __LINE__, source,
                                    "Unhandled exception");
  }
}

// A calculator's settings that shape a run.
struct PixelCheckSettings {
  const char* source;  // the calculator's status source
  int scanPeriod;
  bool allowMultipleThreads;
};

// One run of `algorithm` over the pixels of `frames` chosen by the scan period and the region mask:
//  1. a scan period below 1 is refused with code 20 (it would never advance);
//  2. workers: all of the dispatcher's threads when multiple threads are allowed, otherwise one;
//  3. `prepare(workers)` hands the algorithm its frame buffer, output and settings and calls its
//     `Intialize(workers)`;
//  4. scratch for every worker in the frame buffer, the walk of the mask's case, and the dispatch of
//     `work` (the calculator's member that walks one range, given the walk as its data);
//  5. the algorithm's `PostProcess`.
// The first failure (of the algorithm, the frame buffer, the mask windows or the dispatcher) is
// copied into `status` and ends the run. Returns true when `PostProcess` ran, whether it then found a
// result or not.
template <typename Owner, typename Algorithm, typename Prepare>
bool RunPixelCheck(Analysis::Core::Status& status, const PixelCheckSettings& settings,
                   Analysis::Core::Threading::ThreadDispatcher<Owner>& dispatcher,
                   void (Owner::*work)(void*, int, int, int), Algorithm& algorithm,
                   Analysis::Core::FrameBuffer& frames, const Analysis::Core::RegionIdMatrix2D* regions,
                   Prepare&& prepare) {
  using Analysis::Core::CopyIfFailed;
  if (settings.scanPeriod < 1) {
    status = Analysis::Core::Status(
        0, Analysis::Core::StatusCode::kArgumentOutOfRange, __LINE__, settings.source,
        "The scan period must be at least 1, it is " + std::to_string(settings.scanPeriod));
    return false;
  }
  if (settings.allowMultipleThreads) {
    dispatcher.ResetNumberOfWorkers();
  } else {
    dispatcher.SetNumberOfWorkers(1);
  }
  const int workers = dispatcher.GetNumberOfWorkers();

  prepare(workers);
  if (CopyIfFailed(status, algorithm.GetStatus())) return false;
  // Every worker, the calling thread's included, gathers samples into its own scratch slot.
  if (CopyIfFailed(status, frames.MakeThreadData(workers))) return false;
  PixelWalk walk;
  if (CopyIfFailed(status, walk.Prepare(frames.GetAllocatedWindow(), regions, settings.scanPeriod)))
    return false;

  dispatcher.GetStatus().ClearError();
  dispatcher.Invoke(work, &walk, 0, frames.GetPixelCount());
  if (CopyIfFailed(status, dispatcher.GetStatus())) return false;
  if (CopyIfFailed(status, algorithm.GetStatus())) return false;

  algorithm.PostProcess();
  CopyIfFailed(status, algorithm.GetStatus());
  return true;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail

#pragma once

#include <algorithm>
#include <string>

#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Analysis/Core/Status.h"
#include "Analysis/Core/Threading/ThreadDispatcher.h"
#include "Psi/detail/PixelCheckCalculator.h"
#include "Psi/detail/PixelWalk.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail {

// What `CorvaneCalculator` and `GainCorrectionCalculator` share beyond their base
// `PixelCheckCalculator`: the guarded run, the run itself and the per-range visit, which differ
// only in how the algorithm is set up and called per pixel.

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

template <typename Derived, typename Algorithm>
template <typename Prepare>
bool PixelCheckCalculator<Derived, Algorithm>::Run(Analysis::Core::FrameBuffer& frames,
                                                   Analysis::Core::RegionIdMatrix2D* regions,
                                                   void (Derived::*work)(void*, int, int, int),
                                                   Prepare&& prepare) {
  bool postProcessed = false;
  RunGuarded(status_, Derived::kSource, [&] {
    if (!algorithm_) {
      status_ =
          Analysis::Core::Status(0, Analysis::Core::StatusCode::kCallFailed, __LINE__, Derived::kSource, "");
      return;
    }
    frameBuffer_ = &frames;
    regionMask_ = regions;
    postProcessed = RunPixelCheck(status_, {Derived::kSource, scanPeriod_, allowMultipleThreads_},
                                  dispatcher_, work, *algorithm_, frames, regions, prepare);
  });
  return postProcessed;
}

// The work of one range: each pixel of [first, end) that `walk` selects, with its samples, handed to
// `visit(algorithm, pixel, samples)`. The algorithm is passed as the first of the built-in `Finals`
// it is (final classes, so that the per-pixel call binds statically), decided once per range, and
// as its base class otherwise.
template <typename... Finals, typename Algorithm, typename Visit>
void VisitPixels(Algorithm& algorithm, const PixelWalk& walk, Analysis::Core::FrameBuffer& frames, int thread,
                 int first, int end, Visit&& visit) {
  const auto process = [&](auto& typed) {
    walk.ForEachSamples(frames, thread, first, end,
                        [&](int p, const auto* samples) { visit(typed, p, samples); });
  };
  const bool builtIn = ([&] {
    if (auto* typed = dynamic_cast<Finals*>(&algorithm)) {
      process(*typed);
      return true;
    }
    return false;
  }() || ...);
  if (!builtIn) process(algorithm);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail

#pragma once

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Psi/CorvaneAlgorithm.h"
#include "Psi/detail/PixelCheckCalculator.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

// CorvaneCalculator
//
// Checks the phase shifter of a phase-shifting interferometer: runs one `CorvaneAlgorithm`
// (`Corvane7` for 7-frame stacks, `Corvane13` for 13-frame stacks) over the pixels of a
// `FrameBuffer` and fills a map of step values 256 cos(alpha), alpha being the phase step the
// shifter really made at each pixel (between frames for `Corvane7`, between frame pairs for
// `Corvane13`). At the nominal quarter-period step the values scatter around 0; a shifter that
// moves too far gives negative values, one that moves too little positive ones.
//
// Which pixels are evaluated:
//   - the scan period N (default 1) takes every N-th pixel of each worker's chunk of the frame
//     window in row-major order, first, first + N, ... (0, N, 2N, ... with one thread);
//   - a region mask (optional, a `RegionIdMatrix2D` in camera coordinates) restricts them to the
//     pixels where the mask holds a valid region id; a mask of another window than the frame
//     buffer's counts only where the two windows overlap.
// Pixels that are not evaluated are not written: fill the map beforehand (for example with
// `DoubleMatrix2D::NoData()`) when it matters. The map must hold one element per pixel of the frame
// window (row-major); evaluated pixels get their step value or no data (the largest finite double).
//
// The minimum modulation is in percent of the frame buffer's saturation level (default 15 %).
//
// Status (not reset by `Calculate`: an earlier failure stays until a later one overwrites it):
// code 6 with source "Psi\CorvaneCalculator" without an algorithm; the algorithm's code 6 for a
// missing frame buffer or a frame count it cannot use; code 20 for a scan period below 1; code 1
// (from the algorithm) when no evaluated pixel was valid; a failure of a worker, of the frame
// buffer's scratch or of the mask windows is copied as it is. Anything thrown inside becomes code 6
// "Unhandled exception".
//
// Threads: pixel ranges are spread over the workers of the embedded dispatcher (one per processor
// by default, `SetNumberOfThreads` to choose); each worker counts into its own record. Every
// evaluated pixel gets the same value whatever the thread count; with a scan period above 1 the
// stride grid starts at each worker's first pixel, so which pixels are sampled depends on it.
//
//   FrameBuffer frames;                          // 7 frames, a quarter period apart
//   DoubleMatrix2D steps(frames.GetRows(), frames.GetColumns());
//   steps.SetAll(DoubleMatrix2D::NoData());
//   Corvane7 algorithm;
//   CorvaneCalculator calculator;
//   calculator.SetAlgorithm(&algorithm);
//   calculator.Calculate(frames, steps);        // steps(r, c) = 256 cos(step at (r, c))
//
// The settings (`SetAlgorithm`, `SetMinimumModulation`, `SetScanPeriod`, `SetAllowMultipleThreads`,
// `SetNumberOfThreads` and their getters) and `GetStatus` are those of `detail::PixelCheckCalculator`,
// which `GainCorrectionCalculator` shares.
class QUARN_PP_EXPORT CorvaneCalculator
    : public detail::PixelCheckCalculator<CorvaneCalculator, CorvaneAlgorithm> {
 public:
  static constexpr const char* kSource = "Psi\\CorvaneCalculator";

  CorvaneCalculator();
  CorvaneCalculator(const CorvaneCalculator& other);
  CorvaneCalculator& operator=(const CorvaneCalculator& other);
  ~CorvaneCalculator();

  void Calculate(Analysis::Core::FrameBuffer& frames, Analysis::Core::DoubleMatrix2D& out);
  void Calculate(Analysis::Core::FrameBuffer& frames, Analysis::Core::RegionIdMatrix2D* regions,
                 Analysis::Core::DoubleMatrix2D& out);

 private:
  // The dispatcher's work function: the pixels of [first, end) that `walk` (a `detail::PixelWalk`)
  // selects, handed to the algorithm.
  void ProcessPixels(void* walk, int thread, int first, int end);
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

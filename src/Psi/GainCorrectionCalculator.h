#pragma once

#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Psi/GainCorrection.h"
#include "Psi/detail/PixelCheckCalculator.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

// GainCorrectionCalculator
//
// Estimates the gain error of a phase shifter from one stack of phase-shifted frames: runs one
// `GainCorrection` algorithm (`GainCorrectionPmi` for 7- and 13-frame stacks,
// `GainCorrectionSinPsi` for 20 frames or more) over the pixels of a `FrameBuffer` and returns the
// single number `GetGainCorrection()`: 0 for a calibrated shifter, its sign following the sign of
// the step error and its size growing with it (see the algorithms for the scale).
//
// Pixels are chosen as by `CorvaneCalculator`: every N-th pixel of each worker's chunk of the frame
// window in row-major order (scan period N, default 1; 0, N, 2N, ... with one thread), restricted to the
// valid pixels of an optional region mask in camera coordinates (only where its window overlaps the
// frame window). The minimum modulation is in percent of the saturation level (default 15 %).
//
// Status (not reset by `Calculate`: an earlier failure stays until a later one overwrites it):
// code 6 with source "Psi\GainCorrectionCalculator" without an algorithm; the algorithm's code 6
// for a missing frame buffer or a frame count it cannot use; code 20 for a scan period below 1;
// code 1 (from the algorithm) when no pixel contributed. A failure of a worker, of the frame
// buffer's scratch or of the mask windows is copied as it is; anything thrown inside becomes code 6
// "Unhandled exception". The gain correction is the no-data value (the largest finite double)
// after every run that did not produce one.
//
//   FrameBuffer frames;                          // 7 or 13 phase-shifted frames
//   GainCorrectionPmi algorithm;
//   GainCorrectionCalculator calculator;
//   calculator.SetAlgorithm(&algorithm);
//   calculator.Calculate(frames);
//   const double gain = calculator.GetGainCorrection();   // about -1.27 x relative step error
//
// The settings (`SetAlgorithm`, `SetMinimumModulation`, `SetScanPeriod`, `SetAllowMultipleThreads`,
// `SetNumberOfThreads` and their getters) and `GetStatus` are those of `detail::PixelCheckCalculator`,
// which `CorvaneCalculator` shares.
class QUARN_PP_EXPORT GainCorrectionCalculator
    : public detail::PixelCheckCalculator<GainCorrectionCalculator, GainCorrection> {
 public:
  static constexpr const char* kSource = "Psi\\GainCorrectionCalculator";

  GainCorrectionCalculator();
  GainCorrectionCalculator(const GainCorrectionCalculator& other);
  GainCorrectionCalculator& operator=(const GainCorrectionCalculator& other);
  ~GainCorrectionCalculator();

  void Calculate(Analysis::Core::FrameBuffer& frames);
  void Calculate(Analysis::Core::FrameBuffer& frames, Analysis::Core::RegionIdMatrix2D* regions);
  double GetGainCorrection() const { return gainCorrection_; }

 private:
  // The dispatcher's work function: the pixels of [first, end) that `walk` (a `detail::PixelWalk`)
  // selects, handed to the algorithm.
  void ProcessPixels(void* walk, int thread, int first, int end);

  double gainCorrection_ = 0.0;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

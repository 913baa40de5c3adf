#pragma once

#include "Psi/CorvaneAlgorithm.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

// Corvane7
//
// Phase-step check of a 7-frame stack (frames nominally a quarter period apart): per pixel the
// step value 256 cos(alpha) of the step alpha between consecutive frames, from the first five
// frames.
//
// Per pixel, with the samples I0..I6 (differences formed in integers, then one double division):
//   - any sample at or above the saturation level (`GetMaxValue()`)               -> no data;
//   - modulation |I0 - I2| + |I1 - I3| not above saturation level x minimum % / 100 -> no data;
//   - a = I1 - I2, b = I2 - I3; the larger of the two is the denominator, which keeps the ratio
//     well conditioned whatever the surface phase: |b| < |a| gives r = (I0 - I3) / a, otherwise
//     r = (I1 - I4) / b;
//   - a zero denominator or r outside [-1, 3] (no cosine can give it)            -> no data;
//   - otherwise out[pixel] = 128 r - 128 = 256 cos(alpha), and the thread's counter counts it.
// Example: samples 100, 200, 100, 0, 100, 200, 100 (a quarter-period step) give a = b = 100,
// r = (200 - 100) / 100 = 1 and the step value 0.
//
// The output map must hold one element per pixel of the frame buffer's allocated window
// (row-major, pixel p at element p); only pixels handed to `ProcessPixel` are written.
//
// Status: `Intialize` sets code 6 (no message) without a frame buffer or when the buffer does not
// hold exactly 7 frames, code 21 without an output map, code 20 (with a message) for a map smaller
// than the frame window or a ring buffer; it starts each run from a clean status. `PostProcess`
// sets code 1 (source "Psi\Corvane7") when no pixel was valid.
// The settings, `Intialize`, `PostProcess` and `GetValidPixelCount()` are shared with `Corvane13`
// through `detail::CorvaneRatioAlgorithm`.
class QUARN_PP_EXPORT Corvane7 final : public detail::CorvaneRatioAlgorithm {
 public:
  static constexpr int kFrames = 7;

  Corvane7();

  void ProcessPixel(int thread, int pixel, const int* samples) override;
  void ProcessPixel(int thread, int pixel, const unsigned char* samples) override;

 private:
  template <typename Sample>
  void Process(int thread, int pixel, const Sample* samples);
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

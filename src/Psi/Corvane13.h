#pragma once

#include "Psi/CorvaneAlgorithm.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

// Corvane13
//
// Phase-step check of a 13-frame stack (frames nominally an eighth of a period apart). Adding
// neighbouring frames in pairs gives the sums S0 = I0 + I1, S1 = I2 + I3, S2 = I4 + I5,
// S3 = I6 + I7, S4 = I8 + I9, which are again sinusoidal, 2 alpha apart (a quarter period at the
// nominal step) and with the frame noise averaged. The ratio test of `Corvane7` on S0..S4 then
// gives the step value 256 cos(2 alpha) of the step between pairs: 0 at the nominal eighth-period
// frame step. Frames 10 to 12 are not needed and not read.
//
// Per pixel: any of the first 10 samples at or above the saturation level -> no data; modulation
// |S0 - S2| + |S1 - S3| not above saturation level x minimum % / 100 -> no data; a = S1 - S2,
// b = S2 - S3; |b| < |a| gives r = (S0 - S3) / a, otherwise r = (S1 - S4) / b; a zero
// denominator or r outside [-1, 3] -> no data; otherwise out[pixel] = 128 r - 128.
//
// Map, statuses and threads as for `Corvane7` (exactly 13 frames; code 1 with source
// "Psi\Corvane13" when no pixel was valid).
class QUARN_PP_EXPORT Corvane13 final : public detail::CorvaneRatioAlgorithm {
 public:
  static constexpr int kFrames = 13;

  Corvane13();

  void ProcessPixel(int thread, int pixel, const int* samples) override;
  void ProcessPixel(int thread, int pixel, const unsigned char* samples) override;

 private:
  template <typename Sample>
  void Process(int thread, int pixel, const Sample* samples);
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

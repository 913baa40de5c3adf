#pragma once

#include <cstdint>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

// CorvaneThreadCounter
//
// The valid-pixel counter of one worker thread. Each counter fills a record of 128 bytes of its own
// (two cache lines, so that neither the line nor its prefetch partner is shared), so workers that
// count concurrently never write the same cache line and need no lock or atomic operation.
struct alignas(128) CorvaneThreadCounter {
  std::int32_t validPixels = 0;
};
static_assert(sizeof(CorvaneThreadCounter) == 128, "one counter per 128-byte record");

// CorvaneAlgorithm
//
// The per-pixel half of a phase-step check: from the intensities of one pixel in a stack of
// phase-shifted frames it measures the phase step alpha between consecutive frames (or frame pairs)
// and writes the step value 256 cos(alpha) into a map, or no data (the largest finite double).
//
// For an ideal sinusoidal pixel I_k = a + b cos(phi + k alpha) the ratio of intensity differences
//   r = (I0 - I3) / (I1 - I2) = (I1 - I4) / (I2 - I3) = 1 + 2 cos(alpha)
// does not depend on the bias a, the amplitude b or the surface phase phi, so it measures the
// step that the phase shifter really made at that pixel; 128 (r - 1) = 256 cos(alpha) is the
// stored step value: 0 for a quarter-period step, 128 for 60 degrees, 256 for no step at all.
//
// A `CorvaneCalculator` drives an algorithm: `SetFrameBuffer`, `SetCorvaneMatrix` and
// `SetMinimumModulation` (percent of the frame buffer's saturation level), then `Intialize` with
// the number of worker threads (the name is spelled so on purpose), `ProcessPixel` from the
// workers (each with its thread index, the linear pixel index in the frame buffer's window and the
// pixel's samples, frame 0 first), and `PostProcess` at the end, which sets code 1 in `GetStatus()`
// when no pixel was valid.
class QUARN_PP_EXPORT CorvaneAlgorithm {
 public:
  virtual ~CorvaneAlgorithm() = default;
  virtual void SetFrameBuffer(Analysis::Core::FrameBuffer* frames) = 0;
  virtual void SetCorvaneMatrix(Analysis::Core::DoubleMatrix2D* out) = 0;
  virtual void SetMinimumModulation(double percent) = 0;
  virtual void ProcessPixel(int thread, int pixel, const int* samples) = 0;
  virtual void ProcessPixel(int thread, int pixel, const unsigned char* samples) = 0;
  virtual void Intialize(int numberOfThreads) = 0;
  virtual void PostProcess() = 0;
  virtual Analysis::Core::Status& GetStatus() = 0;

 protected:
  CorvaneAlgorithm() = default;
  CorvaneAlgorithm(const CorvaneAlgorithm&) = default;
  CorvaneAlgorithm& operator=(const CorvaneAlgorithm&) = default;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

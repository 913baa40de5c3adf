#pragma once

#include <cstdint>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/NoData.h"
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

namespace detail {

// CorvaneRatioAlgorithm
//
// What `Corvane7` and `Corvane13` share: the settings, the checks `Intialize` makes on the frame
// buffer and the map (the exact frame count is the only difference), the per-thread counters and
// `PostProcess`. A derived class supplies `ProcessPixel`: it reduces a pixel's samples to five
// equally spaced values of one sinusoid and hands them to `StoreStep`.
class QUARN_PP_EXPORT CorvaneRatioAlgorithm : public CorvaneAlgorithm {
 public:
  void SetFrameBuffer(Analysis::Core::FrameBuffer* frames) final { frameBuffer_ = frames; }
  void SetCorvaneMatrix(Analysis::Core::DoubleMatrix2D* out) final { out_ = out; }
  void SetMinimumModulation(double percent) final { minimumModulation_ = percent; }
  double GetMinimumModulation() const { return minimumModulation_; }
  void Intialize(int numberOfThreads) final;
  void PostProcess() final;
  Analysis::Core::Status& GetStatus() final { return status_; }

  // Valid pixels counted so far in this run, over all threads.
  std::int64_t GetValidPixelCount() const;

 protected:
  // `source` names the class in its statuses ("Psi\Corvane7"); `frames` is the frame count it
  // accepts.
  CorvaneRatioAlgorithm(const char* source, int frames);

  // Writes the step value of the five values s (see `CorvaneStepValue`) to the pixel and counts it
  // for the thread, or writes no data when one of the first `framesRead` samples reaches the
  // saturation level or the values give no usable step.
  template <typename Sample>
  void StoreStep(int thread, int pixel, const Sample* samples, int framesRead, const std::int64_t (&s)[5]);

 private:
  Analysis::Core::FrameBuffer* frameBuffer_ = nullptr;
  Analysis::Core::DoubleMatrix2D* out_ = nullptr;
  double minimumModulation_ = 15.0;  // percent of the saturation level
  int numberOfFrames_ = 0;
  int saturationLevel_ = 0;
  double modulationThreshold_ = 0.0;
  Analysis::Core::Array<CorvaneThreadCounter> counters_;
  Analysis::Core::Status status_;
  double* outData_ = nullptr;  // the map's elements, fixed for the run by `Intialize`
  const char* source_;
  int acceptedFrames_;
};

}  // namespace detail

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

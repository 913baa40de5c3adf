#pragma once

#include "Analysis/Core/Array.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/Status.h"
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
class QUARN_PP_EXPORT Corvane7 final : public CorvaneAlgorithm {
 public:
  static constexpr int kFrames = 7;

  Corvane7();

  void SetFrameBuffer(Analysis::Core::FrameBuffer* frames) override { frameBuffer_ = frames; }
  void SetCorvaneMatrix(Analysis::Core::DoubleMatrix2D* out) override { out_ = out; }
  void SetMinimumModulation(double percent) override { minimumModulation_ = percent; }
  double GetMinimumModulation() const { return minimumModulation_; }
  void ProcessPixel(int thread, int pixel, const int* samples) override;
  void ProcessPixel(int thread, int pixel, const unsigned char* samples) override;
  void Intialize(int numberOfThreads) override;
  void PostProcess() override;
  Analysis::Core::Status& GetStatus() override { return status_; }

  // Valid pixels counted so far in this run, over all threads.
  std::int64_t GetValidPixelCount() const;

 private:
  template <typename Sample>
  void Process(int thread, int pixel, const Sample* samples);

  Analysis::Core::FrameBuffer* frameBuffer_ = nullptr;
  Analysis::Core::DoubleMatrix2D* out_ = nullptr;
  double minimumModulation_ = 15.0;  // percent of the saturation level
  int numberOfFrames_ = 0;
  int saturationLevel_ = 0;
  double modulationThreshold_ = 0.0;
  Analysis::Core::Array<CorvaneThreadCounter> counters_;
  Analysis::Core::Status status_;
  double* outData_ = nullptr;  // the map's elements, fixed for the run by `Intialize`
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

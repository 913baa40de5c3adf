#pragma once

#include <cstdint>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/Status.h"
#include "Psi/GainCorrection.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

// PmiThreadAccumulator
//
// The step sum and pixel count of one worker thread, in a record of 128 bytes of its own so that
// concurrent workers never write the same cache line (nor its prefetch partner). The sum has 64 bits
// because a 32-bit one could wrap on a large camera (see `GainCorrectionPmi`).
struct alignas(128) PmiThreadAccumulator {
  std::int64_t stepSum = 0;
  std::int32_t count = 0;
};
static_assert(sizeof(PmiThreadAccumulator) == 128, "one accumulator per 128-byte record");

// GainCorrectionPmi
//
// Scanner gain estimate of 7- and 13-frame stacks. Seven samples J0..J6 a quarter period apart are
// taken per pixel: the frames themselves of a 7-frame stack, every second frame (0, 2, ..., 12) of
// a 13-frame stack. For J_k = a + b cos(theta + (k - 3) alpha) both
//   (J1 - J5) / (2 (J2 - J4))   and   (J0 - J2 - J4 + J6) / (2 (J1 - 2 J3 + J5))
// equal cos(alpha) whatever a, b and theta; the one whose denominator is larger in size (|2c|
// against |4a|, with a = J2 - J4, c = J1 - 2 J3 + J5) is used, so that the ratio stays well
// conditioned where the surface phase makes the other one vanish. Each pixel contributes the
// integer r = (256 num) / den (integer division, truncating towards zero) when |r| <= 256.
//
// A pixel takes part only when all seven samples are below the saturation level, the first four
// sum to at least `MinimumAmplitude` (15) and its modulation |J0 - J2| + |J1 - J3| is above
// saturation level x minimum % / 100.
//
// Result: gain correction = (sum of r / number of pixels, in integer division) / 316.0. The
// integer division comes first and is part of the result: r values 100 and 101 give 100 / 316.0.
// For a step alpha = 90 deg (1 + eps), r is about -256 (pi / 2) eps, so the gain correction is
// about -1.27 eps: negative for a shifter that moves too far, positive for one that moves too
// little. Its resolution is 1 / 316 = 0.0032 (the integer mean), about 0.25 % of step error.
//
// Integer arithmetic is carried out in 64 bits. Per pixel this gives the same numbers as 32 bits for
// samples of up to 16 bits (256 x num of 32-bit samples would wrap). The sum is what needs the
// width: at |r| = 256 a 32-bit step sum wraps after 2^31 / 256 = 8.4 million contributing pixels,
// fewer than one frame of a 4k camera has, and the gain would be wrong without any sign of it. The
// integer division of the mean still comes before the floating one, as above.
//
// Status: `Intialize` sets code 6 (no message) without a frame buffer or for a frame count other
// than 7 or 13, code 20 for a ring buffer, and starts each run from a clean status. `PostProcess`
// sets code 1 (source "Psi\GainCorrectionPmi") and the no-data gain correction when no pixel
// contributed. The integer sums make the result identical for every number of threads (over the
// same pixels).
class QUARN_PP_EXPORT GainCorrectionPmi final : public GainCorrection {
 public:
  GainCorrectionPmi();

  double GetModulationScale() const override { return 0.0; }
  double GetGainCorrection() const override { return gainCorrection_; }
  void SetFrameBuffer(Analysis::Core::FrameBuffer* frames) override { frameBuffer_ = frames; }
  void SetMinimumModulation(double percent) override { minimumModulation_ = percent; }
  double GetMinimumModulation() const { return minimumModulation_; }
  void ProcessPixel(int thread, const int* samples) override;
  void ProcessPixel(int thread, const unsigned char* samples) override;
  void Intialize(int numberOfThreads) override;
  void PostProcess() override;
  Analysis::Core::Status& GetStatus() override { return status_; }

  // True when all seven values are below `max`.
  static bool PixelIntensityInRange(int max, int a, int b, int c, int d, int e, int f, int g);

  // Pixels that contributed in this run, over all threads (valid after the workers have ended).
  std::int64_t GetContributingPixelCount() const;

 private:
  template <typename Sample>
  void Process(int thread, const Sample* samples);

  Analysis::Core::FrameBuffer* frameBuffer_ = nullptr;
  double minimumModulation_ = 15.0;  // percent of the saturation level
  double gainCorrection_ = 0.0;
  int numberOfFrames_ = 0;
  int saturationLevel_ = 0;
  double modulationThreshold_ = 0.0;
  Analysis::Core::Array<PmiThreadAccumulator> accumulators_;
  Analysis::Core::Status status_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

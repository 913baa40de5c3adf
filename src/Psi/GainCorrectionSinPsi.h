#pragma once

#include <cstdint>
#include <memory>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/Status.h"
#include "Psi/Convert20.h"
#include "Psi/GainCorrection.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

// SinPsiThreadAccumulator
//
// The pixel count and weighted sum of one worker thread, and the thread's own array of the ten pair
// sums of the pixel at hand. The record is 152 bytes long: the padding keeps the counters of two
// threads more than 128 bytes apart, so concurrent workers never write one cache line. Copies of a
// record share its pair-sum array.
struct SinPsiThreadAccumulator {
  std::int32_t count = 0;
  double sum = 0.0;
  std::shared_ptr<Analysis::Core::Array<std::int64_t>> pairSums;
  unsigned char padding[120] = {};
};
static_assert(sizeof(SinPsiThreadAccumulator) == 152, "one accumulator per 152-byte record");

// GainCorrectionSinPsi
//
// Scanner gain estimate of stacks of a sinusoidally driven phase shifter: the 20 frames of one
// drive period that `Convert20` reads (frame k shifted by 4.18 cos(2 pi (k + 0.75) / 20) radians at
// the nominal gain). Frames beyond the 20th are not used.
//
// Per pixel: the phase phi = atan2(N, D) and the magnitude M = sqrt(N^2 + D^2) from `Convert20`,
// and the pair sums S_k = I_k + I_(19-k), k = 0..9. A gain error changes the part of the signal
// that the quadrature pair (Qc, Qs) picks up,
//   Qc = 0.0247 (S1 + S8) + 0.1779 (S0 + S9) - 0.1054 (S2 + S7) - 0.0898 (S3 + S6) - 0.0074 (S4 + S5)
//   Qs = 0.1475 (S1 - S8) + 0.0596 (S9 - S0) + 0.1885 (S2 - S7) + 0.0185 (S3 - S6) - 0.041 (S4 - S5),
// and projecting it onto the pixel's phase, (cos(phi) Qc + sin(phi) Qs) / (M + 1), gives a number
// proportional to that error and independent of the fringe amplitude. A pixel takes part when none
// of its 20 samples reaches the saturation level and M is above 0.5 x minimum % x saturation level
// / 100 (0.5 being `Convert20`'s modulation scale).
//
// Result: gain correction = -(mean contribution / 4.18), 4.18 being the nominal excursion; no data
// with code 1 (source "Psi\GainCorrectionSinPsi") when no pixel contributed.
//
// Status: `Intialize` sets code 6 (no message) without a frame buffer or with fewer than 20
// frames, code 20 for a ring buffer, and starts each run from a clean status.
//
// Threads: each worker sums into its own record; the records are combined in thread order. The
// sum is of doubles, so runs with different numbers of threads can differ in the last bits (the
// pixels are summed in another order); runs with the same number agree bit for bit.
class QUARN_PP_EXPORT GainCorrectionSinPsi final : public GainCorrection {
 public:
  static constexpr int kFramesUsed = 20;

  GainCorrectionSinPsi();

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

  // Pixels that contributed in this run, over all threads (valid after the workers have ended).
  std::int64_t GetContributingPixelCount() const;

 private:
  template <typename Sample>
  void Process(int thread, const Sample* samples);

  Analysis::Core::FrameBuffer* frameBuffer_ = nullptr;
  double minimumModulation_ = 15.0;  // percent of the saturation level
  double modulationThreshold_ = 0.0;
  double gainCorrection_ = 0.0;
  int saturationLevel_ = 0;
  double phaseExcursion_ = 0.0;  // radians
  int framesUsed_ = kFramesUsed;
  Convert20 converter_;
  Analysis::Core::Array<SinPsiThreadAccumulator> accumulators_;
  Analysis::Core::Status status_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

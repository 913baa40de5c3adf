#pragma once

#include <vector>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/Fft1DReal.h"
#include "QuarnPhaseProcessingExport.h"
#include "Swli/PhaseAlgorithm.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

// FringeOrderParameters
//
// How `PhaseAlgorithmHigh2G::FringeOrderAnalysis` combines a pixel's two heights into one. The
// coherence height (from the envelope) is unambiguous but noisy; the phase height (from the fringe
// phase) is precise but known only modulo the equivalent wavelength lambda (half the optical
// wavelength: one fringe of scan). The analysis moves each phase height by whole lambda to the
// order that agrees with the coherence height. Phase and coherence heights of a real surface differ
// by a gap common to the field (the phase change on reflection, dispersion of the optics), which is
// measured and taken out first, so that a gap near lambda/2 does not split the field between two
// orders.
struct FringeOrderParameters {
  // Measure the field's average gap between phase and coherence heights and remove it before
  // choosing each pixel's order (true), or choose the order against the coherence height alone
  // (false; the reported gap is then 0).
  bool removeAverageGap = true;
  // The fewest pixels with both heights for which an average gap is measured; with fewer, the gap is
  // taken as 0. At least 1.
  int minimumPixelsForGap = 1;
  // A pixel whose phase height, moved to the best order, still differs from its coherence height
  // plus the gap by more than this fraction of lambda gets no height: its order is doubtful. 0.5
  // (the default) keeps every pixel, since the best order is never more than half a lambda away;
  // 0.25 rejects pixels whose coherence height is off by more than a quarter fringe.
  double maximumResidualFraction = 0.5;
};

// PhaseAlgorithmHigh2G
//
// The base of the white-light algorithms that measure a height twice, from the coherence envelope
// and from the fringe phase, and join the two with a fringe-order analysis. It owns, per pass:
// - the coherence-height and phase-height maps (nanometres, sized to the frame window and filled
//   with no-data at the start of every pass), which a derived algorithm fills per pixel;
// - per worker thread a real-to-complex transform of the signal size with its input and output
//   arrays, a wavenumber sum and a count, made in `InitializeThread` and released in
//   `FinalizeThread` (no allocation per pixel);
// - the valid count (pixels that got both heights) and the average gap of the last fringe-order
//   analysis.
// Derived algorithms supply `ProcessPixel` and a `PostProcess` that ends in `FringeOrderAnalysis`.
//
// Average gap: the circular mean over the field of (phase height - coherence height), in
// nanometres within (-lambda/2, lambda/2]; a circular mean because the gap is only known modulo
// lambda.
class QUARN_PP_EXPORT PhaseAlgorithmHigh2G : public PhaseAlgorithm {
 public:
  ~PhaseAlgorithmHigh2G() override;

  using PhaseAlgorithm::Initialize;
  void Initialize(int pass, int numberFrames, int qSize, const Analysis::Core::Window2D& window) override;
  void InitializeThread(int numberThreads) override;
  void FinalizeThread() override;

  // The mean fringe wavenumber of the run in cycles per sample, and the equivalent wavelength in
  // nanometres; 0.0 here, where no wavenumber is measured.
  virtual double GetAverageK0() const;
  virtual double GetWaveLength() const;
  virtual int GetValidCount() const;
  // Nanometres, see the class comment.
  virtual double GetAverageGap() const;

  // Percent of the saturation level (default 15).
  double GetMinimumModulation() const { return minimumModulation_; }
  void SetMinimumModulation(double percent) { minimumModulation_ = percent; }

  const FringeOrderParameters& GetFringeOrderParameters() const { return fringeOrder_; }
  void SetFringeOrderParameters(const FringeOrderParameters& parameters) { fringeOrder_ = parameters; }

  // The two heights of the last pass (nanometres, no-data where a pixel has none).
  const Analysis::Core::DoubleMatrix2D& GetCoherenceHeight() const { return coherence_; }
  const Analysis::Core::DoubleMatrix2D& GetPhaseHeight() const { return phase_; }

  // The fringe-order analysis: for every pixel with both heights, the phase height moved by whole
  // `wavelength` to lie within half a wavelength of coherence + gap, written to `surface`
  // (nanometres); other pixels are left as they are. Returns the average gap it removed (see the
  // class comment). `twoPi` and `pi` are the angle constants of the gap's circular mean. With
  // `fastPath` the mean's sines and cosines come from SLEEF's vector kernels (within 1 ulp of libm's,
  // summed in the same order), otherwise from libm one pixel at a time (the reference). The pixel
  // loops run through `runner` (see RangeRunner.h; empty: on this thread); the result is the same
  // however it cuts them.
  static double FringeOrderAnalysis(const FringeOrderParameters& parameters, double twoPi, double pi,
                                    const Analysis::Core::DoubleMatrix2D& coherence,
                                    const Analysis::Core::DoubleMatrix2D& phase,
                                    Analysis::Core::DoubleMatrix2D& surface, double wavelength,
                                    bool fastPath = false, const RangeRunner& runner = {});

 protected:
  PhaseAlgorithmHigh2G(unsigned line, const char* source);

  // One worker's state; aligned so that two workers never write one cache line.
  struct alignas(64) ThreadState {
    double wavenumberSum = 0.0;
    int count = 0;
    Analysis::Core::Fft1DReal transform;
  };

  double minimumModulation_ = 15.0;
  int validCount_ = 0;
  double averageGap_ = 0.0;
  FringeOrderParameters fringeOrder_;
  Analysis::Core::DoubleMatrix2D coherence_;
  Analysis::Core::DoubleMatrix2D phase_;
  std::vector<ThreadState> threadStates_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

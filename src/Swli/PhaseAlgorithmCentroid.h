#pragma once

#include "QuarnPhaseProcessingExport.h"
#include "Swli/PhaseAlgorithm.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

// PhaseAlgorithmCentroid
//
// Surface height from the centroid of the coherence envelope. For each pixel's signal d of q
// samples (mean mu), the envelope is taken as |d - mu| and its centroid
//
//   position = sum k |d[k-1] - mu| / sum |d[k-1] - mu| + 1,   k = 1 .. q,
//
// is a position in scan frames; the height is position x scan increment (nanometres). For a window
// cut around the peak frame p (the usual case: the scan is longer than the signal) the window's
// start, p - q/2 - 1 in this count, is added. The counting is one-based and the window term keeps
// its -1, so a windowed height is (centroid frame + 1) x step: the centroid's heights sit one scan
// step above the frame-times-step positions of the frequency-domain analysis. Differences of
// heights, the surface's shape, do not depend on that origin.
//
// A pixel gets no height when its peak lies within q/2 frames of either end of the scan, when its
// fringes at the peak are weak, or when its signal is flat. "Weak" compares the modulation measure
//
//   m = |(d[c] - d[c-2]) + (d[c] - d[c+2])| + |2 (d[c-1] - d[c+1])|
//
// at the signal centre c (the peak) with minimum modulation x 2 x saturation level / 100; for
// fringes of amplitude A sampled about four times per fringe m is about 4 A to 5.7 A, so the default
// 15 % on an 8-bit camera (threshold 76.5) asks for an amplitude of about 19 counts. A measure equal
// to the threshold passes. Every pixel still gets its fringe-free intensity.
//
// The centroid is robust and needs no particular scan step, but it is only as good as the envelope
// is symmetric and noise-free: expect a few percent of the coherence length, where the frequency-
// domain analysis reaches the nanometre.
class QUARN_PP_EXPORT PhaseAlgorithmCentroid : public PhaseAlgorithm {
 public:
  PhaseAlgorithmCentroid();
  ~PhaseAlgorithmCentroid() override;

  using PhaseAlgorithm::Initialize;
  void Initialize(int pass, int numberFrames, int qSize, const Analysis::Core::Window2D& window) override;
  int ProcessPixel(int thread, int pixel, int peakFrame, int auxiliary) override;
  void PostProcess() override;

  // The envelope's sums as one vector of four lanes (true, the default; AVX2 where the processor has
  // it) or as four scalar sums (false, the reference): the same additions in the same order, so the
  // heights are bit for bit the same.
  bool GetUseFastPath() const { return useFastPath_; }
  void SetUseFastPath(bool use) { useFastPath_ = use; }

  // Percent of the saturation level (default 15).
  double GetMinimumModulation() const { return minimumModulation_; }
  void SetMinimumModulation(double percent) { minimumModulation_ = percent; }

 private:
  double minimumModulation_ = 15.0;
  double modulationThreshold_ = 0.0;
  bool useFastPath_ = true;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

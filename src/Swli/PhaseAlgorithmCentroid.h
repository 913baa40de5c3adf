#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "QuarnPhaseProcessingExport.h"
#include "Swli/FrameBlockEvaluator.h"
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
//
// Blocks of pixels: where the generator offers them (a scan stored whole, windows cut around the
// peaks), the centroid evaluates 64 pixels at once straight from the frame planes: their frames
// are copied once into a compact block, and the sums are formed across the pixels in exact integers
// (the mean times q, a power of two, is an integer, and so is every scaled deviation), which give
// the reference's heights and intensities bit for bit. Pixels whose peak must be estimated, and
// windows far from the rest of their block, are left to the per-pixel path.
class QUARN_PP_EXPORT PhaseAlgorithmCentroid : public PhaseAlgorithm, public FrameBlockEvaluator {
 public:
  PhaseAlgorithmCentroid();
  ~PhaseAlgorithmCentroid() override;

  using PhaseAlgorithm::Initialize;
  void Initialize(int pass, int numberFrames, int qSize, const Analysis::Core::Window2D& window) override;
  void InitializeThread(int numberThreads) override;
  void FinalizeThread() override;
  int ProcessPixel(int thread, int pixel, int peakFrame, int auxiliary) override;
  void PostProcess() override;

  bool BeginFrameBlocks(int thread, const FrameBlockRun& run) override;
  std::uint64_t ProcessFrameBlock(int thread, const FramePlaneBlock& block) override;

  // Fast paths (true, the default): blocks of pixels straight from the frame planes where the
  // generator offers them, and otherwise the envelope's sums as one vector of four lanes (AVX2 where
  // the processor has it). False: pixel by pixel with four scalar sums, the reference. The heights
  // and intensities are bit for bit the same.
  bool GetUseFastPath() const { return useFastPath_; }
  void SetUseFastPath(bool use) { useFastPath_ = use; }

  // Percent of the saturation level (default 15).
  double GetMinimumModulation() const { return minimumModulation_; }
  void SetMinimumModulation(double percent) { minimumModulation_ = percent; }

 private:
  // The fringe-free intensity as the block path forms it: the estimator that the pixel path would call.
  enum class BlockIntensity { kUnsupported, kNone, kStandard, kBucket };
  struct BlockScratch;
  template <typename Stored>
  std::uint64_t ProcessFrameBlockAs(BlockScratch& scratch, const FramePlaneBlock& block);

  double minimumModulation_ = 15.0;
  double modulationThreshold_ = 0.0;
  bool useFastPath_ = true;
  BlockIntensity blockIntensity_ = BlockIntensity::kUnsupported;
  std::vector<std::unique_ptr<BlockScratch>> blockScratch_;  // per thread
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

#pragma once

#include <cstdint>

#include "Analysis/Core/FrameBuffer.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

// FramePlaneBlock
//
// Up to kPixels consecutive pixels of a run, as the generator hands them to a `FrameBlockEvaluator`:
// the frame planes (slot k holds frame k, pixel p at element p of the plane) and the block's own
// entries of the peak-frame, auxiliary and mask (caller's surface) matrices, element 0 being pixel
// `firstPixel`.
struct FramePlaneBlock {
  static constexpr int kPixels = 64;
  const void* const* slots = nullptr;
  int firstPixel = 0;
  int width = 0;  // 1 .. kPixels
  const int* peaks = nullptr;
  const int* auxiliary = nullptr;
  const double* mask = nullptr;
};

// FrameBlockRun
//
// What the blocks of one range share: the sample width, the frames stored (the whole scan), the
// signal size q, and the scan direction (reversed: each window is mirrored into scan order and the
// peak frame p handed to the algorithm becomes F - p, as the reversed windowed loader does).
struct FrameBlockRun {
  Analysis::Core::FrameBuffer::ElementRes resolution = Analysis::Core::FrameBuffer::kRes8Bit;
  int framesStored = 0;
  int signalSize = 0;
  bool reversed = false;
};

// FrameBlockEvaluator
//
// An optional second face of a `PhaseAlgorithm`: an algorithm that can evaluate a block of pixels
// straight from the frame planes, across the pixels at once, instead of one loaded signal at a time.
// The generator offers it the blocks of a range only when the scan is stored whole and each pixel's
// signal is the window cut around its peak frame (the windowed loaders, forward or reversed), no
// pixel of the range is traced and the pixel stride is 1; everything else runs pixel by pixel.
//
// The results must be those of loading each pixel's window and calling `ProcessPixel` (and, for a
// pixel that the mask skips, the fringe removal alone): bit for bit where the arithmetic allows it.
// Whatever the evaluator leaves out, the generator then loads and evaluates pixel by pixel, so an
// evaluator may decline any pixel it does not want to handle (a peak to be estimated, a window far
// from its neighbours').
//
// Called from the worker threads, each on its own range and with its own thread index, between the
// algorithm's InitializeThread and FinalizeThread.
class QUARN_PP_EXPORT FrameBlockEvaluator {
 public:
  // Once per range before its blocks: whether this run's blocks can be evaluated here. False sends
  // the whole range pixel by pixel.
  virtual bool BeginFrameBlocks(int thread, const FrameBlockRun& run) = 0;
  // Evaluates the block; returns the pixels left to the per-pixel path, bit i for pixel
  // firstPixel + i.
  virtual std::uint64_t ProcessFrameBlock(int thread, const FramePlaneBlock& block) = 0;

 protected:
  FrameBlockEvaluator() = default;
  FrameBlockEvaluator(const FrameBlockEvaluator&) = default;
  FrameBlockEvaluator& operator=(const FrameBlockEvaluator&) = default;
  virtual ~FrameBlockEvaluator() = default;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

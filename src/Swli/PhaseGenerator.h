#pragma once

#include <vector>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "Analysis/Core/Status.h"
#include "Analysis/Core/Threading/ThreadDispatcher.h"
#include "QuarnPhaseProcessingExport.h"
#include "Swli/PhaseAlgorithm.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

class FrameBlockEvaluator;

// PhaseGenerator
//
// Turns a white-light scan into a surface-height map with a `PhaseAlgorithm`: for every pixel of
// the frame buffer's allocated window it loads the pixel's signal into the thread's buffer and
// hands it to the algorithm, over worker threads and over as many passes as the algorithm needs.
//
// Inputs, all over the frame buffer's allocated window (pixel p is element p, row-major):
// - the frame buffer: F frames scanned, S frames stored (S = F for a whole scan, or a ring of S
//   slots, frame f in slot f mod S, holding the S frames around each pixel's peak), and the scan
//   direction (-1: reversed);
// - the peak-frame matrix: per pixel the scan frame at which an upstream coherence discriminator saw
//   the fringes peak (0 or less: unknown, estimated from the signal where a window is cut);
// - an auxiliary integer matrix passed unchanged to the algorithm;
// - the surface matrix, which is both the input mask and the output: pixels holding any value are
//   evaluated, pixels holding no-data (the largest finite double) are skipped (they still get an
//   intensity when the algorithm makes one) and stay no-data. At the end of a successful run it
//   receives the algorithm's heights (nanometres, no-data where a pixel has none); after a failure
//   it is left as it was handed in.
//
// Signal loading (q = the algorithm's signal size, h = q/2). With the whole scan stored, a window
// of q frames is cut around the peak whenever the algorithm needs the discriminator (or the peak
// matrix does not fit, or the buffer is shorter than the scan): forward, frames peak-h .. peak+h-1
// (at the ends of the scan the first or last q frames, with the peak moved to h, or to S-h-1);
// without a window the whole signal is loaded. A ring is unrolled so that the peak lands at index
// S/2. Reversed scans are mirrored into scan order, and their peak frame p becomes F - p: frame p
// of a reversed scan is taken at the position of frame F - p of the forward scan.
//
// Status (source "Swli\PhaseGenerator"): 21 no algorithm; 21 a ring that does not hold one signal
// of the algorithm (frames stored differ from the signal size); 21 fewer frames stored than the
// signal size; 33 peak-frame or auxiliary matrix not over the frame window (when the algorithm needs
// peak frames); 21 surface matrix not over the frame window; 1 no valid pixel in the result; 20 an
// input went missing during the run. A failure from the algorithm's per-pass steps is returned as
// the algorithm reported it.
//
// Threads: off by default (`SetAllowMultiThreads(true)`); the pixel range is cut into one
// contiguous block per worker, and the same workers are lent to the algorithm's PostProcess for its
// per-pixel loops (`PhaseAlgorithm::SetRangeRunner`). Results do not depend on the number of
// threads. A pass that runs on one thread (threads not allowed, or an algorithm that is not
// multi-threadable) sets the threads in use to 1, and they stay so: set them again with
// `SetMaxNumThreads` before a multi-threaded run.
//
// Stage timings go to the debug channel ("\tPhaseGenerator ProcessPixels: 12.5 ms\n").
//
//   PhaseAlgorithmCentroid centroid;
//   centroid.SetScanIncrement(UnitNumber(80.0, LinearConverter(Units::kNanometers)));
//   PhaseGenerator generator(&centroid);
//   generator.SetAllowMultiThreads(true);
//   DoubleMatrix2D surface(rows, cols);  // all 0: evaluate every pixel
//   generator.Process(frames, peakFrames, auxiliary, surface);
//   if (generator.GetStatus().IsError()) ...
class QUARN_PP_EXPORT PhaseGenerator {
 public:
  PhaseGenerator();
  explicit PhaseGenerator(PhaseAlgorithm* algorithm);
  PhaseGenerator(const PhaseGenerator&) = delete;
  PhaseGenerator& operator=(const PhaseGenerator&) = delete;
  virtual ~PhaseGenerator();

  virtual Analysis::Core::Status& Process(Analysis::Core::FrameBuffer& frames,
                                          Analysis::Core::IntMatrix2D& peakFrames,
                                          Analysis::Core::IntMatrix2D& auxiliary,
                                          Analysis::Core::DoubleMatrix2D& surface);

  void SetAlgorithm(PhaseAlgorithm* algorithm) { algorithm_ = algorithm; }
  PhaseAlgorithm* GetAlgorithm() const { return algorithm_; }
  Analysis::Core::Status& GetStatus() { return status_; }

  void SetAllowMultiThreads(bool allow) { allowMultiThreads_ = allow; }
  bool GetAllowMultiThreads() const { return allowMultiThreads_; }
  // Threads in use: min(n, the processor count) for n > 0, else 1.
  void SetMaxNumThreads(int n) { dispatcher_.SetNumberOfWorkers(n); }
  int GetMaxNumThreads() const { return dispatcher_.GetNumberOfWorkers(); }
  // Fast path (default): the frames of each block of 64 pixels are copied, transposed, into a compact
  // block before the signals are loaded, which keeps a pixel's samples from competing for one cache
  // set and makes each signal one contiguous run; an algorithm that evaluates blocks of pixels
  // itself (a `FrameBlockEvaluator`) is handed the blocks straight from the frame planes where it can
  // take them. Off: each sample is read straight from its frame and every pixel is loaded and
  // evaluated alone (the reference). Both give the same results.
  void SetUseFastPath(bool use) { useFastPath_ = use; }
  bool GetUseFastPath() const { return useFastPath_; }

 private:
  void ProcessRun(Analysis::Core::FrameBuffer& frames, Analysis::Core::IntMatrix2D& peakFrames,
                  Analysis::Core::IntMatrix2D& auxiliary, Analysis::Core::DoubleMatrix2D& surface);
  void ProcessMultiPass(int qSize);
  void SetDebugFlag(int thread, const std::vector<int>& tracePixels, int pixel, int skip);
  void ProcessPixels(int thread, int begin, int end);
  // The range runner lent to the algorithm for its PostProcess: the body's ranges on the workers.
  void LendWorkers(std::int64_t count, const RangeBody& body);
  void RunLentRange(int first, int end);
  template <typename Stored>
  void ProcessPixelsAs(int thread, int begin, int end, Analysis::Core::Status& failure);
  template <typename Stored, typename Loader>
  void PixelLoop(const Loader& load, int thread, int begin, int end, double* signal,
                 const std::vector<int>& tracePixels, FrameBlockEvaluator* blocks = nullptr);
  void DropMatrices();

  Analysis::Core::Status status_;
  Analysis::Core::IntMatrix2D* peakFrames_ = nullptr;
  Analysis::Core::IntMatrix2D* auxiliary_ = nullptr;
  Analysis::Core::DoubleMatrix2D* surface_ = nullptr;
  Analysis::Core::FrameBuffer* frames_ = nullptr;
  PhaseAlgorithm* algorithm_ = nullptr;
  bool allowMultiThreads_ = false;
  bool useFastPath_ = true;
  Analysis::Core::Threading::ThreadDispatcher<PhaseGenerator> dispatcher_;

  // Per run: the algorithm driven (fixed at the start of the run), the start of each stored slot,
  // and where a worker run on the calling thread reports its failure.
  PhaseAlgorithm* runAlgorithm_ = nullptr;
  std::vector<const void*> slots_;
  bool dispatching_ = false;
  const RangeBody* lentBody_ = nullptr;
  Analysis::Core::Status directStatus_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

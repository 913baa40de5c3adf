#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/DataMatrix2D.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "Analysis/Core/UnitNumber.h"
#include "Analysis/Core/Window2D.h"
#include "QuarnPhaseProcessingExport.h"
#include "Swli/FringeRemovalMethod.h"
#include "Swli/MeasurementAnalysis.h"
#include "Swli/RangeRunner.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

// ThreadSignalBuffer
//
// One worker thread's copy of the pixel signal it is evaluating: `length` samples as doubles, in
// scan order (a reversed scan is mirrored by the loader), and the pixel being traced (-1 when the
// thread is not tracing).
struct ThreadSignalBuffer {
  std::unique_ptr<double[]> signal;
  int length = 0;
  int debugPixel = -1;
};

// PhaseAlgorithm
//
// The per-pixel evaluation of a white-light (coherence) scan, driven by `PhaseGenerator`. For every
// pixel the generator loads the pixel's signal, the samples of q consecutive scan frames (the signal
// size, 64 or 128, or the whole scan), into the thread's buffer and calls `ProcessPixel(thread,
// pixel, peakFrame, auxiliary)`; the algorithm writes the pixel's height into its own surface map
// and its fringe-free intensity into the intensity map. Pixels without a result hold the no-data
// value (the largest finite double, and 2147483640 for the intensity).
//
// Units and conventions
// - Heights are lengths in the unit of code 6 (nanometres): the scan increment is converted to it,
//   and a height is a position along the scan, frame number times scan increment, so larger heights
//   are reached later in a forward scan.
// - Maps cover the frame buffer's allocated window; pixel p is element p, row-major.
// - The peak frame is the scan frame at which an upstream coherence discriminator saw the pixel's
//   fringes peak; loaders that cut a window around it centre the window there (see PhaseGenerator).
//
// Fringe-free intensity, chosen by `SetRemoveFringes` (see FringeRemovalMethod), rounded half away
// from zero:
// - kStandard: weights 1 1 3 3 3 3 1 1, times 1/16, on samples c-4 .. c+3. For a whole-scan signal
//   c is the peak frame (the signal centre when the peak is closer than 4 samples to an end); for a
//   window cut around a positive peak, the window centre; without a peak, the window slides
//   circularly over the signal and the largest value wins. At four samples per fringe (a scan step
//   of an eighth of the wavelength) the weights cancel the fringes exactly.
// - k64Bucket: the mean of the 64 samples around the peak when the signal is the whole scan,
//   otherwise the sum of the buffer's samples over 64 (which is the mean of a 64-sample signal).
// - kNone: no intensity map.
//
// Per run the generator calls: NeedDiscriminator, CalculateQSize, NeedPeakFrame, Initialize(frames,
// ...) once, then per pass Initialize(pass, ...), IsMultThreadable, InitializeThread(n), ProcessPixel
// from n threads, PostProcess, FinalizeThread, and finally Reset. Derived algorithms call the base
// version first when they override Initialize, InitializeThread or FinalizeThread.
//
// Trace pixels: pixels added with `AddTracePixel` switch the thread's debug mode on while they are
// processed (`IsDebuging`); algorithms then write details to the debug channel. The list is emptied
// after each pass, so it is filled again before each run.
//
// Debug matrices: this design records none. `GetDoubleMatrix` and `GetIntMatrix` return null,
// `StoreMatrix` does nothing and the name lists are empty. `SetSurfaceMatrix` does nothing either:
// the surface is always written to the algorithm's own matrix, from which the generator copies it,
// whereas `SetIntensityMatrix` does redirect the intensity (until the next `Reset`).
class QUARN_PP_EXPORT PhaseAlgorithm : public MeasurementAnalysis {
 public:
  using FringeRemovalFunction = int (PhaseAlgorithm::*)(int thread, int pixel, int peakFrame);

  PhaseAlgorithm();
  ~PhaseAlgorithm() override;

  // Virtual operations, in the order every algorithm overrides them.
  void Reset() override;
  bool IsMultThreadable() const override;
  virtual void SetupFringeRemovalAlgorithm();
  // Per-pass set-up: pass number, frames scanned, signal size and the frame window. Sizes the
  // surface (and, with a fringe-removal method, the intensity) map to the window and fills it with
  // no-data. A failure is left in the status.
  virtual void Initialize(int pass, int numberFrames, int qSize, const Analysis::Core::Window2D& window);
  virtual void Initialize(Analysis::Core::FrameBuffer& frames, Analysis::Core::DataMatrix2D<int>& peakFrames,
                          bool allowMultiThreads);
  virtual void InitializeThread(int numberThreads);
  virtual void FinalizeThread();
  // Evaluates one pixel from the thread's signal; returns the pixel's fringe-free intensity.
  virtual int ProcessPixel(int thread, int pixel, int peakFrame, int auxiliary) = 0;
  virtual void PostProcess();
  virtual void SetDebug(int thread, int pixel);
  virtual void ClearDebug(int thread);
  virtual int RequiredNumberOfPasses() const;
  virtual int GetSkipCount() const;
  virtual double* GetDataArray(int thread);
  virtual int GetDataArraySize(int thread) const;
  virtual bool NeedDiscriminator() const;
  virtual bool NeedPeakFrame() const;
  // The signal size for a scan: `signalSize` (or, when it is 0 or less, the expected signal size)
  // rounded to one of the two sizes the algorithms support: 128 when it is exactly 128, else 64.
  // Also stores `method` as the fringe-removal method.
  virtual int CalculateQSize(int numberFrames, int signalSize, FringeRemovalMethod method);
  virtual void SetRemoveFringes(FringeRemovalMethod method);
  virtual int GetQSize() const;

  // The fringe-free intensity of the thread's current signal by the selected method.
  int RemoveFringes(int thread, int pixel, int peakFrame) {
    return (this->*fringeRemoval_)(thread, pixel, peakFrame);
  }

  bool IsDebuging(int thread) const;
  void AddTracePixel(int pixel);
  Analysis::Core::Array<int>* TracePixels() { return tracePixels_.get(); }

  void SetScanIncrement(const Analysis::Core::UnitNumber& increment) { scanIncrement_ = increment; }
  const Analysis::Core::UnitNumber& GetScanIncrement() const { return scanIncrement_; }
  int GetNumberFrames() const { return numberFrames_; }
  int GetNumberPixels() const { return numberPixels_; }
  int GetNumberOfThreads() const { return numberThreads_; }
  int GetCurrentPass() const { return currentPass_; }
  // Stored only when n > 0.
  void SetExpectedSignalSize(int n) {
    if (n > 0) expectedSignalSize_ = n;
  }
  int GetExpectedSignalSize() const { return expectedSignalSize_; }
  double GetMaxScanValue() const { return maxScanValue_; }
  void SetMaxScanValue(double value) { maxScanValue_ = value; }
  FringeRemovalMethod GetRemoveFringes() const { return removeFringes_; }

  // How PostProcess may spread its per-pixel loops over threads (see RangeRunner.h). The generator
  // lends its workers for the PostProcess of a multi-threaded run and takes them back after it;
  // empty (the default), the loops run on the calling thread. Results do not depend on it.
  void SetRangeRunner(RangeRunner runner) { rangeRunner_ = std::move(runner); }
  const RangeRunner& GetRangeRunner() const { return rangeRunner_; }

  Analysis::Core::DoubleMatrix2D& GetSurfaceMatrix() { return *surface_; }
  void SetSurfaceMatrix(Analysis::Core::DoubleMatrix2D& surface);
  Analysis::Core::IntMatrix2D& GetIntensityMatrix() { return *intensity_; }
  void SetIntensityMatrix(Analysis::Core::IntMatrix2D& intensity) { intensity_ = &intensity; }

  // Debug matrices (inert, see the class comment).
  Analysis::Core::DoubleMatrix2D* GetDoubleMatrix(const std::string& name);
  Analysis::Core::IntMatrix2D* GetIntMatrix(const std::string& name);
  void StoreMatrix(const std::string& name, Analysis::Core::DoubleMatrix2D& matrix);
  void StoreMatrix(const std::string& name, Analysis::Core::IntMatrix2D& matrix);
  Analysis::Core::Array<std::string> GetDoubleMatrixNames() const;
  Analysis::Core::Array<std::string> GetIntMatrixNames() const;

 protected:
  PhaseAlgorithm(unsigned line, const char* source);

  // The fringe-removal estimators (see the class comment); each stores its result at the pixel in
  // the intensity map and returns it, except RemoveFringesNone, which returns the int no-data value.
  int RemoveFringesNone(int thread, int pixel, int peakFrame);
  int StandardRemoveFringes(int thread, int pixel, int peakFrame);
  int RemoveFringes64BucketFull(int thread, int pixel, int peakFrame);
  int RemoveFringes64BucketSimple(int thread, int pixel, int peakFrame);

  // Stores a rounded intensity at the pixel and returns it.
  int StoreIntensity(int pixel, double value);

  const double* SignalOf(int thread) const;

  Analysis::Core::UnitNumber scanIncrement_{1.0};
  FringeRemovalFunction fringeRemoval_ = &PhaseAlgorithm::StandardRemoveFringes;
  double scanIncrementValue_ = 1.0;  // |scan increment| in nanometres (unit code 6), set per pass
  int numberFrames_ = 0;
  int signalSize_ = 0;
  int halfSignalSize_ = 0;
  int numberPixels_ = 0;
  int numberThreads_ = 0;
  Analysis::Core::DoubleMatrix2D ownSurface_;
  Analysis::Core::DoubleMatrix2D* surface_ = &ownSurface_;
  Analysis::Core::IntMatrix2D ownIntensity_;
  Analysis::Core::IntMatrix2D* intensity_ = &ownIntensity_;
  int expectedSignalSize_ = 64;
  double maxScanValue_ = 255.0;
  FringeRemovalMethod removeFringes_{FringeRemovalMethod::kStandard};
  int currentPass_ = 0;
  std::unique_ptr<Analysis::Core::Array<int>> tracePixels_;
  std::vector<ThreadSignalBuffer> threadBuffers_;
  RangeRunner rangeRunner_;
  // Name-to-matrix tables of the debug matrices; this design keeps them empty.
  std::map<std::string, Analysis::Core::DoubleMatrix2D*> debugDoubleMatrices_;
  std::map<std::string, Analysis::Core::IntMatrix2D*> debugIntMatrices_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

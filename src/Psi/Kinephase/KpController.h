#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Analysis/Core/Threading/ThreadDispatcher.h"
#include "Analysis/Core/Window2D.h"
#include "Core/Board/BoardController.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {

class KpBoard;
namespace detail {
class KpFilterKernel;
}

// KpController
//
// Runs the steps of the carrier-fringe pipeline against the `KpBoard` it is wired to (the board
// wires its own controller); it keeps no state but the board pointer, its dispatcher, which
// spreads rows over worker threads for the filter, the filtering of the spectrum, the loading of
// the frame, the phase extraction and the trim, and the trim's row scratch.
//
// The pipeline of `Process`:
//   frame (doubles) --forward FFT--> spectrum x filter (one side lobe) --inverse FFT--> complex
//   image z --carrier removal--> z e^{2 pi i k / P} --> phase = atan2(Im z, Re z) x sign x scale,
//   modulation = 2 |z| (a fringe a + b cos(...) gives b), no data where the modulation is below
//   the threshold, then the trim of valid phase around large no-data areas and the mask.
// On the board's fast path the steps from the filter to the marking of no-data pixels run inside
// the passes of the transform (Fft2D::FilterRoundTrip), on the transform's workers, and the mask
// rides on the trim's last pass; the results are those of the steps one after the other, the
// phase within a few ulp (a vector atan2).
//
// A step that fails records its failure in the board's status and the run stops there. The status
// is not cleared by a run: an earlier failure stays until a later one overwrites it, except that a
// carrier subtraction assigns its own outcome (success included) to the board's status.
class QUARN_PP_EXPORT KpController : public BoardController<KpBoard> {
 public:
  KpController();
  KpController(const KpController& other);
  KpController& operator=(const KpController& other);
  ~KpController() override;

  // False (no status) without a board; false with code 21 "The width is undefined" or "The height
  // is undefined" for a size of 0 or less; true otherwise.
  bool IsWired();

  void SetIntensity(Analysis::Core::FrameBuffer& frames, int frame);
  void SetIntensity(Analysis::Core::FrameBuffer& frames, int frame,
                    const Analysis::Core::RegionIdMatrix2D& mask);
  void Prepare(const Analysis::Core::Window2D& window);
  void Process(Analysis::Core::DoubleMatrix2D& phase);
  void Process(Analysis::Core::DoubleMatrix2D& phase, Analysis::Core::DoubleMatrix2D& modulation);
  void ProcessRealImag(Analysis::Core::DoubleMatrix2D& real, Analysis::Core::DoubleMatrix2D& imaginary);
  void GetFilter(Analysis::Core::DoubleMatrix2D& filter);
  void GetTrimRegions(Analysis::Core::RegionIdMatrix2D& regions);

  // The trim step of `Process` on its own: every no-data area of the phase map of at least the
  // board's minRegionSizeToTrim pixels (8-connected) grows by one pixel (3 x 3) into the valid
  // phase; smaller areas stay as they are. The kept areas are left in the board's trimRegions.
  // False (status set) when a working map cannot be sized.
  bool ApplyTrim(Analysis::Core::DoubleMatrix2D& phase);

  int GetNumberOfThreads() const { return requestedWorkers_; }
  void SetNumberOfThreads(int n);

 private:
  struct ExtractJob;
  struct TrimJob;

  bool LoadFrame(Analysis::Core::FrameBuffer& frames, int frame);
  bool EnsureIntensity();
  bool Process();
  bool ProcessFused(Analysis::Core::DoubleMatrix2D& phase, ExtractJob& job);
  bool Trim(Analysis::Core::DoubleMatrix2D& phase, const Analysis::Core::RegionIdMatrix2D* mask);
  bool UpdateFftSize();
  bool UpdateFilterSize();
  bool UpdateFilter();
  // False (status set) for a kernel of less than one pixel per fringe.
  bool CheckKernel();
  void ApplyMask(Analysis::Core::DoubleMatrix2D& phase);
  // `modulation` null: the phase only (the modulation is formed per pixel for the threshold).
  void ProcessBody(Analysis::Core::DoubleMatrix2D& phase, Analysis::Core::DoubleMatrix2D* modulation);

  void CalculateFilter(int first, int end);
  void ApplyFilter(int first, int end);
  void ExtractPhaseAndModulation(void* job, int thread, int first, int end);
  void LoadIntensity(int first, int end);
  static void LoadTransformRow(void* controller, int row, std::complex<double>* elements);
  void MarkTrimRows(int first, int end);
  void ApplyTrimRows(void* job, int thread, int first, int end);
  // The steps the fused run does inside the transform's passes.
  static void FilterBlock(void* controller, int firstColumn, int columnCount, std::complex<double>* spectrum,
                          std::ptrdiff_t stride);
  static void FilterBlockAsItGoes(void* controller, int firstColumn, int columnCount,
                                  std::complex<double>* spectrum, std::ptrdiff_t stride);
  static void FinishRow(void* job, int row, std::complex<double>* signal);

  // Runs a row function over [0, rows) on the workers or, when multithreading is off, in one call.
  void Rows(void (KpController::*work)(int, int), int rows);
  void Rows(void (KpController::*work)(void*, int, int, int), void* job, int rows);
  // Catches what escapes a public operation into the board's status.
  template <typename F>
  void Guarded(F&& body);

  Analysis::Core::Threading::ThreadDispatcher<KpController> dispatcher_;
  int requestedWorkers_ = 1;
  // Per row of the trim: 1 where a kept no-data area's bounding box reaches. Scratch of one run.
  std::vector<std::uint8_t> trimRows_;
  // The filter of the current low-memory run, evaluated in its column pass.
  std::unique_ptr<detail::KpFilterKernel> filterKernel_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase

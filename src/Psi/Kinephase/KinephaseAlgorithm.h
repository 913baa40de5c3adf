#pragma once

#include <algorithm>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Analysis/Core/Status.h"
#include "Analysis/Core/Window2D.h"
#include "Psi/Kinephase/KpBoard.h"
#include "Psi/Kinephase/KpKernelSelector.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {

// KinephaseAlgorithm
//
// Phase and modulation from a single interferogram with a spatial carrier: straight fringes tilted
// along a diagonal, a few pixels per fringe, on which the surface phase rides. The frame is
// transformed into the frequency domain, one side lobe of the carrier is kept by a fixed analytic
// filter (`KpKernelSelector`: pixels per fringe and the quadrant of the lobe, see `KpQuadrant`),
// the result is transformed back, the carrier is rotated away, and each pixel's complex value z
// gives
//   phase      = atan2(Im z, Re z) x dataSign x (radians-to-map-unit factor), in (-pi, pi] before
//                the factor for a map in radians (data sign -1 by default),
//   modulation = 2 |z| in counts (a fringe a + b cos(...) reads b).
// Pixels whose modulation is below the threshold (percent of half the frame buffer's saturation
// level, default 0: every pixel kept) get no data; a one-pixel rim of valid phase is then trimmed
// around every no-data area of at least `GetMinRegionSizeToTrim()` pixels (default 10), where the
// filter rings; pixels outside an optional mask get no data. The phase map's unit manager, asked
// for radians (unit 91), gives the factor into the map's unit, so a map in nanometres with a
// wavelength receives surface height.
//
// What the method cannot know: a constant phase (the absolute fringe order, and the carrier's
// phase at the origin), and the sign of the phase when the lobe of the other quadrant is selected.
// Near the frame border and around obscurations the phase carries the filter's ringing.
//
// All state lives in the board (`KpBoard`); this facade reads and writes it. Rows are spread over
// worker threads (default: one per processor); results are identical for every thread count. The
// steps after the forward transform run inside the passes of the transforms, and the phase is taken
// four pixels at a time with a vector atan2 (SLEEF, within a few ulp of libm's);
// `SetUseFastPath(false)` runs the plain reference, one step and one pixel at a time.
//
//   FrameBuffer frame;            // one 8-bit frame of 4-pixel carrier fringes, lobe in quadrant 2
//   KinephaseAlgorithm kinephase;
//   kinephase.SelectKernel(KpKernelSelector(4, KpQuadrant::Quadrant2));
//   kinephase.SetModulationThreshold(10.0);
//   kinephase.SetIntensity(frame, 0);
//   DoubleMatrix2D phase, modulation;
//   kinephase.Process(phase, modulation);
//   if (kinephase.GetStatus().IsError()) ...   // code 1: no valid pixel
//
// The status is not cleared by a run (see `KpController`); a host that processes again and wants a
// fresh record clears it with GetStatus().ClearError().
class QUARN_PP_EXPORT KinephaseAlgorithm {
 public:
  KinephaseAlgorithm() = default;

  bool GetAllowMultiThreads() const { return board_.allowMultiThreads; }
  void SetAllowMultiThreads(bool allow) { board_.allowMultiThreads = allow; }
  int GetNumberOfThreads() const { return board_.controller.GetNumberOfThreads(); }
  void SetNumberOfThreads(int n) { board_.controller.SetNumberOfThreads(n); }
  bool GetSubtractCarrier() const { return board_.subtractCarrier; }
  void SetSubtractCarrier(bool subtract) { board_.subtractCarrier = subtract; }
  bool GetUseTrim() const { return board_.useTrim; }
  void SetUseTrim(bool use) { board_.useTrim = use; }
  int GetDataSign() const { return board_.dataSign; }
  void SetDataSign(int sign) { board_.dataSign = sign; }
  double GetModulationThreshold() const { return board_.modulationThreshold; }
  void SetModulationThreshold(double percent) {
    board_.modulationThreshold = std::clamp(percent, 0.0, 100.0);
  }
  // The threshold in counts: percent of half the intensity range.
  double GetModulationThresholdInCounts() const {
    return board_.modulationThreshold / 100.0 * 0.5 * board_.intensityRange;
  }
  int GetMinRegionSizeToTrim() const { return board_.minRegionSizeToTrim; }
  void SetMinRegionSizeToTrim(int pixels) { board_.minRegionSizeToTrim = std::max(pixels, 0); }
  const KpKernelSelector& GetKernelSelector() const { return board_.kernelSelector; }
  bool GetUseFastPath() const { return board_.useFastPath; }
  void SetUseFastPath(bool use) { board_.useFastPath = use; }
  // Lower peak memory for one frame at a time: see KpBoard::lowMemory.
  bool GetLowMemory() const { return board_.lowMemory; }
  void SetLowMemory(bool low) { board_.lowMemory = low; }
  // Whether the filter matches the current size and kernel (false until the first build).
  bool GetFilterValid() const { return board_.filterValid; }

  // A different kernel (period or quadrant) invalidates the filter; the same kernel keeps it.
  void SelectKernel(const KpKernelSelector& selector);

  void SetIntensity(Analysis::Core::FrameBuffer& frames, int frame) {
    board_.controller.SetIntensity(frames, frame);
  }
  void SetIntensity(Analysis::Core::FrameBuffer& frames, int frame, Analysis::Core::RegionIdMatrix2D& mask) {
    board_.controller.SetIntensity(frames, frame, mask);
  }
  void Prepare(Analysis::Core::Window2D& window) { board_.controller.Prepare(window); }
  void Process(Analysis::Core::DoubleMatrix2D& phase) { board_.controller.Process(phase); }
  void Process(Analysis::Core::DoubleMatrix2D& phase, Analysis::Core::DoubleMatrix2D& modulation) {
    board_.controller.Process(phase, modulation);
  }
  void ProcessRealImag(Analysis::Core::DoubleMatrix2D& real, Analysis::Core::DoubleMatrix2D& imaginary) {
    board_.controller.ProcessRealImag(real, imaginary);
  }
  void GetFilter(Analysis::Core::DoubleMatrix2D& filter) { board_.controller.GetFilter(filter); }
  void GetTrimRegions(Analysis::Core::RegionIdMatrix2D& regions) {
    board_.controller.GetTrimRegions(regions);
  }

  // Accepted and without effect: the pipeline works on the raw intensities.
  void NormalizeIntensity() {}
  void CalculateMaskAndNormalizationMatrix() {}
  void SetNormalizationMatrix(Analysis::Core::DoubleMatrix2D& /*normalization*/) {}

  Analysis::Core::Status& GetStatus() { return board_.status; }
  const Analysis::Core::Status& GetStatus() const { return board_.status; }

 private:
  KpBoard board_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase

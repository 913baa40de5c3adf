#pragma once

#include <complex>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/Fft2D.h"
#include "Analysis/Core/Status.h"
#include "Analysis/Core/Threading/ThreadDispatcher.h"
#include "Psi/Kinephase/KpQuadrant.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {

// KpCarrierSubtractor
//
// Removes a spatial carrier of P pixels per fringe from the complex image held by an `Fft2D` (the
// kept side lobe transformed back), by rotating pixel (row y, column x) of an R x N image through
// 2 pi k / P with k = m mod P, where by orientation
//   1: m = R + N + y - x    2: m = x + y    3: m = R + N - y + x    4: m = R + N - y - x
// (any other orientation: m = x + y). The offset R + N only keeps m non-negative; where it is not a
// multiple of P it adds the constant 2 pi (R + N) / P to every pixel. The rotators e^{2 pi i k / P}
// are tabulated once per `Execute`, so no pixel evaluates a sine or a remainder.
//
// Rows are spread over the workers of the embedded dispatcher when allowed; each row is rotated
// with the same table, so the result does not depend on the thread count.
//
//   KpCarrierSubtractor subtractor;
//   subtractor.SetFft(fft);
//   subtractor.SetFringePeriod(4);
//   subtractor.SetOrientation(KpQuadrant::Quadrant2);
//   Status status = subtractor.Execute();
class QUARN_PP_EXPORT KpCarrierSubtractor {
 public:
  KpCarrierSubtractor();
  KpCarrierSubtractor(const KpCarrierSubtractor& other);
  KpCarrierSubtractor& operator=(const KpCarrierSubtractor& other);
  virtual ~KpCarrierSubtractor();

  void SetFft(Analysis::Core::Fft2D& fft) { fft_ = &fft; }
  void SetFringePeriod(int pixelsPerFringe) { fringePeriod_ = pixelsPerFringe; }
  int GetFringePeriod() const { return fringePeriod_; }
  void SetOrientation(KpQuadrant orientation) { orientation_ = orientation; }
  KpQuadrant GetOrientation() const { return orientation_; }
  void SetAllowMultiThreads(bool allow) { allowMultiThreads_ = allow; }
  bool GetAllowMultiThreads() const { return allowMultiThreads_; }
  int GetNumberOfThreads() const { return dispatcher_.GetNumberOfWorkers(); }
  void SetNumberOfThreads(int n) { dispatcher_.SetNumberOfWorkers(n); }

  // Rotates every pixel of the transform's data. Returns success, or code 21 without a transform,
  // code 20 for a period below 1, the rotator array's status when it cannot grow, or the first
  // failing chunk's status.
  Analysis::Core::Status Execute();

  // Execute in two halves, for a caller that rotates rows while they are in cache anyway: Prepare
  // checks and tabulates as Execute does and returns what Execute would return before rotating;
  // RowRotators then gives the rotators of row y in column order (element x for pixel x: Execute
  // turns z into (Re z cos - Im z sin, Re z sin + Im z cos) with (cos, sin) that element). Both
  // read only the transform's size, so rows may be worked on while the transform runs.
  Analysis::Core::Status Prepare();
  const std::complex<double>* RowRotators(int y) const;

 private:
  bool BuildRotators();
  void ApplyRotators(int first, int end);

  bool allowMultiThreads_ = true;
  int fringePeriod_ = 4;
  Analysis::Core::Fft2D* fft_ = nullptr;
  KpQuadrant orientation_ = KpQuadrant::Quadrant2;
  Analysis::Core::Array<std::complex<double>> rotators_;
  Analysis::Core::Threading::ThreadDispatcher<KpCarrierSubtractor> dispatcher_;
  Analysis::Core::Array<std::complex<double>> sequence_;  // the rotators in the order a row meets them
  int step_ = 1;
  int requestedWorkers_ = 1;
  Analysis::Core::Status status_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase

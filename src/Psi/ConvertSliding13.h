#pragma once

#include <memory>

#include "Psi/Converter.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

// ConvertSliding13
//
// The 13-frame kernel of `Convert13` slid over a longer stack of n >= 13 frames taken with the same
// nominal step of pi/4 per frame. `Initialize(n)` builds n-frame weights: the 13 base weights, plus
// one copy of the kernel per extra frame, shifted by s frames and rotated back by the nominal phase
// of that shift (theta = -s pi/4),
//   numerator[j + s]   += cos(theta) N[j] + sin(theta) D[j]
//   denominator[j + s] += cos(theta) D[j] - sin(theta) N[j]
// so that every copy measures the phase of frame 6. The sums are accumulated in double in frame
// order; the returned numerator carries the phase sign -1. Excursion (n - 1) pi/4.
//
// Before the first `Initialize` (n = 0) both weight pointers are null and `Convert` returns 0, 0.
// `Initialize` never throws: when the memory for new weights cannot be had, the converter goes back
// to that state (n = 0, null weights), which the converter generator rejects with a status, rather
// than keeping weights made for another frame count.
// Copies share the weight arrays of the original (a shallow copy, released with the last owner);
// a later `Initialize` with another n gives the initialised object arrays of its own.
class QUARN_PP_EXPORT ConvertSliding13 final : public Converter {
 public:
  ConvertSliding13() = default;

  void Initialize(int numberOfFrames) override;
  double GetModulationScale() const override { return 45.438; }
  void Convert(double& numerator, double& denominator, const int* samples) const override;
  void Convert(double& numerator, double& denominator, const unsigned char* samples) const override;
  const double* GetNumerator() const override { return numerator_.get(); }
  const double* GetDenominator() const override { return denominator_.get(); }
  double GetPhaseSign() const override { return -1.0; }
  double GetPhaseExcursion() const override { return (numberOfFrames_ - 1) * 0.7853981633974483; }

  int GetNumberOfFrames() const { return numberOfFrames_; }

 private:
  std::shared_ptr<double[]> numerator_;
  std::shared_ptr<double[]> denominator_;
  int numberOfFrames_ = 0;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

#pragma once

#include "Psi/Converter.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

// Convert7
//
// The 7-frame algorithm for steps of a quarter period: frame k has the phase shift
// psi_k = +90 deg x (k - 3), so the frames span 3 pi (the excursion is the literal 9.424778).
//   numerator   = 7 (I2 - I4) + I6 - I0            (weights -1, 0, 7, 0, -7, 0, 1)
//   denominator = 4 (2 I3 - I1 - I5)               (weights 0, -4, 0, 8, 0, -4, 0)
// formed in 32-bit integers and converted to double once; phase sign +1. For fringes a + b cos(phi
// + psi_k) the magnitude is 16 b, which the modulation scale 7.2 turns into the modulation.
//
// Its phase error under a linear miscalibration eps of the step is of fourth order in eps (a
// miscalibrated shifter still yields the phase to ~5e-6 rad at 5 %); third and fifth intensity
// harmonics leak into the phase unattenuated.
class QUARN_PP_EXPORT Convert7 final : public Converter {
 public:
  static constexpr int kFrames = 7;

  void Initialize(int) override {}
  double GetModulationScale() const override { return 7.2; }
  void Convert(double& numerator, double& denominator, const int* samples) const override;
  void Convert(double& numerator, double& denominator, const unsigned char* samples) const override;
  const double* GetNumerator() const override;
  const double* GetDenominator() const override;
  double GetPhaseSign() const override { return 1.0; }
  double GetPhaseExcursion() const override { return 9.424778; }
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

#pragma once

#include "Psi/Converter.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

// Convert13
//
// The 13-frame algorithm for steps of an eighth of a period, with phase sign -1: frame k has the
// phase shift psi_k = -45 deg x (k - 6) (the frames span 3 pi; the excursion is the literal
// 9.424778).
//   numerator weights   -3, -4, 0, 12, 21, 16, 0, -16, -21, -12, 0, 4, 3
//   denominator weights  0, -4, -12, -12, 0, 16, 24, 16, 0, -12, -12, -4, 0
// evaluated in the factored form
//   N = 4 (3 (I3 - I9) + 4 (I5 - I7) - I1 + I11) + 3 (7 (I4 - I8) + I12 - I0)
//   D = 4 (3 (2 I6 - I2 - I10 - I3 - I9) + 4 (I5 + I7) - I1 - I11)
// in 32-bit integers; the returned numerator is -N. For fringes a + b cos(phi + psi_k) the
// magnitude is about 93.26 b (modulation scale 45.438).
//
// It also serves as the base kernel of `ConvertSliding13`. Compared with `Convert7` it suppresses
// the third and fifth intensity harmonics some 30 times better; its error under a linear step
// miscalibration eps is of third order in eps.
class QUARN_PP_EXPORT Convert13 final : public Converter {
 public:
  static constexpr int kFrames = 13;
  static const double kNumeratorWeights[13];
  static const double kDenominatorWeights[13];

  void Initialize(int) override {}
  double GetModulationScale() const override { return 45.438; }
  void Convert(double& numerator, double& denominator, const int* samples) const override;
  void Convert(double& numerator, double& denominator, const unsigned char* samples) const override;
  const double* GetNumerator() const override { return kNumeratorWeights; }
  const double* GetDenominator() const override { return kDenominatorWeights; }
  double GetPhaseSign() const override { return -1.0; }
  double GetPhaseExcursion() const override { return 9.424778; }
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

#pragma once

#include "Psi/Converter.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

// Convert20
//
// The 20-frame algorithm of a sinusoidally driven phase shifter sampled over one drive period:
// frame k has the phase shift psi_k = 4.18 cos(2 pi (k + 0.75) / 20) radians (excursion 4.18, the
// literal constant). Its weights are symmetric under k -> 19 - k, so both sums are formed from
// paired samples: sums and differences of samples in 32-bit integers, converted to double and
// multiplied by the double coefficients
//   N = 0.07014 (I0 + I19 - I9 - I10) - 0.02966 (I1 + I18 - I8 - I11) - 0.01048 (I2 + I17 - I7 - I12)
//       - 0.13572 (I3 + I16 - I6 - I13) - 0.14926 (I4 + I15 - I5 - I14)
//   D = 0.06611 (I0 + I19 + I9 + I10) - 0.14129 (I1 + I18 + I8 + I11) - 0.01346 (I2 + I17 + I7 + I12)
//       - 0.08822 (I3 + I16 + I6 + I13) + 0.17686 (I4 + I15 + I5 + I14)
// Phase sign +1 (not applied, it is 1); modulation scale 0.5. The coefficients are given to five
// digits, which limits the phase of ideal fringes to about 1e-6 rad.
class QUARN_PP_EXPORT Convert20 final : public Converter {
 public:
  static constexpr int kFrames = 20;
  static const double kNumeratorWeights[20];
  static const double kDenominatorWeights[20];

  void Initialize(int) override {}
  double GetModulationScale() const override { return 0.5; }
  void Convert(double& numerator, double& denominator, const int* samples) const override;
  void Convert(double& numerator, double& denominator, const unsigned char* samples) const override;
  const double* GetNumerator() const override { return kNumeratorWeights; }
  const double* GetDenominator() const override { return kDenominatorWeights; }
  double GetPhaseSign() const override { return 1.0; }
  double GetPhaseExcursion() const override { return 4.18; }
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

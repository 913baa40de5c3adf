#pragma once

#include <complex>

#include "Analysis/Core/Array.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// Dispersion
//
// The phase gap between the object and the reference arm that the objective's glass adds, beyond
// the path difference the scan sets. With c = cos θ:
//   no-theta gap (real, rad):   d0·x² + d1·x·c + d2·c² + d3·x + d4·c + d5,
//   two-theta gap (complex):    (t0·c² + t1·c + t2) + i·(t3·c² + t4·c + t5).
// The library generator evaluates both with x = k (angular wavenumber, rad/µm) and θ = β (pupil
// angle) and multiplies the reflection coefficient by exp(i·(no-theta + two-theta)): the real part
// of the sum is a phase, the imaginary part of the two-theta gap an attenuation exp(−Im). All zero
// coefficients leave the signal unchanged.
class QUARN_PP_EXPORT Dispersion {
 public:
  Dispersion() = default;

  void SetNoThetaCoefficients(double d0, double d1, double d2, double d3, double d4, double d5);
  // Copies the first 6 elements; an array with fewer changes nothing.
  void SetNoThetaCoefficients(const Analysis::Core::Array<double>& d);
  void GetNoThetaCoefficients(Analysis::Core::Array<double>& d) const;
  void SetTwoThetaCoefficients(double t0, double t1, double t2, double t3, double t4, double t5);
  void SetTwoThetaCoefficients(const Analysis::Core::Array<double>& t);
  void GetTwoThetaCoefficients(Analysis::Core::Array<double>& t) const;
  void Clear();

  bool IsZero() const;
  double NoThetaPhaseGap(double x, double theta) const;
  // The first argument is not used (kept for symmetry with NoThetaPhaseGap).
  std::complex<double> TwoThetaPhaseGap(double x, double theta) const;

 private:
  double c_[12] = {};  // d0..d5, then t0..t5
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

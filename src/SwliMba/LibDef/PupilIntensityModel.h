#pragma once

#include "Analysis/Core/Array.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// PupilIntensityModel
//
// The relative illumination over the objective's pupil at one wavelength, at pupil angle θ and
// azimuth φ, in pupil coordinates x = cos φ sin θ, y = sin φ sin θ:
//   I = q0·x² + q1·x·y + q2·y² + q3·x + q4·y + q5
// minus, when the amplitude is not 0, two Gaussian dark bands symmetric about the line r = 0 with
//   r = cos(RhoAngle)·x + sin(RhoAngle)·y − Rho1:
//   Amplitude × (exp(−(r − Distance)² / Variance) + exp(−(r + Distance)² / Variance)).
// The result is not clamped.
class QUARN_PP_EXPORT PupilIntensityModel {
 public:
  PupilIntensityModel() = default;

  void SetPolynomial(double q0, double q1, double q2, double q3, double q4, double q5);
  // Copies the first 6 elements; an array with fewer changes nothing.
  void SetPolynomial(const Analysis::Core::Array<double>& q);
  void GetPolynomial(Analysis::Core::Array<double>& q) const;
  double GetDarkBandsRhoAngle() const { return c_[6]; }
  void SetDarkBandsRhoAngle(double v) { c_[6] = v; }
  double GetDarkBandsRho1() const { return c_[7]; }
  void SetDarkBandsRho1(double v) { c_[7] = v; }
  double GetDarkBandsAmplitude() const { return c_[8]; }
  void SetDarkBandsAmplitude(double v) { c_[8] = v; }
  double GetDarkBandsDistance() const { return c_[9]; }
  void SetDarkBandsDistance(double v) { c_[9] = v; }
  double GetDarkBandsVariance() const { return c_[10]; }
  void SetDarkBandsVariance(double v) { c_[10] = v; }
  void Clear();

  double Intensity(double theta, double phi) const;

 private:
  double c_[11] = {};  // q0..q5, RhoAngle, Rho1, Amplitude, Distance, Variance
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

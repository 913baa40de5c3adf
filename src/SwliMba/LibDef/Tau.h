#pragma once

#include <complex>

#include "Analysis/Core/Array.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// Tau
//
// The complex transmission ratio of the object arm to the reference arm of the objective, as a
// function of the angular wavenumber a = k (rad/µm) and the pupil angle b = β (rad):
//   magnitude M = 1 − (m0 + m1·a + m2·a²)·b² − (m3 + m4·a + m5·a²)·b³,
//   phase     Φ = (p0 + p1·a + p2·a² + p3·a³)·b² + (p4 + p5·a + p6·a² + p7·a³)·b³,
//   ratio     M·cos Φ + i·M·sin Φ.
// On the axis (b = 0) the ratio is 1: it describes how the pupil's edge differs from its centre.
// With all coefficients zero the ratio is exactly 1. The library generator multiplies the sample's
// reflection coefficient by it.
class QUARN_PP_EXPORT Tau {
 public:
  Tau() = default;

  void SetMagCoefficients(double m0, double m1, double m2, double m3, double m4, double m5);
  // Copies the first 6 elements; an array with fewer changes nothing.
  void SetMagCoefficients(const Analysis::Core::Array<double>& m);
  // Resizes `m` to 6 and fills it (returns with the array's own status set when it cannot grow).
  void GetMagCoefficients(Analysis::Core::Array<double>& m) const;
  void SetPhaseCoefficients(double p0, double p1, double p2, double p3, double p4, double p5, double p6,
                            double p7);
  // Copies the first 8 elements; an array with fewer changes nothing.
  void SetPhaseCoefficients(const Analysis::Core::Array<double>& p);
  void GetPhaseCoefficients(Analysis::Core::Array<double>& p) const;
  void Clear();

  // True when every coefficient is zero (the ratio is 1 everywhere).
  bool IsIdentity() const;
  std::complex<double> TransmissionRatio(double a, double b) const;

 private:
  double c_[14] = {};  // m0..m5, then p0..p7
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

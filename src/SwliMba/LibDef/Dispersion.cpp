#include "SwliMba/LibDef/Dispersion.h"

#include <algorithm>
#include <cmath>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

using Analysis::Core::Array;

void Dispersion::SetNoThetaCoefficients(double d0, double d1, double d2, double d3, double d4, double d5) {
  const double d[6] = {d0, d1, d2, d3, d4, d5};
  std::copy(d, d + 6, c_);
}

void Dispersion::SetNoThetaCoefficients(const Array<double>& d) {
  if (d.Size() < 6) return;
  std::copy(d.Data(), d.Data() + 6, c_);
}

void Dispersion::GetNoThetaCoefficients(Array<double>& d) const {
  if (!d.Resize(6)) return;
  std::copy(c_, c_ + 6, d.Data());
}

void Dispersion::SetTwoThetaCoefficients(double t0, double t1, double t2, double t3, double t4, double t5) {
  const double t[6] = {t0, t1, t2, t3, t4, t5};
  std::copy(t, t + 6, c_ + 6);
}

void Dispersion::SetTwoThetaCoefficients(const Array<double>& t) {
  if (t.Size() < 6) return;
  std::copy(t.Data(), t.Data() + 6, c_ + 6);
}

void Dispersion::GetTwoThetaCoefficients(Array<double>& t) const {
  if (!t.Resize(6)) return;
  std::copy(c_ + 6, c_ + 12, t.Data());
}

void Dispersion::Clear() {
  std::fill(c_, c_ + 12, 0.0);
}

bool Dispersion::IsZero() const {
  return std::all_of(c_, c_ + 12, [](double c) { return c == 0.0; });
}

double Dispersion::NoThetaPhaseGap(double x, double theta) const {
  const double c = std::cos(theta);
  return c_[0] * x * x + c_[1] * x * c + c_[2] * c * c + c_[3] * x + c_[4] * c + c_[5];
}

std::complex<double> Dispersion::TwoThetaPhaseGap(double /*x*/, double theta) const {
  const double c = std::cos(theta);
  const double* t = c_ + 6;
  return {t[0] * c * c + t[1] * c + t[2], t[3] * c * c + t[4] * c + t[5]};
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

#include "SwliMba/LibDef/Tau.h"

#include <algorithm>
#include <cmath>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

using Analysis::Core::Array;

void Tau::SetMagCoefficients(double m0, double m1, double m2, double m3, double m4, double m5) {
  const double m[6] = {m0, m1, m2, m3, m4, m5};
  std::copy(m, m + 6, c_);
}

void Tau::SetMagCoefficients(const Array<double>& m) {
  if (m.Size() < 6) return;
  std::copy(m.Data(), m.Data() + 6, c_);
}

void Tau::GetMagCoefficients(Array<double>& m) const {
  if (!m.Resize(6)) return;
  std::copy(c_, c_ + 6, m.Data());
}

void Tau::SetPhaseCoefficients(double p0, double p1, double p2, double p3, double p4, double p5, double p6,
                               double p7) {
  const double p[8] = {p0, p1, p2, p3, p4, p5, p6, p7};
  std::copy(p, p + 8, c_ + 6);
}

void Tau::SetPhaseCoefficients(const Array<double>& p) {
  if (p.Size() < 8) return;
  std::copy(p.Data(), p.Data() + 8, c_ + 6);
}

void Tau::GetPhaseCoefficients(Array<double>& p) const {
  if (!p.Resize(8)) return;
  std::copy(c_ + 6, c_ + 14, p.Data());
}

void Tau::Clear() {
  std::fill(c_, c_ + 14, 0.0);
}

bool Tau::IsIdentity() const {
  return std::all_of(c_, c_ + 14, [](double c) { return c == 0.0; });
}

std::complex<double> Tau::TransmissionRatio(double a, double b) const {
  const double* m = c_;
  const double* p = c_ + 6;
  const double b2 = b * b;
  const double b3 = b2 * b;
  const double magnitude =
      1.0 - (m[0] + m[1] * a + m[2] * a * a) * b2 - (m[3] + m[4] * a + m[5] * a * a) * b3;
  const double phase = (p[0] + p[1] * a + p[2] * a * a + p[3] * a * a * a) * b2 +
                       (p[4] + p[5] * a + p[6] * a * a + p[7] * a * a * a) * b3;
  return {magnitude * std::cos(phase), magnitude * std::sin(phase)};
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

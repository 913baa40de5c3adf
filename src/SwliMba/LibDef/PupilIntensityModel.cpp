#include "SwliMba/LibDef/PupilIntensityModel.h"

#include <algorithm>
#include <cmath>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

using Analysis::Core::Array;

void PupilIntensityModel::SetPolynomial(double q0, double q1, double q2, double q3, double q4, double q5) {
  const double q[6] = {q0, q1, q2, q3, q4, q5};
  std::copy(q, q + 6, c_);
}

void PupilIntensityModel::SetPolynomial(const Array<double>& q) {
  if (q.Size() < 6) return;
  std::copy(q.Data(), q.Data() + 6, c_);
}

void PupilIntensityModel::GetPolynomial(Array<double>& q) const {
  if (!q.Resize(6)) return;
  std::copy(c_, c_ + 6, q.Data());
}

void PupilIntensityModel::Clear() {
  std::fill(c_, c_ + 11, 0.0);
}

double PupilIntensityModel::Intensity(double theta, double phi) const {
  const double s = std::sin(theta);
  const double x = std::cos(phi) * s;
  const double y = std::sin(phi) * s;
  double intensity = c_[0] * x * x + c_[1] * x * y + c_[2] * y * y + c_[3] * x + c_[4] * y + c_[5];
  const double amplitude = c_[8];
  if (amplitude != 0.0) {
    const double r = std::cos(c_[6]) * x + std::sin(c_[6]) * y - c_[7];
    const double distance = c_[9];
    const double variance = c_[10];
    intensity -= amplitude * (std::exp(-(r - distance) * (r - distance) / variance) +
                              std::exp(-(r + distance) * (r + distance) / variance));
  }
  return intensity;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

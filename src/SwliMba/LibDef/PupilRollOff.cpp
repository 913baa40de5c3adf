#include "SwliMba/LibDef/PupilRollOff.h"

#include <algorithm>
#include <cmath>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

using Analysis::Core::Array;

namespace {
constexpr double kPi = 3.141592653589793;

double Clamp(double v) {
  return v < 0.0 ? 0.0 : v;
}
}  // namespace

void PupilRollOff::SetModelNumber(int n) {
  if (n >= 0 && n < kNumberOfModels) modelNumber_ = n;
}

void PupilRollOff::SetParameters(const Array<double>& p) {
  const int n = p.Size();
  if (n >= 1 && n <= 6) {
    std::copy(p.Data(), p.Data() + n, p_);
    return;
  }
  // Seven values are taken whatever the length; an empty array still has storage, but only when it
  // can hold seven is there anything defined to read.
  if (n == 0 && (p.Data() == nullptr || p.Capacity() < kNumberOfParameters)) return;
  std::copy(p.Data(), p.Data() + kNumberOfParameters, p_);
}

void PupilRollOff::GetParameters(Array<double>& p) const {
  if (!p.Resize(kNumberOfParameters)) return;
  std::copy(p_, p_ + kNumberOfParameters, p.Data());
}

void PupilRollOff::Clear() {
  modelNumber_ = 6;
  std::fill(p_, p_ + kNumberOfParameters, 0.0);
}

bool PupilRollOff::IsUnset() const {
  return std::all_of(p_, p_ + kNumberOfParameters, [](double v) { return v == 0.0; });
}

double PupilRollOff::Model2(double s) const {
  if (s < p_[0]) return Clamp(p_[2] - p_[3] * std::fabs(s - p_[0]));
  if (s < p_[1]) return p_[2];
  const double d = std::fabs(s - p_[1]);
  return Clamp(p_[2] - p_[4] * d * d * d);
}

double PupilRollOff::Model(double alpha) const {
  const double s = std::sin(alpha);
  const double c = std::cos(alpha);
  switch (modelNumber_) {
    case 1:
      if (c <= p_[0]) return Clamp(p_[1] - p_[2] * (c - p_[0]) * (c - p_[0]));
      if (c <= p_[3]) return p_[1];
      return 0.0;
    case 2:
      return Model2(s);
    case 3: {
      if (s < p_[0]) return Clamp(p_[2] - p_[6] * std::fabs(p_[0] - p_[5]) - p_[3] * std::fabs(s - p_[0]));
      if (s < p_[5]) return p_[2] - p_[6] * std::fabs(s - p_[5]);
      if (s < p_[1]) return p_[2];
      const double d = std::fabs(s - p_[1]);
      return Clamp(p_[2] - p_[4] * d * d * d);
    }
    case 4:
      if (s < p_[0]) return Clamp(p_[2] - p_[3] * std::fabs(s - p_[0]));
      if (s < p_[1]) return p_[2];
      return Clamp(p_[2] - p_[4] * std::fabs(s - p_[1]));
    case 5:
      if (s < p_[5] || s > p_[6]) return 0.0;
      return Model2(s);
    case 6:
      if (s < p_[5] || s > p_[6]) return 0.0;
      if (s < p_[0]) return Clamp(p_[2] - p_[3] * std::fabs(s - p_[0]));
      if (s < p_[1]) return p_[2];
      return Clamp(p_[2] * (0.5 * std::cos(std::min(p_[4] * std::fabs(s - p_[1]), kPi)) + 0.5));
    default:
      return 0.0;
  }
}

double PupilRollOff::GetAlphaMin() const {
  if (modelNumber_ == 1) return std::acos(p_[3]);
  if (modelNumber_ == 5 || modelNumber_ == 6) return std::asin(p_[5]);
  return std::asin(0.0);
}

double PupilRollOff::GetAlphaMax() const {
  if (modelNumber_ == 5 || modelNumber_ == 6) return std::asin(p_[6]);
  if (modelNumber_ == 1) return std::acos(0.0);
  return std::asin(1.0);
}

void PupilRollOff::GetTransitions(Array<double>& candidates, double alphaMax, Array<double>& out) {
  std::sort(candidates.begin(), candidates.end());
  for (double a : candidates) {
    if (a < alphaMax) out.Add(a);
  }
  out.Add(alphaMax);
}

void PupilRollOff::GetTransitions(double alphaMax, Array<double>& out) const {
  switch (modelNumber_) {
    case 1:
      GetTransitions1(alphaMax, out);
      break;
    case 2:
      GetTransitions2(alphaMax, out);
      break;
    case 3:
      GetTransitions3(alphaMax, out);
      break;
    case 4:
      GetTransitions4(alphaMax, out);
      break;
    case 5:
      GetTransitions5(alphaMax, out);
      break;
    case 6:
      GetTransitions6(alphaMax, out);
      break;
    default:
      out.Clear();
      break;
  }
}

// Model 1 lives in cosine space: the inner (obscuration) edge acos(p3) opens the aperture, the
// parabolic flank starts at acos(p0).
void PupilRollOff::GetTransitions1(double alphaMax, Array<double>& out) const {
  out.Clear();
  const double a3 = std::acos(p_[3]);
  const double a0 = std::acos(p_[0]);
  if (a3 >= alphaMax) return;
  out.Add(a3);
  if (a0 < alphaMax) out.Add(a0);
  out.Add(alphaMax);
}

void PupilRollOff::GetTransitions2(double alphaMax, Array<double>& out) const {
  out.Clear();
  Array<double> edges;
  edges.Add(std::asin(p_[0]), std::asin(p_[1]));
  GetTransitions(edges, alphaMax, out);
}

void PupilRollOff::GetTransitions3(double alphaMax, Array<double>& out) const {
  out.Clear();
  Array<double> edges;
  edges.Add(std::asin(p_[0]), std::asin(p_[5]), std::asin(p_[1]));
  GetTransitions(edges, alphaMax, out);
}

void PupilRollOff::GetTransitions4(double alphaMax, Array<double>& out) const {
  GetTransitions2(alphaMax, out);
}

// Models 5 and 6 share their edges: the aperture p5 .. p6 in sine space around the flat top p0 .. p1.
void PupilRollOff::GetTransitions5(double alphaMax, Array<double>& out) const {
  GetTransitions6(alphaMax, out);
}

void PupilRollOff::GetTransitions6(double alphaMax, Array<double>& out) const {
  out.Clear();
  const double a5 = std::asin(p_[5]);
  const double a0 = std::asin(p_[0]);
  const double a1 = std::asin(p_[1]);
  const double a6 = std::asin(p_[6]);
  if (a5 >= alphaMax) return;  // the aperture is closed below αmax
  if (a0 >= alphaMax) {
    out.Add(a5, alphaMax);
  } else if (a1 >= alphaMax) {
    out.Add(a5, a0, alphaMax);
  } else if (a6 >= alphaMax) {
    out.Add(a5, a0, a1, alphaMax);
  } else {
    out.Add(a5, a0, a1, a6);  // beyond the aperture edge the transmission is 0
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

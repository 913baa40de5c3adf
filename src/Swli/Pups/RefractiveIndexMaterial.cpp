#include "Swli/Pups/RefractiveIndexMaterial.h"

#include <algorithm>
#include <cmath>
#include <new>

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups {

using Analysis::Core::Array;
using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;
namespace StatusFacility = Analysis::Core::StatusFacility;

namespace {
constexpr const char* kSource = "Swli\\Pups\\RefractiveIndexMaterial";
}  // namespace

RefractiveIndexMaterial::RefractiveIndexMaterial() : status_(__LINE__, kSource) {}

std::string RefractiveIndexMaterial::Validate(const std::string& model, const Array<double>& parameters) {
  for (double p : parameters) {
    if (!std::isfinite(p)) return "parameters must be finite numbers";
  }
  if (model == kCauchyModel) {
    if (parameters.Size() != kCauchyParameters) {
      return "model \"Complex-Cauchy/um\" takes 6 parameters, not " + std::to_string(parameters.Size());
    }
    return "";
  }
  if (model == kTableModel) {
    if (parameters.Size() < 3 || parameters.Size() % 3 != 0) {
      return "model \"Table\" takes (wavelength, n, k) triples";
    }
    for (int i = 0; i < parameters.Size(); i += 3) {
      if (parameters[i] <= 0.0) return "table wavelengths must be positive";
      if (i > 0 && parameters[i] <= parameters[i - 3]) return "table wavelengths must ascend strictly";
      if (parameters[i + 2] < 0.0) return "table extinction k must not be negative";
    }
    return "";
  }
  return "unknown model \"" + model + "\"";
}

bool RefractiveIndexMaterial::Set(const std::string& model, const Array<double>& parameters) {
  const std::string reason = Validate(model, parameters);
  if (!reason.empty()) {
    status_ = Status(StatusFacility::kFilm, StatusCode::kInvalidArgument, __LINE__, kSource, reason);
    return false;
  }
  Array<double> copy(parameters);
  if (copy.Size() != parameters.Size()) {
    status_ = Status(StatusFacility::kFilm, StatusCode::kAllocationFailed, __LINE__, kSource, "");
    return false;
  }
  model_ = model;
  parameters_ = std::move(copy);
  return true;
}

void RefractiveIndexMaterial::SetCauchy(double a, double b, double c, double d, double e, double f) {
  Array<double> p;
  p.Add(a, b, c, d, e);
  p.Add(f);
  Set(kCauchyModel, p);
}

bool RefractiveIndexMaterial::SetTable(const double* wavelengthUm, const double* n, const double* k,
                                       int count) {
  Array<double> p;
  for (int i = 0; i < count; ++i) {
    if (!p.Add(wavelengthUm[i], n[i], k[i])) {
      status_ = Status(StatusFacility::kFilm, StatusCode::kAllocationFailed, __LINE__, kSource, "");
      return false;
    }
  }
  return Set(kTableModel, p);
}

std::complex<double> RefractiveIndexMaterial::GetIndex(double wavelengthUm) const {
  const double* p = parameters_.Data();
  if (model_ == kCauchyModel && parameters_.Size() == kCauchyParameters) {
    const double inv2 = 1.0 / (wavelengthUm * wavelengthUm);
    const double inv4 = inv2 * inv2;
    return {p[0] + p[1] * inv2 + p[2] * inv4, p[3] + p[4] * inv2 + p[5] * inv4};
  }
  if (model_ == kTableModel && parameters_.Size() >= 3) {
    const int rows = parameters_.Size() / 3;
    if (wavelengthUm <= p[0]) return {p[1], p[2]};
    if (wavelengthUm >= p[3 * (rows - 1)]) return {p[3 * (rows - 1) + 1], p[3 * (rows - 1) + 2]};
    // First row whose wavelength is above λ; the interval is the one below it.
    int lo = 0;
    int hi = rows - 1;
    while (hi - lo > 1) {
      const int mid = (lo + hi) / 2;
      if (p[3 * mid] <= wavelengthUm) {
        lo = mid;
      } else {
        hi = mid;
      }
    }
    const double t = (wavelengthUm - p[3 * lo]) / (p[3 * hi] - p[3 * lo]);
    return {p[3 * lo + 1] + t * (p[3 * hi + 1] - p[3 * lo + 1]),
            p[3 * lo + 2] + t * (p[3 * hi + 2] - p[3 * lo + 2])};
  }
  return {1.0, 0.0};
}

RefractiveIndexMaterial* RefractiveIndexMaterial::Clone() const {
  auto* copy = new (std::nothrow) RefractiveIndexMaterial();
  if (copy == nullptr) return nullptr;
  copy->model_ = model_;
  copy->parameters_ = parameters_;
  if (copy->parameters_.Size() != parameters_.Size()) {
    delete copy;
    return nullptr;
  }
  return copy;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups

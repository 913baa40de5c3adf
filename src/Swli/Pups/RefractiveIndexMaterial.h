#pragma once

#include <complex>
#include <string>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups {

// RefractiveIndexMaterial
//
// The complex refractive index N(λ) = n(λ) + iκ(λ) of one material, wavelength λ in micrometres,
// with the time dependence exp(−iωt) throughout the film code: κ ≥ 0 absorbs. A material is a model
// name and a parameter array; the array is all there is to compare when two libraries must agree
// on a material, so every model keeps all of its data in it:
//
// - "Complex-Cauchy/um": six parameters A, B, C, D, E, F;
//     n(λ) = A + B/λ² + C/λ⁴,   κ(λ) = D + E/λ² + F/λ⁴.
// - "Table": triples (λ, n, κ) with strictly ascending positive λ, interpolated linearly in λ and
//   held at the end values outside the tabulated range (no extrapolation of a dispersion curve).
//
//   RefractiveIndexMaterial oxide;
//   oxide.SetCauchy(1.4485, 0.00354, 0, 0, 0, 0);
//   oxide.GetIndex(0.6);   // 1.4583 + 0i
class QUARN_PP_EXPORT RefractiveIndexMaterial {
 public:
  static constexpr const char* kCauchyModel = "Complex-Cauchy/um";
  static constexpr const char* kTableModel = "Table";
  static constexpr int kCauchyParameters = 6;

  RefractiveIndexMaterial();

  // Sets model and parameters. Fails (code 5, facility 10, nothing changed) for an unknown model or
  // parameters the model cannot use; `Validate` gives the reason.
  bool Set(const std::string& model, const Analysis::Core::Array<double>& parameters);
  void SetCauchy(double a, double b, double c, double d, double e, double f);
  // Table from parallel arrays (λ in µm, n, κ); false when they differ in length or `Validate` fails.
  bool SetTable(const double* wavelengthUm, const double* n, const double* k, int count);

  // Why the model and parameters cannot describe a material, or "" when they can.
  static std::string Validate(const std::string& model, const Analysis::Core::Array<double>& parameters);

  const std::string& GetModel() const { return model_; }
  const Analysis::Core::Array<double>& GetParameters() const { return parameters_; }
  // Direct access for the fitted variables of a library (Cauchy A and D); the caller keeps the
  // array valid for the model.
  Analysis::Core::Array<double>& GetParameters() { return parameters_; }

  bool IsCauchy() const { return model_ == kCauchyModel; }

  // N = n + iκ at wavelength λ (µm). A material without a model gives 1.
  std::complex<double> GetIndex(double wavelengthUm) const;

  // A deep copy made with non-throwing allocation; null when memory ran out.
  RefractiveIndexMaterial* Clone() const;

  Analysis::Core::Status& GetStatus() { return status_; }
  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  std::string model_;
  Analysis::Core::Array<double> parameters_;
  Analysis::Core::Status status_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups

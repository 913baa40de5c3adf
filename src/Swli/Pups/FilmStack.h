#pragma once

#include <complex>
#include <string>
#include <vector>

#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"
#include "Swli/Pups/RefractiveIndexLibrary.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups {

// FilmLayer
//
// One layer of a film stack: the name of its material in the stack's refractive-index library and
// its physical thickness in micrometres.
struct FilmLayer {
  std::string material;
  double thicknessUm = 0.0;
};

// FilmStack
//
// A planar multilayer: an ambient medium, layers listed from the top (the side of the ambient and
// the objective) down, and a semi-infinite substrate, all named by material in the
// `RefractiveIndexLibrary` the stack is built on (which must outlive it). The stack computes its
// amplitude reflection coefficients r_s and r_p for light of vacuum angular wavenumber k = 2π/λ
// (rad/µm) arriving from the ambient at the angle β (rad) to the normal:
//
// - time dependence exp(−iωt), indices N = n + iκ with κ ≥ 0 absorbing;
// - p-polarisation with the tilted admittance N / cosθ, s with N cosθ; both coefficients are ratios
//   of the reflected to the incident tangential electric field, so r_p = r_s = (N0 − N1)/(N0 + N1)
//   at normal incidence;
// - a layer of thickness t adds the one-way phase δ = k N cosθ t.
//
// Two independent evaluations are offered: the characteristic-matrix (transfer-matrix) method and
// the Airy recursion, which agree to rounding (a test checks them against each other and against
// closed forms).
//
//   RefractiveIndexLibrary materials;
//   materials.AddBuiltInMaterials();
//   FilmStack stack(materials);
//   stack.SetAmbient("Air");
//   stack.SetSubstrate("Si");
//   std::complex<double> rs, rp;
//   stack.GetReflection(2 * M_PI / 0.6, 0.0, rs, rp);   // bare silicon: rs = rp ≈ −0.595 − 0.002i
//
// Failures (facility 10, code 5): a material name the library does not hold, a negative or
// non-finite thickness, a layer index out of range.
class QUARN_PP_EXPORT FilmStack {
 public:
  enum class Method { kCharacteristicMatrix, kAiryRecursion };

  explicit FilmStack(RefractiveIndexLibrary& library);

  void SetAmbient(const std::string& material) { ambient_ = material; }
  void SetSubstrate(const std::string& material) { substrate_ = material; }
  // Appends a layer below the present ones.
  bool AddLayer(const std::string& material, double thicknessUm);
  // Empties ambient, substrate and layers.
  void Clear();

  const std::string& GetAmbient() const { return ambient_; }
  const std::string& GetSubstrate() const { return substrate_; }
  int GetNumberOfLayers() const { return static_cast<int>(layers_.size()); }
  // The layer at `index` (0 = top); the caller checks the index.
  const FilmLayer& GetLayer(int index) const { return layers_[index]; }
  bool SetLayerThickness(int index, double thicknessUm);
  // Sum of the thicknesses of the layers above layer `index` (all layers for the substrate index).
  double GetDepthOfLayerTop(int index) const;

  RefractiveIndexLibrary& GetRefractiveIndexLibrary() { return *library_; }
  const RefractiveIndexLibrary& GetRefractiveIndexLibrary() const { return *library_; }

  // The materials of media 0 (ambient) .. L + 1 (substrate), in `media`; false (status set, naming
  // the medium) when a name is not in the library.
  bool ResolveMaterials(std::vector<const RefractiveIndexMaterial*>& media);

  // r_s and r_p of the stack at vacuum wavenumber k (rad/µm) and incidence angle β (rad) in the
  // ambient. False (status set) when a material is missing; the outputs are then untouched.
  bool GetReflection(double wavenumber, double beta, std::complex<double>& rs, std::complex<double>& rp,
                     Method method = Method::kCharacteristicMatrix);

  Analysis::Core::Status& GetStatus() { return status_; }
  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  RefractiveIndexLibrary* library_;
  std::string ambient_;
  std::string substrate_;
  std::vector<FilmLayer> layers_;
  Analysis::Core::Status status_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups

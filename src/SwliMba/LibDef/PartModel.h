#pragma once

#include <memory>
#include <string>

#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"
#include "Swli/Pups/FilmStack.h"
#include "Swli/Pups/RefractiveIndexLibrary.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// PartModel
//
// The sample of a library: a film stack on the part model's own refractive-index library, and the
// index of the layer whose top surface is height zero (0: the top surface; the number of layers:
// the substrate's surface). Materials are imported from an external library by name: the first
// import copies the material, a later import of the same name must bring exactly the same data.
//
//   Swli::Pups::RefractiveIndexLibrary materials;      // Air, Si and the user's SiO2
//   PartModel part;
//   part.SetAmbient(materials, "Air");
//   part.AddLayer(materials, "SiO2", 1.0);
//   part.SetSubstrate(materials, "Si");
//
// Copies share the film stack and the internal library. Failures: "Internal and external material
// data do not match" (code 2), "External refractive index library does not contain the specified
// material" (code 20), "Material cloning failed" (code 2), allocation failures (code 3).
class QUARN_PP_EXPORT PartModel {
 public:
  PartModel();

  int GetZeroHeightLayerIndex() const { return zeroHeightLayerIndex_; }
  void SetZeroHeightLayerIndex(int index) { zeroHeightLayerIndex_ = index; }

  Swli::Pups::FilmStack& GetFilmStack() { return *filmStack_; }
  const Swli::Pups::FilmStack& GetFilmStack() const { return *filmStack_; }
  Swli::Pups::RefractiveIndexLibrary& GetRefractiveIndexLibrary() { return *refractiveIndexLibrary_; }
  const Swli::Pups::RefractiveIndexLibrary& GetRefractiveIndexLibrary() const {
    return *refractiveIndexLibrary_;
  }

  void SetAmbient(const Swli::Pups::RefractiveIndexLibrary& external, const std::string& material);
  void SetSubstrate(const Swli::Pups::RefractiveIndexLibrary& external, const std::string& material);
  void AddLayer(const Swli::Pups::RefractiveIndexLibrary& external, const std::string& material,
                double thicknessUm);
  void Clear();
  // A built-in self-test of the material handling; it has no result.
  void Test();

  Analysis::Core::Status& GetStatus() { return status_; }
  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  void ImportMaterial(const Swli::Pups::RefractiveIndexLibrary& external, const std::string& material);
  void ImportExistingMaterial(const Swli::Pups::RefractiveIndexLibrary& external,
                              const std::string& material);
  void ImportNewMaterial(const Swli::Pups::RefractiveIndexLibrary& external, const std::string& material);

  int zeroHeightLayerIndex_ = 0;
  Analysis::Core::Status status_;
  std::shared_ptr<Swli::Pups::FilmStack> filmStack_;
  std::shared_ptr<Swli::Pups::RefractiveIndexLibrary> refractiveIndexLibrary_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

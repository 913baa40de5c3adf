#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"
#include "Swli/Pups/RefractiveIndexMaterial.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups {

// RefractiveIndexLibrary
//
// Materials by name, each an owned `RefractiveIndexMaterial`, in the order they were added (an
// index stays valid until the library is cleared). Two materials come built in on request
// (`AddBuiltInMaterials`): "Air" (n = 1) and "Si" (crystalline silicon at 300 K, tabulated).
//
//   RefractiveIndexLibrary library;
//   library.AddBuiltInMaterials();
//   auto* oxide = new RefractiveIndexMaterial;
//   oxide->SetCauchy(1.4485, 0.00354, 0, 0, 0, 0);
//   library.AddMaterial("SiO2", oxide);                    // the library owns it now
//   library.GetMaterial(library.FindMaterial("Si"))->GetIndex(0.6);   // 3.940 + 0.020i
//
// Failures (facility 10): an allocation, code 3; a name already present or a null material, code 5.
class QUARN_PP_EXPORT RefractiveIndexLibrary {
 public:
  RefractiveIndexLibrary();
  RefractiveIndexLibrary(const RefractiveIndexLibrary&) = delete;
  RefractiveIndexLibrary& operator=(const RefractiveIndexLibrary&) = delete;
  ~RefractiveIndexLibrary();

  // Index of the material called `name`, −1 when there is none.
  int FindMaterial(const std::string& name) const;
  int GetNumberOfMaterials() const { return static_cast<int>(entries_.size()); }
  // Null for an index out of range.
  RefractiveIndexMaterial* GetMaterial(int index);
  const RefractiveIndexMaterial* GetMaterial(int index) const;
  RefractiveIndexMaterial* GetMaterial(const std::string& name) { return GetMaterial(FindMaterial(name)); }
  const RefractiveIndexMaterial* GetMaterial(const std::string& name) const {
    return GetMaterial(FindMaterial(name));
  }
  const std::string& GetMaterialName(int index) const;

  // A deep copy of material `index` (the caller owns it); null when the index is out of range or
  // memory ran out.
  RefractiveIndexMaterial* CloneMaterial(int index) const;

  // Takes ownership of `material` (also when the call fails, when it is deleted).
  bool AddMaterial(const std::string& name, RefractiveIndexMaterial* material);

  // Adds "Air" and "Si" where no material of that name exists yet.
  bool AddBuiltInMaterials();
  static bool IsBuiltInMaterial(const std::string& name);
  // A new built-in material (the caller owns it); null for another name or when memory ran out.
  static RefractiveIndexMaterial* NewBuiltInMaterial(const std::string& name);

  void Clear();

  Analysis::Core::Status& GetStatus() { return status_; }
  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  struct Entry {
    std::string name;
    std::unique_ptr<RefractiveIndexMaterial> material;
  };
  std::vector<Entry> entries_;
  Analysis::Core::Status status_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups

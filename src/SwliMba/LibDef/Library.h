#pragma once

#include <memory>

#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"
#include "SwliMba/LibDef/PartModel.h"
#include "SwliMba/LibDef/Skew.h"
#include "SwliMba/LibDef/Specifications.h"
#include "SwliMba/LibDef/Spectra.h"
#include "SwliMba/LibDef/SystemModel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// Library
//
// Everything that defines a model-based analysis library and, once generated, its spectra: the
// sample (`PartModel`), the instrument (`SystemModel`), the scan sampling (`Specifications`), the
// varied parameters (`Skew`) and the computed `Spectra`. The owner fills the definition, the
// library generator fills the spectra, the library search reads them.
//
// Copies are shallow on purpose: a copy shares its five parts with the original (changing the
// skew through one changes it for both), and the parts live as long as any copy does.
//
//   Library library;
//   library.GetSpecifications().SetNumberOfSamples(128);
//   library.GetSkew().GetVariable1().SetKind(VariableKind::Thickness);
//   Library alias = library;     // &alias.GetSkew() == &library.GetSkew()
class QUARN_PP_EXPORT Library {
 public:
  Library();

  Spectra& GetSpectra() { return *spectra_; }
  const Spectra& GetSpectra() const { return *spectra_; }
  PartModel& GetPartModel() { return *partModel_; }
  const PartModel& GetPartModel() const { return *partModel_; }
  SystemModel& GetSystemModel() { return *systemModel_; }
  const SystemModel& GetSystemModel() const { return *systemModel_; }
  Specifications& GetSpecifications() { return *sampling_; }
  const Specifications& GetSpecifications() const { return *sampling_; }
  Skew& GetSkew() { return *skew_; }
  const Skew& GetSkew() const { return *skew_; }

  // Clears spectra, part model and system model, resets the scan sampling and the skew. The
  // source's cut-off and the spectra's valid bins are kept.
  void Clear();

  Analysis::Core::Status& GetStatus() { return status_; }
  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  std::shared_ptr<Spectra> spectra_;
  std::shared_ptr<PartModel> partModel_;
  std::shared_ptr<SystemModel> systemModel_;
  std::shared_ptr<Specifications> sampling_;
  std::shared_ptr<Skew> skew_;
  Analysis::Core::Status status_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

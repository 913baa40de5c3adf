#pragma once

#include <map>
#include <memory>

#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"
#include "SwliMba/LibDef/PupilIntensityModel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// PupilIntensityModels
//
// The model list behind a `PupilIntensity`: pupil intensity models by wavelength (µm), ascending,
// each owned by the list.
class QUARN_PP_EXPORT PupilIntensityModels {
 public:
  PupilIntensityModels();
  PupilIntensityModels(const PupilIntensityModels&) = delete;
  PupilIntensityModels& operator=(const PupilIntensityModels&) = delete;

  // A new all-zero model for λ; null with "Specified wavelength already exists in the model list"
  // (code 2) when λ is taken, or "Allocation of new pupil intensity model container failed"
  // (code 3).
  PupilIntensityModel* NewModel(double wavelengthUm);
  // The model nearest to λ (the shorter wavelength on a tie); null when the list is empty.
  PupilIntensityModel* GetNearest(double wavelengthUm) const;
  int Size() const { return static_cast<int>(models_.size()); }
  const std::map<double, std::unique_ptr<PupilIntensityModel>>& GetModels() const { return models_; }
  void Clear() { models_.clear(); }

  Analysis::Core::Status& GetStatus() { return status_; }
  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  Analysis::Core::Status status_;
  std::map<double, std::unique_ptr<PupilIntensityModel>> models_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

#pragma once

#include <memory>

#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"
#include "SwliMba/LibDef/PupilIntensityModels.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// PupilIntensity
//
// The pupil illumination of the instrument as models by wavelength. Copies share one model list (a
// change through one is seen by all; the list lives as long as any copy does). With one model it
// serves every wavelength; with several, the nearest one:
//
//   PupilIntensity pupil;
//   pupil.NewModel(0.5)->SetPolynomial(0, 0, 0, 0, 0, 1);
//   pupil.NewModel(0.6)->SetPolynomial(0, 0, 0, 0, 0, 2);
//   pupil.Intensity(0.55, 0.1, 0.0);   // 1: the tie goes to the shorter wavelength
//
// A model that cannot be made or found records "0 == pim" (code 2), or the model list's own
// failure when that one says more.
class QUARN_PP_EXPORT PupilIntensity {
 public:
  PupilIntensity();
  PupilIntensity(const PupilIntensity& other) = default;
  PupilIntensity& operator=(const PupilIntensity& other) = default;
  ~PupilIntensity() { Finalize(); }

  PupilIntensityModel* NewModel(double wavelengthUm);
  PupilIntensityModel* GetNearest(double wavelengthUm);
  // The one model's intensity whatever λ, else the nearest model's; 0 when there is none.
  double Intensity(double wavelengthUm, double theta, double phi);
  int GetNumberOfModels() const { return models_ ? models_->Size() : 0; }
  // The shared model list (null only when its allocation failed).
  PupilIntensityModels* GetModelList() const { return models_.get(); }
  // Deletes every model of the (shared) list.
  void Clear();

  Analysis::Core::Status& GetStatus() { return status_; }
  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  // Releases this object's share of the model list.
  void Finalize() { models_.reset(); }
  void RecordNull(unsigned line);

  Analysis::Core::Status status_;
  std::shared_ptr<PupilIntensityModels> models_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

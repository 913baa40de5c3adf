#include "SwliMba/LibDef/PupilIntensity.h"

#include "SwliMba/LibDef/detail/NewShared.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "SwliMba\\LibDef\\PupilIntensity";
}  // namespace

PupilIntensity::PupilIntensity() : status_(__LINE__, kSource) {
  models_ = detail::NewShared<PupilIntensityModels>();
  if (!models_) {
    status_ =
        Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "Allocation of model container failed");
  }
}

void PupilIntensity::RecordNull(unsigned line) {
  if (models_ && models_->GetStatus().IsError()) {
    status_ = models_->GetStatus();
  } else {
    status_ = Status(0, StatusCode::kNoData, line, kSource, "0 == pim");
  }
}

PupilIntensityModel* PupilIntensity::NewModel(double wavelengthUm) {
  PupilIntensityModel* model = models_ ? models_->NewModel(wavelengthUm) : nullptr;
  if (model == nullptr) RecordNull(__LINE__);
  return model;
}

PupilIntensityModel* PupilIntensity::GetNearest(double wavelengthUm) {
  PupilIntensityModel* model = models_ ? models_->GetNearest(wavelengthUm) : nullptr;
  if (model == nullptr) status_ = Status(0, StatusCode::kNoData, __LINE__, kSource, "0 == pim");
  return model;
}

double PupilIntensity::Intensity(double wavelengthUm, double theta, double phi) {
  if (models_ && models_->Size() == 1) return models_->GetModels().begin()->second->Intensity(theta, phi);
  const PupilIntensityModel* model = GetNearest(wavelengthUm);
  return model == nullptr ? 0.0 : model->Intensity(theta, phi);
}

void PupilIntensity::Clear() {
  if (models_) models_->Clear();
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

#include "SwliMba/LibDef/PartModel.h"

#include <cmath>

#include "SwliMba/LibDef/detail/NewShared.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;
using Swli::Pups::FilmStack;
using Swli::Pups::RefractiveIndexLibrary;
using Swli::Pups::RefractiveIndexMaterial;

namespace {
constexpr const char* kSource = "SwliMba\\LibDef\\PartModel";
}  // namespace

PartModel::PartModel() : status_(__LINE__, kSource) {
  refractiveIndexLibrary_ = detail::NewShared<RefractiveIndexLibrary>();
  if (!refractiveIndexLibrary_) {
    status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource,
                     "Allocation of refractiveIndexLibrary failed");
    return;
  }
  filmStack_ = detail::NewShared<FilmStack>(*refractiveIndexLibrary_);
  if (!filmStack_) {
    status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "Allocation of filmStack failed");
  }
}

void PartModel::SetAmbient(const RefractiveIndexLibrary& external, const std::string& material) {
  ImportMaterial(external, material);
  if (status_.IsOk()) filmStack_->SetAmbient(material);
}

void PartModel::SetSubstrate(const RefractiveIndexLibrary& external, const std::string& material) {
  ImportMaterial(external, material);
  if (status_.IsOk()) filmStack_->SetSubstrate(material);
}

void PartModel::AddLayer(const RefractiveIndexLibrary& external, const std::string& material,
                         double thicknessUm) {
  ImportMaterial(external, material);
  if (status_.IsOk() && !filmStack_->AddLayer(material, thicknessUm)) status_ = filmStack_->GetStatus();
}

void PartModel::Clear() {
  zeroHeightLayerIndex_ = 0;
  if (refractiveIndexLibrary_) refractiveIndexLibrary_->Clear();
  if (filmStack_) filmStack_->Clear();
}

void PartModel::Test() {
  if (!refractiveIndexLibrary_) return;
  auto* nitride = new (std::nothrow) RefractiveIndexMaterial();
  if (nitride == nullptr) return;
  nitride->SetCauchy(1.9776, 0.00673, 0.00084, 0.0, 0.0, 0.0);
  refractiveIndexLibrary_->AddMaterial("Si3N4", nitride);
  if (const RefractiveIndexMaterial* material = refractiveIndexLibrary_->GetMaterial("SiW")) {
    static_cast<void>(material->GetIndex(0.6));
  }
}

void PartModel::ImportMaterial(const RefractiveIndexLibrary& external, const std::string& material) {
  if (!refractiveIndexLibrary_ || !filmStack_) return;  // construction failed: the status says why
  if (refractiveIndexLibrary_->FindMaterial(material) >= 0) {
    ImportExistingMaterial(external, material);
  } else {
    ImportNewMaterial(external, material);
  }
}

// A name already imported may come again only with identical data: exact equality, and a NaN on
// either side is a mismatch (it equals nothing).
void PartModel::ImportExistingMaterial(const RefractiveIndexLibrary& external, const std::string& material) {
  const RefractiveIndexMaterial* internal = refractiveIndexLibrary_->GetMaterial(material);
  const RefractiveIndexMaterial* other = external.GetMaterial(material);
  if (other == nullptr) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                     "External refractive index library does not contain the specified material");
    return;
  }
  const auto& a = internal->GetParameters();
  const auto& b = other->GetParameters();
  bool match = a.Size() == b.Size() && internal->GetModel() == other->GetModel();
  for (int i = 0; match && i < a.Size(); ++i) {
    match = !std::isnan(a[i]) && !std::isnan(b[i]) && a[i] == b[i];
  }
  if (!match) {
    status_ =
        Status(0, StatusCode::kNoData, __LINE__, kSource, "Internal and external material data do not match");
  }
}

void PartModel::ImportNewMaterial(const RefractiveIndexLibrary& external, const std::string& material) {
  const int index = external.FindMaterial(material);
  if (index < 0) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                     "External refractive index library does not contain the specified material");
    return;
  }
  RefractiveIndexMaterial* clone = external.CloneMaterial(index);
  if (clone == nullptr) {
    status_ = Status(0, StatusCode::kNoData, __LINE__, kSource, "Material cloning failed");
    return;
  }
  if (!refractiveIndexLibrary_->AddMaterial(material, clone)) status_ = refractiveIndexLibrary_->GetStatus();
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

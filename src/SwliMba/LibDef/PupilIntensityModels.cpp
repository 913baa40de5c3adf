#include "SwliMba/LibDef/PupilIntensityModels.h"

#include <cmath>
#include <new>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "SwliMba\\LibDef\\PupilIntensityModels";
}  // namespace

PupilIntensityModels::PupilIntensityModels() : status_(__LINE__, kSource) {}

PupilIntensityModel* PupilIntensityModels::NewModel(double wavelengthUm) {
  if (models_.count(wavelengthUm) != 0) {
    status_ = Status(0, StatusCode::kNoData, __LINE__, kSource,
                     "Specified wavelength already exists in the model list");
    return nullptr;
  }
  std::unique_ptr<PupilIntensityModel> model(new (std::nothrow) PupilIntensityModel());
  PupilIntensityModel* raw = model.get();
  bool inserted = raw != nullptr;
  if (inserted) {
    try {
      models_.emplace(wavelengthUm, std::move(model));
    } catch (const std::bad_alloc&) {
      inserted = false;
    }
  }
  if (!inserted) {
    status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource,
                     "Allocation of new pupil intensity model container failed");
    return nullptr;
  }
  return raw;
}

PupilIntensityModel* PupilIntensityModels::GetNearest(double wavelengthUm) const {
  if (models_.empty()) return nullptr;
  auto above = models_.lower_bound(wavelengthUm);
  if (above == models_.begin()) return above->second.get();
  if (above == models_.end()) return std::prev(above)->second.get();
  auto below = std::prev(above);
  // Nearer of the two neighbours, the shorter wavelength on a tie. The comparison is made against
  // their midpoint, which is the same rule as comparing |λ − key| but decides decimal ties as they
  // are meant (0.55 lies halfway between 0.5 and 0.6, although 0.6 − 0.55 < 0.55 − 0.5 in binary).
  return wavelengthUm <= 0.5 * (below->first + above->first) ? below->second.get() : above->second.get();
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

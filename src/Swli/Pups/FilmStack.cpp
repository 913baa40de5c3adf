#include "Swli/Pups/FilmStack.h"

#include <cmath>
#include <new>

#include "Swli/Pups/detail/FilmOptics.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;
namespace StatusFacility = Analysis::Core::StatusFacility;

namespace {
constexpr const char* kSource = "Swli\\Pups\\FilmStack";
constexpr double kTwoPi = 6.283185307179586;
}  // namespace

FilmStack::FilmStack(RefractiveIndexLibrary& library) : library_(&library), status_(__LINE__, kSource) {}

bool FilmStack::AddLayer(const std::string& material, double thicknessUm) {
  if (!(thicknessUm >= 0.0) || !std::isfinite(thicknessUm)) {
    status_ = Status(StatusFacility::kFilm, StatusCode::kInvalidArgument, __LINE__, kSource,
                     "Layer thickness must be a finite number of at least 0");
    return false;
  }
  try {
    layers_.push_back(FilmLayer{material, thicknessUm});
  } catch (const std::bad_alloc&) {
    status_ = Status(StatusFacility::kFilm, StatusCode::kAllocationFailed, __LINE__, kSource, "");
    return false;
  }
  return true;
}

void FilmStack::Clear() {
  ambient_.clear();
  substrate_.clear();
  layers_.clear();
}

bool FilmStack::SetLayerThickness(int index, double thicknessUm) {
  if (index < 0 || index >= GetNumberOfLayers()) {
    status_ = Status(StatusFacility::kFilm, StatusCode::kInvalidArgument, __LINE__, kSource,
                     "Layer index out of range");
    return false;
  }
  if (!(thicknessUm >= 0.0) || !std::isfinite(thicknessUm)) {
    status_ = Status(StatusFacility::kFilm, StatusCode::kInvalidArgument, __LINE__, kSource,
                     "Layer thickness must be a finite number of at least 0");
    return false;
  }
  layers_[index].thicknessUm = thicknessUm;
  return true;
}

double FilmStack::GetDepthOfLayerTop(int index) const {
  double depth = 0.0;
  for (int j = 0; j < index && j < GetNumberOfLayers(); ++j)
    depth += layers_[j].thicknessUm;
  return depth;
}

bool FilmStack::ResolveMaterials(std::vector<const RefractiveIndexMaterial*>& media) {
  const int layers = GetNumberOfLayers();
  try {
    media.assign(layers + 2, nullptr);
  } catch (const std::bad_alloc&) {
    status_ = Status(StatusFacility::kFilm, StatusCode::kAllocationFailed, __LINE__, kSource, "");
    return false;
  }
  auto resolve = [&](int medium, const std::string& name, const std::string& role) {
    media[medium] = library_->GetMaterial(name);
    if (media[medium] != nullptr) return true;
    status_ = Status(StatusFacility::kFilm, StatusCode::kInvalidArgument, __LINE__, kSource,
                     "Unknown material \"" + name + "\" of the " + role);
    return false;
  };
  if (!resolve(0, ambient_, "ambient")) return false;
  for (int j = 0; j < layers; ++j) {
    if (!resolve(j + 1, layers_[j].material, "layer " + std::to_string(j))) return false;
  }
  return resolve(layers + 1, substrate_, "substrate");
}

bool FilmStack::GetReflection(double wavenumber, double beta, std::complex<double>& rs,
                              std::complex<double>& rp, Method method) {
  std::vector<const RefractiveIndexMaterial*> media;
  if (!ResolveMaterials(media)) return false;
  const int layers = GetNumberOfLayers();
  const double wavelengthUm = kTwoPi / wavenumber;
  std::vector<std::complex<double>> etaS(layers + 2), etaP(layers + 2), factor(layers + 2);
  const std::complex<double> ambient = media[0]->GetIndex(wavelengthUm);
  const std::complex<double> tangential = ambient * std::sin(beta);
  std::vector<std::complex<double>> w(layers + 2);
  for (int m = 0; m < layers + 2; ++m) {
    const std::complex<double> index = media[m]->GetIndex(wavelengthUm);
    w[m] = detail::NormalComponent(index, tangential);
    etaS[m] = detail::AdmittanceS(index, w[m]);
    etaP[m] = detail::AdmittanceP(index, w[m]);
  }
  const std::complex<double> i(0.0, 1.0);
  for (int j = 1; j <= layers; ++j) {
    const std::complex<double> delta = wavenumber * w[j] * layers_[j - 1].thicknessUm;
    factor[j] = method == Method::kAiryRecursion ? std::exp(2.0 * i * delta) : delta;
  }
  if (method == Method::kAiryRecursion) {
    rs = detail::AiryReflection(layers, etaS.data(), factor.data());
    rp = detail::AiryReflection(layers, etaP.data(), factor.data());
  } else {
    rs = detail::MatrixReflection(layers, etaS.data(), factor.data());
    rp = detail::MatrixReflection(layers, etaP.data(), factor.data());
  }
  return true;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups

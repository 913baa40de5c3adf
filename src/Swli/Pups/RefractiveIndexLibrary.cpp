#include "Swli/Pups/RefractiveIndexLibrary.h"

#include <iterator>
#include <new>

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;
namespace StatusFacility = Analysis::Core::StatusFacility;

namespace {
constexpr const char* kSource = "Swli\\Pups\\RefractiveIndexLibrary";

// Intrinsic crystalline silicon at 300 K: M. A. Green, "Self-consistent optical parameters of
// intrinsic silicon at 300 K including temperature coefficients", Solar Energy Materials and Solar
// Cells 92 (2008) 1305-1310, doi:10.1016/j.solmat.2008.06.009, Table 1, at 10 nm steps over the
// visible band that white-light interferometers use (n and k to three decimals). Outside
// 0.40-0.80 µm the end values hold.
constexpr double kSiliconGreen2008[][3] = {
    {0.40, 5.613, 0.296}, {0.41, 5.330, 0.227}, {0.42, 5.119, 0.176}, {0.43, 4.949, 0.138},
    {0.44, 4.812, 0.107}, {0.45, 4.691, 0.086}, {0.46, 4.587, 0.071}, {0.47, 4.497, 0.062},
    {0.48, 4.419, 0.055}, {0.49, 4.350, 0.049}, {0.50, 4.294, 0.044}, {0.51, 4.241, 0.039},
    {0.52, 4.193, 0.036}, {0.53, 4.151, 0.033}, {0.54, 4.112, 0.030}, {0.55, 4.077, 0.028},
    {0.56, 4.045, 0.026}, {0.57, 4.015, 0.024}, {0.58, 3.988, 0.023}, {0.59, 3.963, 0.021},
    {0.60, 3.940, 0.020}, {0.61, 3.918, 0.018}, {0.62, 3.898, 0.017}, {0.63, 3.879, 0.016},
    {0.64, 3.861, 0.015}, {0.65, 3.844, 0.014}, {0.66, 3.828, 0.013}, {0.67, 3.813, 0.013},
    {0.68, 3.798, 0.012}, {0.69, 3.784, 0.011}, {0.70, 3.772, 0.011}, {0.71, 3.759, 0.010},
    {0.72, 3.748, 0.010}, {0.73, 3.737, 0.009}, {0.74, 3.727, 0.008}, {0.75, 3.717, 0.008},
    {0.76, 3.708, 0.007}, {0.77, 3.699, 0.007}, {0.78, 3.691, 0.006}, {0.79, 3.683, 0.006},
    {0.80, 3.675, 0.005},
};
}  // namespace

RefractiveIndexLibrary::RefractiveIndexLibrary() : status_(__LINE__, kSource) {}

RefractiveIndexLibrary::~RefractiveIndexLibrary() = default;

int RefractiveIndexLibrary::FindMaterial(const std::string& name) const {
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (entries_[i].name == name) return static_cast<int>(i);
  }
  return -1;
}

RefractiveIndexMaterial* RefractiveIndexLibrary::GetMaterial(int index) {
  if (index < 0 || index >= GetNumberOfMaterials()) return nullptr;
  return entries_[index].material.get();
}

const RefractiveIndexMaterial* RefractiveIndexLibrary::GetMaterial(int index) const {
  if (index < 0 || index >= GetNumberOfMaterials()) return nullptr;
  return entries_[index].material.get();
}

const std::string& RefractiveIndexLibrary::GetMaterialName(int index) const {
  static const std::string kNone;
  if (index < 0 || index >= GetNumberOfMaterials()) return kNone;
  return entries_[index].name;
}

RefractiveIndexMaterial* RefractiveIndexLibrary::CloneMaterial(int index) const {
  const RefractiveIndexMaterial* material = GetMaterial(index);
  return material == nullptr ? nullptr : material->Clone();
}

bool RefractiveIndexLibrary::AddMaterial(const std::string& name, RefractiveIndexMaterial* material) {
  std::unique_ptr<RefractiveIndexMaterial> owned(material);
  if (owned == nullptr) {
    status_ = Status(StatusFacility::kFilm, StatusCode::kInvalidArgument, __LINE__, kSource,
                     "Material " + name + " is null");
    return false;
  }
  if (FindMaterial(name) >= 0) {
    status_ = Status(StatusFacility::kFilm, StatusCode::kInvalidArgument, __LINE__, kSource,
                     "Material " + name + " already exists");
    return false;
  }
  try {
    entries_.push_back(Entry{name, std::move(owned)});
  } catch (const std::bad_alloc&) {
    status_ = Status(StatusFacility::kFilm, StatusCode::kAllocationFailed, __LINE__, kSource, "");
    return false;
  }
  return true;
}

bool RefractiveIndexLibrary::IsBuiltInMaterial(const std::string& name) {
  return name == "Air" || name == "Si";
}

RefractiveIndexMaterial* RefractiveIndexLibrary::NewBuiltInMaterial(const std::string& name) {
  if (!IsBuiltInMaterial(name)) return nullptr;
  auto* material = new (std::nothrow) RefractiveIndexMaterial();
  if (material == nullptr) return nullptr;
  bool ok = true;
  if (name == "Air") {
    // The refractivity of air (about 2.7e-4) only rescales the scan axis of a measurement in air,
    // and the instrument's scan is calibrated in air; unity is the consistent value here.
    material->SetCauchy(1.0, 0.0, 0.0, 0.0, 0.0, 0.0);
    ok = material->GetStatus().IsOk();
  } else {
    constexpr int rows = static_cast<int>(std::size(kSiliconGreen2008));
    double wavelength[rows];
    double n[rows];
    double k[rows];
    for (int i = 0; i < rows; ++i) {
      wavelength[i] = kSiliconGreen2008[i][0];
      n[i] = kSiliconGreen2008[i][1];
      k[i] = kSiliconGreen2008[i][2];
    }
    ok = material->SetTable(wavelength, n, k, rows);
  }
  if (!ok) {
    delete material;
    return nullptr;
  }
  return material;
}

bool RefractiveIndexLibrary::AddBuiltInMaterials() {
  for (const char* name : {"Air", "Si"}) {
    if (FindMaterial(name) >= 0) continue;
    RefractiveIndexMaterial* material = NewBuiltInMaterial(name);
    if (material == nullptr) {
      status_ = Status(StatusFacility::kFilm, StatusCode::kAllocationFailed, __LINE__, kSource, "");
      return false;
    }
    if (!AddMaterial(name, material)) return false;
  }
  return true;
}

void RefractiveIndexLibrary::Clear() {
  entries_.clear();
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups

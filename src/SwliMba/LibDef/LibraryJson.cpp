#include "SwliMba/LibDef/LibraryJson.h"

#include <cmath>
#include <set>
#include <sstream>
#include <vector>

#include <nlohmann/json.hpp>

#include "Swli/Pups/RefractiveIndexLibrary.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

using Analysis::Core::Array;
using Analysis::Core::Status;
using Json = nlohmann::json;
using Swli::Pups::RefractiveIndexLibrary;
using Swli::Pups::RefractiveIndexMaterial;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "SwliMba\\LibDef\\LibraryJson";

// A refusal, thrown inside the reader and turned into the status at its boundary.
struct Refusal {
  unsigned code;
  std::string message;
};

[[noreturn]] void Refuse(const std::string& field, const std::string& problem,
                         unsigned code = StatusCode::kArgumentOutOfRange) {
  throw Refusal{code, field + ": " + problem};
}

std::string Number(double v) {
  std::ostringstream text;
  text << v;
  return text.str();
}

// field[i], appended piece by piece (GCC 12 warns falsely about "[" + ... + "]" chains).
std::string Element(const std::string& field, std::size_t i) {
  std::string text = field;
  text += '[';
  text += std::to_string(i);
  text += ']';
  return text;
}

std::string TypeName(const Json& value) {
  return std::string(value.type_name());
}

// Only the listed keys may appear in `object`.
void CheckKeys(const Json& object, const std::string& field, std::initializer_list<const char*> allowed) {
  for (auto it = object.begin(); it != object.end(); ++it) {
    bool known = false;
    for (const char* key : allowed)
      known = known || it.key() == key;
    if (!known) Refuse(field.empty() ? it.key() : field + "." + it.key(), "unknown field");
  }
}

const Json& Required(const Json& object, const char* key, const std::string& prefix) {
  auto it = object.find(key);
  if (it == object.end()) Refuse(prefix + key, "missing", StatusCode::kNotSet);
  return *it;
}

double GetNumber(const Json& value, const std::string& field) {
  if (!value.is_number()) Refuse(field, "must be a number, not " + TypeName(value));
  const double v = value.get<double>();
  if (!std::isfinite(v)) Refuse(field, "must be a finite number");
  return v;
}

long long GetInteger(const Json& value, const std::string& field) {
  if (!value.is_number_integer()) Refuse(field, "must be an integer, not " + TypeName(value));
  return value.get<long long>();
}

std::string GetString(const Json& value, const std::string& field) {
  if (!value.is_string()) Refuse(field, "must be a text, not " + TypeName(value));
  return value.get<std::string>();
}

std::vector<double> GetNumbers(const Json& value, const std::string& field, int exactCount = -1) {
  if (!value.is_array()) Refuse(field, "must be an array of numbers, not " + TypeName(value));
  if (exactCount >= 0 && static_cast<int>(value.size()) != exactCount) {
    Refuse(field,
           "must hold " + std::to_string(exactCount) + " numbers, not " + std::to_string(value.size()));
  }
  std::vector<double> out;
  for (std::size_t i = 0; i < value.size(); ++i)
    out.push_back(GetNumber(value[i], Element(field, i)));
  return out;
}

Array<double> ToArray(const std::vector<double>& values) {
  Array<double> a;
  for (double v : values) {
    if (!a.Add(v)) throw std::bad_alloc();
  }
  return a;
}

void ReadMaterial(const std::string& name, const Json& value, RefractiveIndexLibrary& materials) {
  const std::string field = "materials." + name;
  if (!value.is_object()) Refuse(field, "must be an object, not " + TypeName(value));
  const std::string model = GetString(Required(value, "model", field + "."), field + ".model");
  auto* material = new RefractiveIndexMaterial();
  std::unique_ptr<RefractiveIndexMaterial> owned(material);
  if (model == RefractiveIndexMaterial::kCauchyModel) {
    CheckKeys(value, field, {"model", "parameters"});
    const auto p = GetNumbers(Required(value, "parameters", field + "."), field + ".parameters",
                              RefractiveIndexMaterial::kCauchyParameters);
    if (p[0] <= 0.0)
      Refuse(field + ".parameters[0]", "the index term A must be positive, not " + Number(p[0]));
    material->Set(model, ToArray(p));
  } else if (model == RefractiveIndexMaterial::kTableModel) {
    CheckKeys(value, field, {"model", "wavelength_um", "n", "k"});
    const auto wl = GetNumbers(Required(value, "wavelength_um", field + "."), field + ".wavelength_um");
    const auto n = GetNumbers(Required(value, "n", field + "."), field + ".n");
    const auto k = GetNumbers(Required(value, "k", field + "."), field + ".k");
    if (wl.empty()) Refuse(field + ".wavelength_um", "must not be empty");
    if (n.size() != wl.size() || k.size() != wl.size()) {
      Refuse(field, "wavelength_um, n and k must have the same length (" + std::to_string(wl.size()) + ", " +
                        std::to_string(n.size()) + ", " + std::to_string(k.size()) + ")");
    }
    for (std::size_t i = 0; i < wl.size(); ++i) {
      if (wl[i] <= 0.0)
        Refuse(Element(field + ".wavelength_um", i), "must be positive, not " + Number(wl[i]));
      if (i > 0 && wl[i] <= wl[i - 1])
        Refuse(Element(field + ".wavelength_um", i), "wavelengths must ascend strictly");
      if (n[i] <= 0.0) Refuse(Element(field + ".n", i), "must be positive, not " + Number(n[i]));
      if (k[i] < 0.0) Refuse(Element(field + ".k", i), "must not be negative, not " + Number(k[i]));
    }
    material->SetTable(wl.data(), n.data(), k.data(), static_cast<int>(wl.size()));
  } else {
    Refuse(field + ".model", "unknown model \"" + model + "\" (known: \"Complex-Cauchy/um\", \"Table\")");
  }
  if (material->GetStatus().IsError()) Refuse(field, material->GetStatus().GetMessage());
  const int existing = materials.FindMaterial(name);
  if (existing >= 0) {
    // A user's material replaces the built-in one of the same name.
    *materials.GetMaterial(existing) = *material;
    return;
  }
  if (!materials.AddMaterial(name, owned.release())) Refuse(field, materials.GetStatus().GetMessage());
}

std::string MaterialName(const Json& value, const std::string& field,
                         const RefractiveIndexLibrary& materials) {
  const std::string name = GetString(value, field);
  if (materials.FindMaterial(name) < 0) Refuse(field, "unknown material \"" + name + "\"");
  return name;
}

void CheckImport(const PartModel& part, const std::string& field) {
  if (part.GetStatus().IsError()) Refuse(field, part.GetStatus().GetMessage());
}

void ReadDocument(const Json& root, Library& library) {
  if (!root.is_object()) Refuse("(document)", "must be a JSON object, not " + TypeName(root));
  CheckKeys(root, "",
            {"materials", "ambient", "layers", "substrate", "zero_height_layer", "source", "source_cutoff",
             "numerical_aperture", "polarization", "vary", "tau", "dispersion", "pupil_roll_off"});

  RefractiveIndexLibrary materials;
  if (!materials.AddBuiltInMaterials()) throw std::bad_alloc();
  if (auto it = root.find("materials"); it != root.end()) {
    if (!it->is_object()) Refuse("materials", "must be an object, not " + TypeName(*it));
    for (auto m = it->begin(); m != it->end(); ++m)
      ReadMaterial(m.key(), m.value(), materials);
  }

  PartModel& part = library.GetPartModel();
  const std::string ambient = MaterialName(Required(root, "ambient", ""), "ambient", materials);
  const Json& layers = Required(root, "layers", "");
  if (!layers.is_array()) Refuse("layers", "must be an array, not " + TypeName(layers));
  const std::string substrate = MaterialName(Required(root, "substrate", ""), "substrate", materials);
  part.SetAmbient(materials, ambient);
  CheckImport(part, "ambient");
  std::vector<std::string> layerMaterials;
  for (std::size_t j = 0; j < layers.size(); ++j) {
    const std::string field = Element("layers", j);
    const Json& layer = layers[j];
    if (!layer.is_object()) Refuse(field, "must be an object, not " + TypeName(layer));
    CheckKeys(layer, field, {"material", "thickness_um"});
    const std::string material =
        MaterialName(Required(layer, "material", field + "."), field + ".material", materials);
    const double t = GetNumber(Required(layer, "thickness_um", field + "."), field + ".thickness_um");
    if (t < 0.0) Refuse(field + ".thickness_um", "must not be negative, not " + Number(t));
    part.AddLayer(materials, material, t);
    CheckImport(part, field);
    layerMaterials.push_back(material);
  }
  part.SetSubstrate(materials, substrate);
  CheckImport(part, "substrate");
  const long long layerCount = static_cast<long long>(layers.size());
  if (auto it = root.find("zero_height_layer"); it != root.end()) {
    const long long index = GetInteger(*it, "zero_height_layer");
    if (index < 0 || index > layerCount) {
      Refuse("zero_height_layer", "must lie between 0 and the number of layers (" +
                                      std::to_string(layerCount) + "), not " + std::to_string(index));
    }
    part.SetZeroHeightLayerIndex(static_cast<int>(index));
  }

  SystemModel& system = library.GetSystemModel();
  const Json& source = Required(root, "source", "");
  if (!source.is_array()) Refuse("source", "must be an array of Gaussians, not " + TypeName(source));
  if (source.empty()) Refuse("source", "must hold at least one Gaussian");
  double amplitudes = 0.0;
  for (std::size_t i = 0; i < source.size(); ++i) {
    const std::string field = Element("source", i);
    const Json& g = source[i];
    if (!g.is_object()) Refuse(field, "must be an object, not " + TypeName(g));
    CheckKeys(g, field, {"amplitude", "centre_rad_per_um", "width_rad_per_um"});
    const double a = GetNumber(Required(g, "amplitude", field + "."), field + ".amplitude");
    const double c = GetNumber(Required(g, "centre_rad_per_um", field + "."), field + ".centre_rad_per_um");
    const double w = GetNumber(Required(g, "width_rad_per_um", field + "."), field + ".width_rad_per_um");
    if (a < 0.0) Refuse(field + ".amplitude", "must not be negative, not " + Number(a));
    if (c <= 0.0) Refuse(field + ".centre_rad_per_um", "must be positive, not " + Number(c));
    if (w <= 0.0) Refuse(field + ".width_rad_per_um", "must be positive, not " + Number(w));
    if (w >= c)
      Refuse(field + ".width_rad_per_um", "must be below the centre (" + Number(c) + "), not " + Number(w));
    amplitudes += a;
    if (!system.GetSource().AddGaussian(a, c, w)) throw std::bad_alloc();
  }
  if (!(amplitudes > 0.0)) Refuse("source", "needs a Gaussian of positive amplitude");
  if (auto it = root.find("source_cutoff"); it != root.end()) {
    const double cutoff = GetNumber(*it, "source_cutoff");
    if (cutoff < 0.0 || cutoff >= 1.0) Refuse("source_cutoff", "must lie in [0, 1), not " + Number(cutoff));
    system.GetSource().SetCutOff(cutoff);
  }
  const double na = GetNumber(Required(root, "numerical_aperture", ""), "numerical_aperture");
  if (!(na > 0.0 && na < 1.0)) Refuse("numerical_aperture", "must lie in (0, 1), not " + Number(na));
  system.SetNumericalAperture(na);
  if (auto it = root.find("polarization"); it != root.end()) {
    const std::string text = GetString(*it, "polarization");
    PolarizationType polarization;
    if (!polarization.Set(text)) {
      Refuse("polarization",
             "must be \"CircularlyPolarized\" or \"LinearlyPolarized\", not \"" + text + "\"");
    }
    system.SetPolarization(polarization);
  }
  if (auto it = root.find("tau"); it != root.end()) {
    if (!it->is_object()) Refuse("tau", "must be an object, not " + TypeName(*it));
    CheckKeys(*it, "tau", {"magnitude", "phase"});
    if (auto m = it->find("magnitude"); m != it->end())
      system.GetTau().SetMagCoefficients(ToArray(GetNumbers(*m, "tau.magnitude", 6)));
    if (auto p = it->find("phase"); p != it->end())
      system.GetTau().SetPhaseCoefficients(ToArray(GetNumbers(*p, "tau.phase", 8)));
  }
  if (auto it = root.find("dispersion"); it != root.end()) {
    if (!it->is_object()) Refuse("dispersion", "must be an object, not " + TypeName(*it));
    CheckKeys(*it, "dispersion", {"no_theta", "two_theta"});
    if (auto d = it->find("no_theta"); d != it->end())
      system.GetDispersion().SetNoThetaCoefficients(ToArray(GetNumbers(*d, "dispersion.no_theta", 6)));
    if (auto t = it->find("two_theta"); t != it->end())
      system.GetDispersion().SetTwoThetaCoefficients(ToArray(GetNumbers(*t, "dispersion.two_theta", 6)));
  }
  if (auto it = root.find("pupil_roll_off"); it != root.end()) {
    if (!it->is_object()) Refuse("pupil_roll_off", "must be an object, not " + TypeName(*it));
    CheckKeys(*it, "pupil_roll_off", {"model", "parameters"});
    const long long model = GetInteger(Required(*it, "model", "pupil_roll_off."), "pupil_roll_off.model");
    if (model < 0 || model > 6)
      Refuse("pupil_roll_off.model", "must lie between 0 and 6, not " + std::to_string(model));
    system.GetPupilRollOff().SetModelNumber(static_cast<int>(model));
    system.GetPupilRollOff().SetParameters(
        ToArray(GetNumbers(Required(*it, "parameters", "pupil_roll_off."), "pupil_roll_off.parameters", 7)));
  }

  if (auto it = root.find("vary"); it != root.end()) {
    if (!it->is_array()) Refuse("vary", "must be an array of variables, not " + TypeName(*it));
    if (it->size() > 2) Refuse("vary", "holds at most two variables, not " + std::to_string(it->size()));
    long long configurations = 1;
    std::set<std::pair<long long, int>> seen;
    for (std::size_t v = 0; v < it->size(); ++v) {
      const std::string field = Element("vary", v);
      const Json& var = (*it)[v];
      if (!var.is_object()) Refuse(field, "must be an object, not " + TypeName(var));
      const long long layer = GetInteger(Required(var, "layer", field + "."), field + ".layer");
      if (layer < 0 || layer >= layerCount) {
        Refuse(field + ".layer", "names layer " + std::to_string(layer) + ", but the stack has " +
                                     std::to_string(layerCount) + " layer" + (layerCount == 1 ? "" : "s"));
      }
      const std::string kindText = GetString(Required(var, "kind", field + "."), field + ".kind");
      VariableKind kind;
      if (!kind.Set(kindText) || kind == VariableKind::Undefined) {
        Refuse(field + ".kind",
               "must be \"Thickness\", \"CauchyN0\" or \"CauchyK0\", not \"" + kindText + "\"");
      }
      const bool thickness = kind == VariableKind::Thickness;
      const char* fromKey = thickness ? "from_um" : "from";
      const char* toKey = thickness ? "to_um" : "to";
      const char* stepKey = thickness ? "step_um" : "step";
      CheckKeys(var, field, {"layer", "kind", fromKey, toKey, stepKey});
      const double from = GetNumber(Required(var, fromKey, field + "."), field + "." + fromKey);
      const double to = GetNumber(Required(var, toKey, field + "."), field + "." + toKey);
      const double step = GetNumber(Required(var, stepKey, field + "."), field + "." + stepKey);
      if (!(step > 0.0)) Refuse(field + "." + stepKey, "must be positive, not " + Number(step));
      if (to < from) Refuse(field, "the range is inverted (" + Number(from) + " to " + Number(to) + ")");
      if (thickness && from < 0.0)
        Refuse(field + "." + fromKey, "a thickness must not be negative, not " + Number(from));
      if (!thickness) {
        const RefractiveIndexMaterial* material = materials.GetMaterial(layerMaterials[layer]);
        if (!material->IsCauchy()) {
          Refuse(field + ".kind", kindText + " needs a \"Complex-Cauchy/um\" material, and layer " +
                                      std::to_string(layer) + " is \"" + layerMaterials[layer] + "\" (" +
                                      material->GetModel() + ")");
        }
        if (kind == VariableKind::CauchyN0 && from <= 0.0) {
          Refuse(field + "." + fromKey, "the index term must stay positive, not " + Number(from));
        }
        if (kind == VariableKind::CauchyK0 && from < 0.0) {
          Refuse(field + "." + fromKey, "the extinction term must not be negative, not " + Number(from));
        }
      }
      if (!seen.insert({layer, static_cast<int>(kind)}).second) {
        Refuse(field, "varies the same parameter as the variable before it");
      }
      VariableSpecification& variable =
          v == 0 ? library.GetSkew().GetVariable1() : library.GetSkew().GetVariable2();
      variable.SetLayerIndex(static_cast<int>(layer));
      variable.SetKind(kind);
      variable.SetRange(from, to, step);
      const double values = std::ceil((to - from) / step) + 1.0;
      if (values > static_cast<double>(LibraryJson::kMaxConfigurations)) {
        Refuse(field, "has " + Number(values) + " values, more than the limit of " +
                          std::to_string(LibraryJson::kMaxConfigurations));
      }
      configurations *= variable.GetNumberOfValues();
      if (configurations > LibraryJson::kMaxConfigurations) {
        Refuse("vary", "gives " + std::to_string(configurations) +
                           " configurations, more than the limit of " +
                           std::to_string(LibraryJson::kMaxConfigurations));
      }
    }
  }
}
}  // namespace

LibraryJson::LibraryJson() : status_(__LINE__, kSource) {}

bool LibraryJson::Read(const std::string& text, Library& library) {
  status_.ClearError();
  if (Analysis::Core::CopyIfFailed(status_, library.GetStatus())) return false;
  try {
    const Json root = Json::parse(text);
    ReadDocument(root, library);
    return true;
  } catch (const Json::parse_error& e) {
    std::string what = e.what();
    // "[json.exception.parse_error.101] parse error at line 2, column 5: ..." without the tag.
    if (const auto at = what.find("] "); at != std::string::npos) what = what.substr(at + 2);
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource, "not valid JSON: " + what);
  } catch (const Refusal& refusal) {
    status_ = Status(0, refusal.code, __LINE__, kSource, refusal.message);
  } catch (const std::bad_alloc&) {
    status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "");
  } catch (const std::exception& e) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource, e.what());
  }
  return false;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

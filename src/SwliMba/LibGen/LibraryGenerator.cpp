#include "SwliMba/LibGen/LibraryGenerator.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "Analysis/Core/Units.h"
#include "SwliMba/LibGen/LgIntegrationGrid.h"
#include "SwliMba/LibGen/LgSignalSynthesizer.h"
#include "SwliMba/LibGen/LgStackModel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen {

using Analysis::Core::Status;
using LibDef::VariableKind;
using LibDef::VariableSpecification;
namespace StatusCode = Analysis::Core::StatusCode;
namespace Units = Analysis::Core::Units;

namespace {
constexpr const char* kSource = "SwliMba\\LibGen\\LibraryGenerator";
constexpr double kTwoPi = 6.283185307179586;
// Configurations synthesised together: large enough for an efficient matrix product, small enough
// that the coefficient block (2 × nodes × block doubles) stays in a few megabytes.
constexpr int kBlock = 128;

Status Refuse(unsigned line, const std::string& message) {
  return Status(0, StatusCode::kNotSet, line, kSource, message);
}

// One varied parameter resolved against the stack.
struct Variable {
  int kind = VariableKind::Undefined;
  int layer = 0;
  int count = 1;
  const VariableSpecification* definition = nullptr;
  double baseTerm = 0.0;  // the Cauchy term the variable replaces
};
}  // namespace

LibraryGenerator::LibraryGenerator()
    : grid_(std::make_unique<LgIntegrationGrid>()), status_(__LINE__, kSource) {}

LibraryGenerator::~LibraryGenerator() = default;

void LibraryGenerator::SetWavenumberOversampling(double factor) {
  oversampling_ = factor >= 0.25 ? factor : 0.25;
}

void LibraryGenerator::SetAngularNodesPerInterval(int nodes) {
  nodesPerInterval_ = nodes <= 0 ? 0 : std::min(nodes, 64);
}

void LibraryGenerator::SetAzimuthNodes(int nodes) {
  azimuthNodes_ = std::clamp(nodes, 1, 1024);
}

bool LibraryGenerator::Generate(LibDef::Library& library) {
  try {
    return GenerateImpl(library);
  } catch (const std::bad_alloc&) {
    status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource,
                     "Allocation of the generator's work arrays failed");
  } catch (const Status& thrown) {
    status_ = thrown;
  } catch (...) {
    status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Unhandled exception");
  }
  return false;
}

bool LibraryGenerator::GenerateImpl(LibDef::Library& library) {
  status_.ClearError();
  if (Analysis::Core::CopyIfFailed(status_, library.GetStatus())) return false;
  if (Analysis::Core::CopyIfFailed(status_, library.GetPartModel().GetStatus())) return false;

  // Sampling.
  const LibDef::Specifications& sampling = library.GetSpecifications();
  const int samples = sampling.GetNumberOfSamples();
  if (samples < 4 || samples % 2 != 0) {
    status_ = Refuse(__LINE__, "Scan sampling: the number of samples must be even and at least 4, not " +
                                   std::to_string(samples));
    return false;
  }
  const double stepUm = sampling.GetRampSlope().GetValue(Units::kMicrometersPerFrame);
  if (!(stepUm > 0.0) || !std::isfinite(stepUm)) {
    status_ = Refuse(__LINE__, "Scan sampling: the ramp slope must be positive");
    return false;
  }

  // Stack and varied parameters.
  Swli::Pups::FilmStack& stack = library.GetPartModel().GetFilmStack();
  const Swli::Pups::RefractiveIndexLibrary& materials = library.GetPartModel().GetRefractiveIndexLibrary();
  const int layers = stack.GetNumberOfLayers();
  const int zeroLayer = library.GetPartModel().GetZeroHeightLayerIndex();
  if (zeroLayer < 0 || zeroLayer > layers) {
    status_ =
        Refuse(__LINE__, "PartModel: the zero-height layer index " + std::to_string(zeroLayer) +
                             " must lie between 0 and the number of layers (" + std::to_string(layers) + ")");
    return false;
  }
  const LibDef::Skew& skew = library.GetSkew();
  Variable variables[2];
  const VariableSpecification* definitions[2] = {&skew.GetVariable1(), &skew.GetVariable2()};
  for (int v = 0; v < 2; ++v) {
    Variable& var = variables[v];
    var.definition = definitions[v];
    var.kind = definitions[v]->GetKind();
    if (v == 1 && variables[0].kind == VariableKind::Undefined) var.kind = VariableKind::Undefined;
    if (var.kind == VariableKind::Undefined) continue;
    const std::string name = "Skew: variable " + std::to_string(v + 1);
    if (var.kind < VariableKind::Thickness || var.kind > VariableKind::CauchyK0) {
      status_ = Refuse(__LINE__, name + " has an unknown kind " + std::to_string(var.kind));
      return false;
    }
    var.layer = definitions[v]->GetLayerIndex();
    if (var.layer < 0 || var.layer >= layers) {
      status_ =
          Refuse(__LINE__, name + " names layer " + std::to_string(var.layer) + ", which does not exist");
      return false;
    }
    const double from = definitions[v]->GetRangeFrom(), to = definitions[v]->GetRangeTo(),
                 step = definitions[v]->GetRangeIncrement();
    if (!std::isfinite(from) || !std::isfinite(to) || !(step > 0.0) || !std::isfinite(step) || to < from ||
        from >= Analysis::Core::kNoDataDouble) {
      status_ = Refuse(__LINE__, name + " needs a finite range with from <= to and a positive increment");
      return false;
    }
    var.count = definitions[v]->GetNumberOfValues();
    if (var.kind != VariableKind::Thickness) {
      const Swli::Pups::RefractiveIndexMaterial* material =
          materials.GetMaterial(stack.GetLayer(var.layer).material);
      if (material == nullptr || !material->IsCauchy()) {
        status_ = Refuse(__LINE__, name + " varies a Cauchy term of layer " + std::to_string(var.layer) +
                                       ", whose material is not \"Complex-Cauchy/um\"");
        return false;
      }
      var.baseTerm = material->GetParameters()[var.kind == VariableKind::CauchyN0 ? 0 : 3];
    }
  }
  if (variables[1].kind != VariableKind::Undefined && variables[1].kind == variables[0].kind &&
      variables[1].layer == variables[0].layer) {
    status_ = Refuse(__LINE__, "Skew: variables 1 and 2 vary the same parameter of the same layer");
    return false;
  }
  const int count2 = variables[1].kind == VariableKind::Undefined ? 1 : variables[1].count;
  const int count1 = variables[0].kind == VariableKind::Undefined ? 1 : variables[0].count;
  const long long total = static_cast<long long>(count1) * count2;
  if (total < 1 || total > (1LL << 28)) {
    status_ = Refuse(__LINE__, "Skew: the number of configurations must lie between 1 and 2^28");
    return false;
  }
  const int configurations = static_cast<int>(total);

  LgConfiguration base;
  base.thicknessUm.resize(layers);
  base.indexShift.assign(layers, 0.0);
  for (int j = 0; j < layers; ++j)
    base.thicknessUm[j] = stack.GetLayer(j).thicknessUm;
  auto configure = [&](int index, LgConfiguration& config) {
    config.thicknessUm = base.thicknessUm;
    config.indexShift = base.indexShift;
    const int at[2] = {index / count2, index % count2};
    for (int v = 0; v < 2; ++v) {
      const Variable& var = variables[v];
      if (var.kind == VariableKind::Undefined) continue;
      const double value = var.definition->GetValue(at[v]);
      if (var.kind == VariableKind::Thickness) {
        config.thicknessUm[var.layer] = value;
      } else if (var.kind == VariableKind::CauchyN0) {
        config.indexShift[var.layer] += std::complex<double>(value - var.baseTerm, 0.0);
      } else {
        config.indexShift[var.layer] += std::complex<double>(0.0, value - var.baseTerm);
      }
    }
    config.topUm = 0.0;
    for (int j = 0; j < zeroLayer; ++j)
      config.topUm += config.thicknessUm[j];
  };

  // What the grid must resolve, at the source's amplitude-weighted centre.
  LibDef::SystemModel& system = library.GetSystemModel();
  double centre = 0.0, weight = 0.0;
  for (int i = 0; i < system.GetSource().GetNumberOfGaussians(); ++i) {
    double a = 0, c = 0, w = 0;
    system.GetSource().GetGaussian(i, a, c, w);
    centre += a * c;
    weight += a;
  }
  const double centreWavelength = weight > 0.0 && centre > 0.0 ? kTwoPi * weight / centre : 0.6;
  std::vector<std::complex<double>> centreIndex(layers);
  for (int j = 0; j < layers; ++j)
    centreIndex[j] = LgStackModel::IndexAt(materials, stack.GetLayer(j).material, centreWavelength);
  LgGridRequest request;
  request.samples = samples;
  request.stepUm = stepUm;
  request.ambientIndex =
      std::max(1e-3, LgStackModel::IndexAt(materials, stack.GetAmbient(), centreWavelength).real());
  // How much weaker each further round trip in a layer returns (normal incidence, source centre).
  {
    std::vector<std::complex<double>> n(layers + 2);
    n[0] = LgStackModel::IndexAt(materials, stack.GetAmbient(), centreWavelength);
    for (int j = 0; j < layers; ++j)
      n[j + 1] = centreIndex[j];
    n[layers + 1] = LgStackModel::IndexAt(materials, stack.GetSubstrate(), centreWavelength);
    for (int j = 1; j <= layers; ++j) {
      const double ratio =
          std::abs((n[j - 1] - n[j]) / (n[j - 1] + n[j]) * (n[j] - n[j + 1]) / (n[j] + n[j + 1]));
      request.echoRatio = std::max(request.echoRatio, ratio);
    }
  }
  LgConfiguration config;
  for (int c = 0; c < configurations; ++c) {
    configure(c, config);
    double depth = 0.0;
    for (int j = 0; j < layers; ++j) {
      if (!(config.thicknessUm[j] >= 0.0) || !std::isfinite(config.thicknessUm[j])) {
        status_ = Refuse(__LINE__, "Skew: configuration " + std::to_string(c) + " gives layer " +
                                       std::to_string(j) + " the thickness " +
                                       std::to_string(config.thicknessUm[j]) + " um");
        return false;
      }
      depth += std::fabs((centreIndex[j] + config.indexShift[j]).real()) * config.thicknessUm[j];
    }
    request.maxOpticalDepthUm = std::max(request.maxOpticalDepthUm, depth);
    request.maxTopOffsetUm = std::max(request.maxTopOffsetUm, std::fabs(config.topUm));
  }

  LgIntegrationGrid::Settings settings;
  settings.oversampling = oversampling_;
  settings.nodesPerInterval = nodesPerInterval_;
  settings.azimuthNodes = azimuthNodes_;
  if (!grid_->Build(system, request, settings, status_)) return false;
  if (Analysis::Core::CopyIfFailed(status_, system.GetPupilIntensity().GetStatus())) return false;

  LgStackModel model;
  if (!model.Prepare(stack, *grid_, status_)) return false;

  // Valid bins: where the source carries at least the cut-off fraction of its peak.
  const LibDef::Source& source = system.GetSource();
  const double kLo = grid_->LowWavenumber(), kHi = grid_->HighWavenumber();
  constexpr int kProbe = 8192;
  double peak = 0.0;
  for (int i = 0; i <= kProbe; ++i)
    peak = std::max(peak, source.IntensityAtWavenumber(kLo + (kHi - kLo) * i / kProbe));
  const double threshold = std::clamp(source.GetCutOff(), 0.0, 1.0) * peak;
  auto edge = [&](bool rising) {
    // First probe at or above the threshold from the low (rising) or the high end, then bisection
    // between it and its outer neighbour.
    int inside = -1;
    for (int i = 0; i <= kProbe; ++i) {
      const int at = rising ? i : kProbe - i;
      if (source.IntensityAtWavenumber(kLo + (kHi - kLo) * at / kProbe) >= threshold) {
        inside = at;
        break;
      }
    }
    double in = kLo + (kHi - kLo) * inside / kProbe;
    if ((rising && inside == 0) || (!rising && inside == kProbe)) return in;
    double out = kLo + (kHi - kLo) * (inside + (rising ? -1 : 1)) / kProbe;
    for (int iteration = 0; iteration < 60; ++iteration) {
      const double mid = 0.5 * (in + out);
      (source.IntensityAtWavenumber(mid) >= threshold ? in : out) = mid;
    }
    return in;
  };
  const double bandLo = edge(true), bandHi = edge(false);
  const double scan = samples * stepUm / kTwoPi;
  const double qLo = 2.0 * bandLo *
                     LgStackModel::IndexAt(materials, stack.GetAmbient(), kTwoPi / bandLo).real() *
                     std::cos(grid_->MaxAngle());
  const double qHi =
      2.0 * bandHi * LgStackModel::IndexAt(materials, stack.GetAmbient(), kTwoPi / bandHi).real();
  const int bins = samples / 2 + 1;
  const int firstBin = std::max(0, static_cast<int>(std::ceil(qLo * scan)));
  const int lastBin = std::min(bins - 1, static_cast<int>(std::floor(qHi * scan)));
  if (firstBin > lastBin) {
    status_ = Refuse(__LINE__,
                     "Scan sampling: no spectrum bin lies in the source band (the scan step is too coarse "
                     "or the scan too short)");
    return false;
  }

  LgSignalSynthesizer synthesizer;
  if (!synthesizer.Prepare(samples, stepUm, model.SpatialFrequencies(), firstBin, lastBin, status_))
    return false;

  LibDef::Spectra& spectra = library.GetSpectra();
  if (!spectra.Resize(configurations, bins)) {
    status_ = spectra.GetStatus();
    return false;
  }
  spectra.SetFirstBinValid(firstBin);
  spectra.SetLastBinValid(lastBin);

  const int nodes = model.NumberOfNodes();
  std::vector<std::complex<double>> coefficients(static_cast<std::size_t>(nodes) * kBlock);
  std::vector<std::complex<double>> block(static_cast<std::size_t>(bins) * kBlock);
  std::vector<std::complex<double>> scratch;
  std::vector<LgConfiguration> blockConfigurations(kBlock);
  auto store = [&](const std::complex<double>* spectrum, LibDef::Spectra::Spectrum& out) {
    for (int m = 0; m < bins; ++m)
      out[m] = m >= firstBin && m <= lastBin ? spectrum[m] : std::complex<double>();
  };
  for (int first = 0; first < configurations; first += kBlock) {
    const int count = std::min(kBlock, configurations - first);
    if (useReferencePath_) {
      for (int c = 0; c < count; ++c) {
        configure(first + c, config);
        model.Coefficients(config, scratch, coefficients.data() + static_cast<std::size_t>(c) * nodes);
      }
    } else {
      for (int c = 0; c < count; ++c)
        configure(first + c, blockConfigurations[c]);
      model.BlockCoefficients(blockConfigurations.data(), count, scratch, coefficients.data());
    }
    if (useReferencePath_) {
      synthesizer.SynthesizeReference(coefficients.data(), count, block.data());
    } else {
      synthesizer.Synthesize(coefficients.data(), count, block.data());
    }
    for (int c = 0; c < count; ++c)
      store(block.data() + static_cast<std::size_t>(c) * bins, *spectra.GetSpectrum(first + c));
  }
  model.MirrorCoefficients(coefficients.data());
  synthesizer.SynthesizeReference(coefficients.data(), 1, block.data());
  store(block.data(), spectra.GetPerfectMirrorSpectrum());
  return true;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen

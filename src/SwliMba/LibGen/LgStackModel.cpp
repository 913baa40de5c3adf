#include "SwliMba/LibGen/LgStackModel.h"

#include <cmath>

#include "Swli/Pups/detail/FilmOptics.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen {

using Analysis::Core::Status;
using Swli::Pups::FilmStack;
using Swli::Pups::RefractiveIndexMaterial;
namespace optics = Swli::Pups::detail;

namespace {
constexpr double kTwoPi = 6.283185307179586;
}  // namespace

std::complex<double> LgStackModel::IndexAt(const Swli::Pups::RefractiveIndexLibrary& library,
                                           const std::string& name, double wavelengthUm) {
  const RefractiveIndexMaterial* material = library.GetMaterial(name);
  return material == nullptr ? std::complex<double>(1.0, 0.0) : material->GetIndex(wavelengthUm);
}

bool LgStackModel::Prepare(FilmStack& stack, const LgIntegrationGrid& grid, Status& status) {
  std::vector<const RefractiveIndexMaterial*> media;
  if (!stack.ResolveMaterials(media)) {
    status = stack.GetStatus();
    return false;
  }
  layers_ = stack.GetNumberOfLayers();
  angles_ = grid.NumberOfAngles();
  nodes_ = grid.NumberOfNodes();
  const int mediaCount = layers_ + 2;
  q_.resize(nodes_);
  k_.resize(nodes_);
  front_.resize(nodes_);
  weightS_ = grid.WeightsS();
  weightP_ = grid.WeightsP();
  tangential_.resize(nodes_);
  index_.resize(static_cast<std::size_t>(mediaCount) * nodes_);
  w_.resize(index_.size());
  etaS_.resize(index_.size());
  etaP_.resize(index_.size());
  for (int i = 0; i < grid.NumberOfWavenumbers(); ++i) {
    const double k = grid.Wavenumbers()[i];
    const double wavelength = kTwoPi / k;
    std::vector<std::complex<double>> n(mediaCount);
    for (int m = 0; m < mediaCount; ++m)
      n[m] = media[m]->GetIndex(wavelength);
    for (int a = 0; a < angles_; ++a) {
      const int node = i * angles_ + a;
      const double beta = grid.Angles()[a];
      k_[node] = k;
      q_[node] = 2.0 * k * n[0].real() * grid.Cosines()[a];
      front_[node] = grid.SourceWeights()[i] * grid.InstrumentFactors()[node];
      tangential_[node] = n[0] * std::sin(beta);
      for (int m = 0; m < mediaCount; ++m) {
        const std::size_t at = static_cast<std::size_t>(m) * nodes_ + node;
        index_[at] = n[m];
        w_[at] = optics::NormalComponent(n[m], tangential_[node]);
        etaS_[at] = optics::AdmittanceS(n[m], w_[at]);
        etaP_[at] = optics::AdmittanceP(n[m], w_[at]);
      }
    }
  }
  // What the block path needs per node: the interfaces' Fresnel coefficients, 2 k w of the layers,
  // and the source, instrument and pupil weights of each polarisation.
  rhoS_.resize(static_cast<std::size_t>(mediaCount - 1) * nodes_);
  rhoP_.resize(rhoS_.size());
  twoKw_.resize(static_cast<std::size_t>(std::max(layers_, 1)) * nodes_);
  frontS_.resize(nodes_);
  frontP_.resize(nodes_);
  for (int node = 0; node < nodes_; ++node) {
    for (int m = 0; m + 1 < mediaCount; ++m) {
      const std::size_t a = static_cast<std::size_t>(m) * nodes_ + node;
      const std::size_t b = a + nodes_;
      rhoS_[a] = optics::Fresnel(etaS_[a], etaS_[b]);
      rhoP_[a] = optics::Fresnel(etaP_[a], etaP_[b]);
    }
    for (int j = 1; j <= layers_; ++j)
      twoKw_[static_cast<std::size_t>(j - 1) * nodes_ + node] =
          2.0 * k_[node] * w_[static_cast<std::size_t>(j) * nodes_ + node];
    frontS_[node] = front_[node] * weightS_[node];
    frontP_[node] = front_[node] * weightP_[node];
  }
  return true;
}

void LgStackModel::Coefficients(const LgConfiguration& configuration,
                                std::vector<std::complex<double>>& scratch, std::complex<double>* c) const {
  const int mediaCount = layers_ + 2;
  // Per node: admittances of every medium (s then p) and the round-trip factors of the layers.
  scratch.resize(3 * static_cast<std::size_t>(mediaCount));
  std::complex<double>* etaS = scratch.data();
  std::complex<double>* etaP = etaS + mediaCount;
  std::complex<double>* roundTrip = etaP + mediaCount;
  const std::complex<double> i2(0.0, 2.0);
  bool shifted = false;
  for (const auto& s : configuration.indexShift)
    shifted = shifted || s != 0.0;
  for (int node = 0; node < nodes_; ++node) {
    for (int m = 0; m < mediaCount; ++m) {
      const std::size_t at = static_cast<std::size_t>(m) * nodes_ + node;
      std::complex<double> w = w_[at];
      etaS[m] = etaS_[at];
      etaP[m] = etaP_[at];
      if (shifted && m >= 1 && m <= layers_ && configuration.indexShift[m - 1] != 0.0) {
        const std::complex<double> n = index_[at] + configuration.indexShift[m - 1];
        w = optics::NormalComponent(n, tangential_[node]);
        etaS[m] = optics::AdmittanceS(n, w);
        etaP[m] = optics::AdmittanceP(n, w);
      }
      if (m >= 1 && m <= layers_)
        roundTrip[m] = std::exp(i2 * (k_[node] * configuration.thicknessUm[m - 1]) * w);
    }
    const std::complex<double> rs = optics::AiryReflection(layers_, etaS, roundTrip);
    const std::complex<double> rp = optics::AiryReflection(layers_, etaP, roundTrip);
    const double phase = -q_[node] * configuration.topUm;
    c[node] = front_[node] * (weightS_[node] * rs + weightP_[node] * rp) *
              std::complex<double>(std::cos(phase), std::sin(phase));
  }
}

namespace {
// a / b without the overflow and NaN handling of the library's complex division: the admittance
// sums and 1 + ρ r e of a passive stack are far from 0 and from overflow.
inline std::complex<double> Divide(std::complex<double> a, std::complex<double> b) {
  const double scale = 1.0 / (b.real() * b.real() + b.imag() * b.imag());
  return {(a.real() * b.real() + a.imag() * b.imag()) * scale,
          (a.imag() * b.real() - a.real() * b.imag()) * scale};
}

inline std::complex<double> Multiply(std::complex<double> a, std::complex<double> b) {
  return {a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real()};
}

// exp(i x) for complex x = exp(−Im x) (cos Re x + i sin Re x); a real x skips the exponential.
inline std::complex<double> ExpI(std::complex<double> x) {
  const double c = std::cos(x.real()), s = std::sin(x.real());
  if (x.imag() == 0.0) return {c, s};
  const double decay = std::exp(-x.imag());
  return {decay * c, decay * s};
}
}  // namespace

void LgStackModel::BlockCoefficients(const LgConfiguration* configurations, int count,
                                     std::vector<std::complex<double>>& scratch,
                                     std::complex<double>* c) const {
  bool shifted = false;
  for (int i = 0; i < count; ++i) {
    for (const auto& s : configurations[i].indexShift)
      shifted = shifted || s != 0.0;
  }
  if (shifted) {
    for (int i = 0; i < count; ++i)
      Coefficients(configurations[i], scratch, c + static_cast<std::size_t>(i) * nodes_);
    return;
  }
  // Per layer and node: the round-trip factor e = exp(2i k w t) of the current thickness and the
  // factor of the last thickness step. A library steps a thickness evenly, so most configurations
  // update e by one multiplication; any other change recomputes it (and the block's first does), so
  // the products never run longer than a block.
  const std::size_t perLayer = static_cast<std::size_t>(nodes_);
  scratch.resize(2 * perLayer * std::max(layers_, 1));
  std::complex<double>* roundTrip = scratch.data();
  std::complex<double>* stepFactor = roundTrip + perLayer * std::max(layers_, 1);
  std::vector<double> thickness(layers_, 0.0), step(layers_, 0.0);
  for (int i = 0; i < count; ++i) {
    const LgConfiguration& config = configurations[i];
    for (int j = 0; j < layers_; ++j) {
      const double t = config.thicknessUm[j];
      std::complex<double>* e = roundTrip + j * perLayer;
      std::complex<double>* d = stepFactor + j * perLayer;
      const std::complex<double>* twoKw = twoKw_.data() + j * perLayer;
      if (i > 0 && t == thickness[j]) continue;
      if (i > 0 && t - thickness[j] == step[j]) {
        for (int node = 0; node < nodes_; ++node)
          e[node] = Multiply(e[node], d[node]);
      } else {
        for (int node = 0; node < nodes_; ++node)
          e[node] = ExpI(twoKw[node] * t);
        if (i > 0) {
          step[j] = t - thickness[j];
          for (int node = 0; node < nodes_; ++node)
            d[node] = ExpI(twoKw[node] * step[j]);
        } else {
          step[j] = 0.0;
        }
      }
      thickness[j] = t;
    }
    std::complex<double>* out = c + static_cast<std::size_t>(i) * nodes_;
    const bool shiftTop = config.topUm != 0.0;
    for (int node = 0; node < nodes_; ++node) {
      std::complex<double> rs = rhoS_[layers_ * perLayer + node], rp = rhoP_[layers_ * perLayer + node];
      for (int j = layers_; j >= 1; --j) {
        const std::complex<double> e = roundTrip[(j - 1) * perLayer + node];
        const std::complex<double> es = Multiply(rs, e), ep = Multiply(rp, e);
        const std::complex<double> rhoS = rhoS_[(j - 1) * perLayer + node];
        const std::complex<double> rhoP = rhoP_[(j - 1) * perLayer + node];
        rs = Divide(rhoS + es, 1.0 + Multiply(rhoS, es));
        rp = Divide(rhoP + ep, 1.0 + Multiply(rhoP, ep));
      }
      std::complex<double> value = Multiply(frontS_[node], rs) + Multiply(frontP_[node], rp);
      if (shiftTop) value = Multiply(value, ExpI(-q_[node] * config.topUm));
      out[node] = value;
    }
  }
}

void LgStackModel::MirrorCoefficients(std::complex<double>* c) const {
  for (int node = 0; node < nodes_; ++node)
    c[node] = front_[node] * (weightS_[node] + weightP_[node]);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen

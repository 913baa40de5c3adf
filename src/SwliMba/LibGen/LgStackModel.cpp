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
  const int mediaCount = layers_ + 2;
  scratch.resize(3 * static_cast<std::size_t>(mediaCount));
  std::complex<double>* rhoS = scratch.data();  // interface j between media j and j + 1
  std::complex<double>* rhoP = rhoS + mediaCount;
  std::complex<double>* twoKw = rhoP + mediaCount;  // 2 k w of each layer
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
  for (int node = 0; node < nodes_; ++node) {
    for (int m = 0; m + 1 < mediaCount; ++m) {
      const std::size_t a = static_cast<std::size_t>(m) * nodes_ + node;
      const std::size_t b = a + nodes_;
      rhoS[m] = Divide(etaS_[a] - etaS_[b], etaS_[a] + etaS_[b]);
      rhoP[m] = Divide(etaP_[a] - etaP_[b], etaP_[a] + etaP_[b]);
      twoKw[m] = 2.0 * k_[node] * w_[a];
    }
    const std::complex<double> frontS = front_[node] * weightS_[node];
    const std::complex<double> frontP = front_[node] * weightP_[node];
    const double q = q_[node];
    for (int i = 0; i < count; ++i) {
      const LgConfiguration& config = configurations[i];
      std::complex<double> rs = rhoS[layers_], rp = rhoP[layers_];
      for (int j = layers_; j >= 1; --j) {
        const std::complex<double> e = ExpI(twoKw[j] * config.thicknessUm[j - 1]);
        const std::complex<double> es = Multiply(rs, e), ep = Multiply(rp, e);
        rs = Divide(rhoS[j - 1] + es, 1.0 + Multiply(rhoS[j - 1], es));
        rp = Divide(rhoP[j - 1] + ep, 1.0 + Multiply(rhoP[j - 1], ep));
      }
      std::complex<double> value = Multiply(frontS, rs) + Multiply(frontP, rp);
      if (config.topUm != 0.0) value = Multiply(value, ExpI(-q * config.topUm));
      c[static_cast<std::size_t>(i) * nodes_ + node] = value;
    }
  }
}

void LgStackModel::MirrorCoefficients(std::complex<double>* c) const {
  for (int node = 0; node < nodes_; ++node)
    c[node] = front_[node] * (weightS_[node] + weightP_[node]);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen

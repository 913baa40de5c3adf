#pragma once

#include <complex>
#include <string>
#include <vector>

#include "Analysis/Core/Status.h"
#include "Swli/Pups/FilmStack.h"
#include "SwliMba/LibGen/LgIntegrationGrid.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen {

// LgConfiguration
//
// One configuration of a library's sample: every layer's thickness (µm), a shift of every layer's
// complex index (the varied Cauchy constant terms: ΔA + iΔD), and the height of the stack's top
// above height zero, h_top.
struct LgConfiguration {
  std::vector<double> thicknessUm;
  std::vector<std::complex<double>> indexShift;
  double topUm = 0.0;
};

// LgStackModel
//
// The sample's part of the signal model at every node (k, β) of the integration grid:
//   c(k, β) = S(k) · F(k, β) · (W_s r_s + W_p r_p) · exp(−i q h_top),   q = 2 k n0 cos β,
// with S, W_s, W_p and the instrument factor F from the grid and r_s, r_p of the configuration's
// stack by Airy recursion, so that the signal is I(ζ) = Σ Re{c exp(i q ζ)}. The materials'
// indices, the normal wave-vector components and the admittances of the unshifted media are
// computed once per node in `Prepare`; a configuration then costs one complex exponential per
// layer and node (and a square root per node for a layer whose index it shifts).
class LgStackModel {
 public:
  bool Prepare(Swli::Pups::FilmStack& stack, const LgIntegrationGrid& grid, Analysis::Core::Status& status);

  int NumberOfLayers() const { return layers_; }
  int NumberOfNodes() const { return nodes_; }
  // q = 2 k n0 cos β at every node.
  const std::vector<double>& SpatialFrequencies() const { return q_; }
  // The ambient's index at the centre of the grid's band (for the grid's period estimate, before
  // `Prepare`: a static helper).
  static std::complex<double> IndexAt(const Swli::Pups::RefractiveIndexLibrary& library,
                                      const std::string& name, double wavelengthUm);

  // c at every node for `configuration`; `scratch` is per caller (sized here).
  void Coefficients(const LgConfiguration& configuration, std::vector<std::complex<double>>& scratch,
                    std::complex<double>* c) const;
  // The same for `count` configurations at once (c of configuration i at c + i × nodes), node by
  // node so that everything but the layers' round trips is computed once per node. Configurations
  // that shift an index go through `Coefficients`.
  void BlockCoefficients(const LgConfiguration* configurations, int count,
                         std::vector<std::complex<double>>& scratch, std::complex<double>* c) const;
  // The perfect mirror: r_s = r_p = 1 at h_top = 0.
  void MirrorCoefficients(std::complex<double>* c) const;

 private:
  int layers_ = 0;
  int nodes_ = 0;
  int angles_ = 0;
  std::vector<double> q_;                         // per node
  std::vector<double> k_;                         // per node
  std::vector<std::complex<double>> front_;       // per node: S F (weights applied per polarisation below)
  std::vector<double> weightS_, weightP_;         // per node
  std::vector<std::complex<double>> tangential_;  // per node: N0 sin β
  // Per medium m (0 ambient .. L + 1 substrate) and node, at [m * nodes + node].
  std::vector<std::complex<double>> index_, w_, etaS_, etaP_;
  // Per interface m (between media m and m + 1) and node; per layer and node; per node.
  std::vector<std::complex<double>> rhoS_, rhoP_, twoKw_, frontS_, frontP_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen

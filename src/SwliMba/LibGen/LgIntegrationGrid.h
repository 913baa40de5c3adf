#pragma once

#include <complex>
#include <string>
#include <vector>

#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"
#include "SwliMba/LibDef/SystemModel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen {

// LgGridRequest
//
// What the integration grid must resolve, gathered by the generator from the library definition:
// the scan (samples × step), the largest distance of the stack's top from height zero over all
// configurations and the largest optical depth of the stack (Σ n_j t_j at the source centre).
struct LgGridRequest {
  int samples = 0;
  double stepUm = 0.0;
  double maxTopOffsetUm = 0.0;
  double maxOpticalDepthUm = 0.0;
  double ambientIndex = 1.0;  // real part of the ambient index at the source centre
  // Largest |ρ_above ρ_below| of a layer's two interfaces at the source centre: how much weaker each
  // further round trip inside a layer returns (0 without layers).
  double echoRatio = 0.0;
};

// LgIntegrationGrid
//
// The quadrature over wavenumber and pupil angle that turns the signal model's integrals into
// sums. Both grids are fixed by the rules below so that an independent implementation can rebuild
// them from the few numbers `Describe` prints.
//
// Wavenumber k (rad/µm): n_k equally spaced nodes from k_lo = max(min_i(c_i − 7 w_i), 0.01 min_i c_i)
// to k_hi = max_i(c_i + 7 w_i) over the source's Gaussians (centre c, width w), weights S(k)
// normalised to sum 1. The span of ±7 widths leaves out 2e-11 of any Gaussian. A sum over nodes
// spaced dk makes the modelled signal periodic in the scan position with period π / (n0 cos β dk);
// the spacing is chosen so that this period exceeds
//     P = samples × step / 2 + max |h_top| + E × optical depth + 8 / (2 min_i w_i),
// i.e. the echoes the stack returns (the top surface, and the multiple reflections inside the
// layers, one optical depth apart) and their aliases stay 8 coherence widths outside the scan for
// the first E echoes, where E is the number of round trips after which an echo has fallen below
// 1e-7 of the first (the echo ratio ρ per round trip from the layers' interfaces at the source
// centre: E = 1 + ceil(ln 1e-7 / ln ρ), 2 .. 16):
//     dk ≤ π / (n0 P) / oversampling,   n_k = ceil((k_hi − k_lo) / dk) + 1 (at least 3).
//
// Pupil angle β: the uniformly filled pupil weighs sin β cos β dβ = u du with u = cos β, so the
// nodes are Gauss-Legendre nodes in u: `nodesPerInterval` of them on each interval between the
// breakpoints 0, the roll-off model's transitions inside the aperture, and β_max = asin(NA); each
// node's weight is its Gauss-Legendre weight × u × roll-off(β) (when the roll-off is set). In u the
// signal's phase 2 k n0 u ζ is linear; the number of nodes per interval (unless set) is the least
// n ≥ 3 for which the Gauss-Legendre error bound of exp(i a u) over the widest interval, with
// a = 2 k_hi n0 (samples × step / 2 + max |h_top| + 2 × optical depth) (the scan and the first two
// echoes), is below 1e-12: (a h)^(2n) (n!)^4 / ((2n + 1) ((2n)!)^3), h the half-width in u. NA 0
// means on-axis illumination: one node, β = 0.
//
// Polarisation and pupil illumination split each node's weight between s and p: circular light,
// or linear light without a pupil intensity model, gives half to each; with pupil intensity models
// I(λ, β, φ), averaged over `azimuthNodes` equally spaced azimuths, linear light along x gives
// ⟨I cos²φ⟩ to p and ⟨I sin²φ⟩ to s, circular light ½⟨I⟩ to each. The weights are normalised to
// sum 1 at every wavenumber.
class QUARN_PP_EXPORT LgIntegrationGrid {
 public:
  struct Settings {
    double oversampling = 1.0;
    int nodesPerInterval = 0;  // 0: from the error bound
    int azimuthNodes = 16;
  };

  // Builds the grid; false with the reason in `status` (code 21).
  bool Build(LibDef::SystemModel& system, const LgGridRequest& request, const Settings& settings,
             Analysis::Core::Status& status);

  int NumberOfWavenumbers() const { return static_cast<int>(wavenumbers_.size()); }
  int NumberOfAngles() const { return static_cast<int>(cosines_.size()); }
  int NumberOfNodes() const { return NumberOfWavenumbers() * NumberOfAngles(); }

  const std::vector<double>& Wavenumbers() const { return wavenumbers_; }
  const std::vector<double>& SourceWeights() const { return sourceWeights_; }
  const std::vector<double>& Angles() const { return angles_; }
  const std::vector<double>& Cosines() const { return cosines_; }
  const std::vector<double>& AngleBreakpoints() const { return breakpoints_; }
  // Node (k index i, angle index a) at i × NumberOfAngles() + a.
  const std::vector<double>& WeightsS() const { return weightS_; }
  const std::vector<double>& WeightsP() const { return weightP_; }
  // Tau × exp(i (dispersion phase gaps)) at every node.
  const std::vector<std::complex<double>>& InstrumentFactors() const { return instrument_; }

  double LowWavenumber() const { return kLo_; }
  double HighWavenumber() const { return kHi_; }
  double MaxAngle() const { return betaMax_; }
  // The Gauss-Legendre nodes used on each pupil interval.
  int NodesPerInterval() const { return nodesPerInterval_; }
  // "k_lo k_hi n_k nodesPerInterval azimuthNodes breakpoints..." for an independent rebuild.
  std::string Describe() const;

 private:
  std::vector<double> wavenumbers_, sourceWeights_, angles_, cosines_, breakpoints_, weightS_, weightP_;
  std::vector<std::complex<double>> instrument_;
  double kLo_ = 0.0, kHi_ = 0.0, betaMax_ = 0.0;
  int nodesPerInterval_ = 0;
  Settings settings_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen

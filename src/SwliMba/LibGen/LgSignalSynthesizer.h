#pragma once

#include <complex>
#include <memory>
#include <vector>

#include "Analysis/Core/Fft1DReal.h"
#include "Analysis/Core/Status.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen {

// LgSignalSynthesizer
//
// Turns the node coefficients c of a block of configurations into the library spectra: the N scan
// samples I(ζ_j) = Σ_nodes Re{c exp(i q ζ_j)} at ζ_j = (j − N/2) × step, then their forward real
// transform (N/2 + 1 bins, kernel exp(−2πi jm/N), unnormalised).
//
// The plain path does exactly that: it sums the nodes sample by sample and transforms. The fast path
// uses that the transform is linear: a node with coefficient c contributes Re c cos θ_j − Im c sin θ_j
// (θ_j = q ζ_j) to the samples, hence Re c · DFT(cos θ)_m − Im c · DFT(sin θ)_m to bin m, so the
// bins first..last of all configurations of a block are one real matrix product
//   [Re X; Im X] (2B × M) = [[Re C, −Re S], [Im C, −Im S]] (2B × 2P) · [Re c; Im c] (2P × M),
// C and S the transforms of every node's cos θ and sin θ, computed once per library (B = the valid
// bins). Bins outside first..last are 0 on the fast path. The two paths agree to rounding.
class LgSignalSynthesizer {
 public:
  LgSignalSynthesizer();
  ~LgSignalSynthesizer();

  bool Prepare(int samples, double stepUm, const std::vector<double>& q, int firstBin, int lastBin,
               Analysis::Core::Status& status);

  int NumberOfSamples() const { return samples_; }
  int NumberOfBins() const { return samples_ / 2 + 1; }
  int NumberOfNodes() const { return nodes_; }

  // `coefficients` holds `count` configurations one after the other, P values each; `spectra` gets
  // their N/2 + 1 bins each. `samples` (optional, plain path only) gets the N samples of each.
  void Synthesize(const std::complex<double>* coefficients, int count, std::complex<double>* spectra);
  void SynthesizeReference(const std::complex<double>* coefficients, int count, std::complex<double>* spectra,
                           double* samples = nullptr);

 private:
  void Transform(const double* samples, std::complex<double>* spectrum);

  struct Matrices;
  int samples_ = 0;
  int nodes_ = 0;
  int firstBin_ = 0;
  int lastBin_ = 0;
  std::unique_ptr<Matrices> matrices_;
  Analysis::Core::Fft1DReal fft_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen

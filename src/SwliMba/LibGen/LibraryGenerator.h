#pragma once

#include <memory>

#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"
#include "SwliMba/LibDef/Library.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen {

class LgIntegrationGrid;

// LibraryGenerator
//
// Fills a library definition's `Spectra`: one spectrum per configuration of the skew (variable 2
// varying fastest), the perfect-mirror spectrum, and the first and last valid bins.
//
// Signal model. Heights h and scan positions ζ point up, towards the objective; ζ is the height of
// the zero-path-difference plane, so a mirror at h peaks at ζ = h (and with scan direction +1 a
// buried interface peaks at an earlier frame than the top surface). A pixel sees
//   I(ζ) = DC + G · Σ_k Σ_β S(k) w(β) Re{ r(k, β) · exp(i·2k·n0·cos β·(ζ − h_top)) },
// where k is the vacuum angular wavenumber (rad/µm), S the source's Gaussians normalised to sum 1,
// w the pupil weight (uniformly filled to the numerical aperture: sin β cos β dβ, times the roll-off
// and pupil intensity models when they are set; normalised to sum 1), n0 the ambient's real index
// and r the stack's reflection coefficient against an ideal reference (1 in both polarisations):
// (r_s + r_p)/2 for circular light, with time dependence exp(−iωt) and N = n + iκ. The stack's top
// lies at h_top = h + Σ_{j<i} t_j for zero-height layer i (h is the top of layer i). The instrument
// enters as a factor of r at every (k, β): the arm transmission ratio Tau(k, β) and
// exp(i·(NoThetaPhaseGap(k, β) + TwoThetaPhaseGap(k, β))) of the dispersion; all-zero coefficients
// leave the signal unchanged.
//
// Library spectra: N = samples at ζ_j = (j − N/2)·step (step = the ramp slope) with h = 0, DC 0,
// G 1, forward real transform (N/2 + 1 bins, kernel exp(−2πi jm/N), unnormalised). Bin m holds
// the spatial frequency q = 2π m / (N·step) of exp(i q ζ), q = 2 k n0 cos β. The valid bins are
// those that light of the source's band reaches: the band is where S(k) ≥ cut-off × max S, the
// first valid bin ceil(q_lo N step / 2π) with q_lo = 2 k_lo n0 cos β_max, the last
// floor(q_hi N step / 2π) with q_hi = 2 k_hi n0 (clamped to the bins that exist). Every spectrum,
// the mirror's too, is zero outside them, so the valid bins can also be read off the spectra. The
// perfect mirror is r_s = r_p = 1 at h = 0.
//
// The integrals are sums over the grid `LgIntegrationGrid` describes (equally spaced wavenumbers
// that keep the signal's aliases outside the scan, Gauss-Legendre nodes in cos β); the spectra
// converge to the integrals' values as the grid is refined (`SetWavenumberOversampling`,
// `SetAngularNodesPerInterval`): for materials given by formulas the default grid is within about
// 1e-9 of the peak bin of the converged spectra. Tabulated materials are interpolated linearly, so
// their indices have kinks at the table's rows: the sums then converge only algebraically (about
// 1e-5 of the peak bin at the default spacing for the built-in silicon), and the kinks give the
// modelled signal weak tails (about 1e-5 of its peak) far from the fringe packets.
//
// Varied parameters: Thickness (µm) of the variable's layer; CauchyN0 / CauchyK0 replace the
// constant term A (resp. D) of that layer's "Complex-Cauchy/um" material, for that layer only.
//
//   LibDef::Library library;            // filled: part model, system model, specifications, skew
//   LibraryGenerator generator;
//   if (!generator.Generate(library)) std::puts(generator.GetStatus().GetPrintString().c_str());
//   library.GetSpectra().GetAsDoubleMatrix2D(matrix);
//
// Failures (source "SwliMba\LibGen\LibraryGenerator"): an unusable definition, code 21 with a
// message naming the field; a failure of a part of the library, copied; memory, code 3.
class QUARN_PP_EXPORT LibraryGenerator {
 public:
  LibraryGenerator();
  ~LibraryGenerator();
  LibraryGenerator(const LibraryGenerator&) = delete;
  LibraryGenerator& operator=(const LibraryGenerator&) = delete;

  // Refinement of the wavenumber grid beyond the alias-free spacing (default 1; clamped to ≥ 0.25).
  double GetWavenumberOversampling() const { return oversampling_; }
  void SetWavenumberOversampling(double factor);
  // Gauss-Legendre nodes per pupil interval (default 0: from the error bound; else clamped to 1 .. 64).
  int GetAngularNodesPerInterval() const { return nodesPerInterval_; }
  void SetAngularNodesPerInterval(int nodes);
  // Azimuths averaged for pupil intensity models (default 16; clamped to 1 .. 1024).
  int GetAzimuthNodes() const { return azimuthNodes_; }
  void SetAzimuthNodes(int nodes);
  // The plain per-sample summation instead of the matrix product (same results up to rounding).
  bool GetUseReferencePath() const { return useReferencePath_; }
  void SetUseReferencePath(bool use) { useReferencePath_ = use; }

  // Fills the library's spectra; false (status set) on failure, the spectra are then unspecified.
  bool Generate(LibDef::Library& library);

  // The grid of the last successful `Generate`.
  const LgIntegrationGrid& GetIntegrationGrid() const { return *grid_; }

  Analysis::Core::Status& GetStatus() { return status_; }
  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  bool GenerateImpl(LibDef::Library& library);

  double oversampling_ = 1.0;
  int nodesPerInterval_ = 0;
  int azimuthNodes_ = 16;
  bool useReferencePath_ = false;
  std::unique_ptr<LgIntegrationGrid> grid_;
  Analysis::Core::Status status_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen

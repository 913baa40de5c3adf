#pragma once

#include <complex>
#include <cstdint>
#include <functional>
#include <vector>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Synthetic/SeededRandom.h"

namespace Quarn::Testing {

namespace Core = ::Quarn::Metrology::Analysis::Core;

// One transparent film on an absorbing substrate under a white-light objective, the standard
// model-based-analysis test part (by default SiO2 on crystalline Si in air).
//
// Signal of a surface point whose top lies at height h (µm, up towards the objective), at scan
// position ζ (the height of the zero-path-difference plane, µm):
//
//   I(ζ) = Σ_k Σ_β S(k) w(β) Re{ r(k, β) exp(i 2 k cos β (ζ - h)) }
//
// with S a Gaussian source spectrum in angular wavenumber k (rad/µm) cut where it falls below
// `sourceCutoff` of its peak, w(β) ∝ sin β cos β over a pupil uniformly filled to the numerical
// aperture, both normalised to sum 1, and r the film's amplitude reflection (the mean of r_s and
// r_p, circular polarisation), the Airy sum r = (r01 + r12 e^{2iδ}) / (1 + r01 r12 e^{2iδ}),
// δ = k N1 cos θ1 t, with the admittances N cos θ (s) and N / cos θ (p). The reference is an
// ideal mirror. So the film's buried interface gives a second fringe packet n·t lower.
//
// The grids: `kSamples` wavenumbers evenly over the cut band, `betaSamples` midpoints in β.
struct FilmSettings {
  double filmCauchyA = 1.4485;  // SiO2, n = A + B / λ², λ in µm
  double filmCauchyB = 0.00354;
  std::complex<double> substrate{3.94, 0.02};  // Si near 600 nm
  double sourceCentreRadPerUm = 10.47;
  double sourceWidthRadPerUm = 1.2;
  double sourceCutoff = 0.02;
  double numericalAperture = 0.2;
  int kSamples = 96;
  int betaSamples = 12;
};

class FilmSignalModel {
 public:
  explicit FilmSignalModel(const FilmSettings& settings = {});

  // The scan of a point with film thickness t and top height h at positions ζ_j = zeta0 + j·step
  // (µm), accumulated into out[0 … n-1] (added, not assigned).
  void AddSignal(double thicknessUm, double heightUm, double zeta0Um, double stepUm, int n,
                 double* out) const;

  // Library spectra: for each thickness from + i·step (count of them), the scan of N samples at
  // ζ_j = (j - N/2)·scanStep with h = 0, forward real transform (plain DFT, N/2 + 1 bins), rows
  // interleaved real/imaginary. The perfect mirror the same with r = 1.
  void LibraryMatrix(double fromUm, double stepUm, int count, int samples, double scanStepUm,
                     Core::DoubleMatrix2D& out) const;
  void PerfectMirror(int samples, double scanStepUm, Core::Array<std::complex<double>>& out) const;

  std::complex<double> Reflection(double k, double beta, double thicknessUm) const;

 private:
  FilmSettings settings_;
  std::vector<double> k_, beta_, weight_;  // flattened (k, β) grid with S(k) w(β)
};

// A film scan as a camera records it: 16-bit frames, `bias` counts plus `gain` times the signal
// (a perfect mirror's fringes have amplitude `gain`), Gaussian noise of `noiseFraction` of each
// pixel's own largest fringe excursion, rounded and clipped.
struct FilmScanSettings {
  int rows = 16;
  int cols = 16;
  int frames = 128;
  double scanStepUm = 0.080;
  double bias = 20000.0;
  double gain = 20000.0;
  double noiseFraction = 0.0;
};

// Records the scan of thickness(row, col) and height(row, col) (µm), frame j at ζ = (j - N/2)·step;
// the traces are synthesised point by point from the model. False when the buffer cannot be made.
bool RecordFilmScan(const FilmSignalModel& model, const FilmScanSettings& settings,
                    const Core::DoubleMatrix2D& thicknessUm, const Core::DoubleMatrix2D& heightUm,
                    SeededRandom* random, Core::FrameBuffer& frames);

// A film scan synthesised from model spectra (a library matrix: plain transforms of N samples at
// ζ_j = (j - N/2)·step, bins interleaved real/imaginary): pixel (r, c) takes row signalOf(r, c),
// moved up by heightFrames(r, c) frames as the linear phase exp(-i 2π m h / N) of bin m, and
// transformed back. That equals the scan of the moved surface wherever the fringes have faded
// before the scan's ends (a band-limited signal), and costs a few thousand operations per pixel
// where the point-by-point model above costs a hundred times more. 16-bit frames, `bias` plus
// `gain` times the signal, Gaussian noise of `noiseFraction` of each pixel's largest fringe
// excursion, rounded and clipped. False when the buffer cannot be made.
bool RecordScanFromSpectra(const Core::DoubleMatrix2D& spectra, int rows, int cols,
                           const std::function<int(int, int)>& signalOf,
                           const std::function<double(int, int)>& heightFrames, double bias, double gain,
                           double noiseFraction, SeededRandom* random, Core::FrameBuffer& frames);

}  // namespace Quarn::Testing

#pragma once

#include <cstdint>
#include <functional>

#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "Synthetic/SeededRandom.h"

namespace Quarn::Testing {

namespace Core = ::Quarn::Metrology::Analysis::Core;

// The light of a white-light interferometer: a Gaussian spectrum in wavenumber with the given centre
// wavelength and full width at half maximum (in wavelength, converted as d(1/lambda) = dlambda /
// lambda^2).
struct ScanLight {
  double centreWavelengthNm = 600.0;
  double bandwidthNm = 100.0;
};

// A coherence scan of a surface, as a camera records it.
//
// Frame k of a forward scan is taken at scan position z = k x step; a reversed scan runs the other
// way, frame k at (F - k) x step. A surface point at height H (nanometres, along the scan) sees a
// path difference x = 2 (z - H) and the intensity
//
//   I = bias + modulation exp(-(pi dsigma x)^2 / (4 ln 2)) cos(2 pi x / lambda0 + reflectionPhase)
//
// (a Gaussian spectrum of centre 1/lambda0 and width dsigma): fringes of half the centre wavelength
// under an envelope 0.44 lambda0^2 / bandwidth wide at half maximum (1.6 um for 600 nm light of
// 100 nm bandwidth), plus Gaussian noise, rounded and clipped to [0, saturation].
//
// Storage: the whole scan (framesStored 0), or a ring of S slots (frame f in slot f mod S) that keeps
// frames c - S/2 .. c + S/2 - 1 of every pixel, c being its entry in `ringCentres`, or the last S
// frames where that window would leave the scan. The noise depends only on the scan position, so
// scans of one surface in different layouts carry the same samples.
struct ScanSettings {
  int rows = 32;
  int cols = 32;
  int framesScanned = 256;
  int framesStored = 0;
  double scanStepNm = 80.0;
  ScanLight light;
  double biasCounts = 100.0;
  double modulationCounts = 60.0;
  double reflectionPhaseRad = 0.0;
  double noiseSigmaCounts = 0.0;
  Core::FrameBuffer::ElementRes resolution = Core::FrameBuffer::kRes8Bit;
  int scanDirection = 1;
};

// Allocates `frames` and records the scan of the surface `heightNm(row, col)`. `random` supplies the
// noise (required when noiseSigmaCounts > 0); `ringCentres` is required for ring storage. Returns
// false when the settings cannot be allocated.
bool MakeSyntheticScan(Core::FrameBuffer& frames, const ScanSettings& settings,
                       const std::function<double(int row, int col)>& heightNm,
                       SeededRandom* random = nullptr, const Core::IntMatrix2D* ringCentres = nullptr);

// The stored frame nearest to where the envelope of a surface at `heightNm` peaks: round(H / step),
// or F - round(H / step) for a reversed scan. What an ideal coherence discriminator reports.
int TruePeakFrame(const ScanSettings& settings, double heightNm);

// Full width at half maximum of the coherence envelope along the scan, nanometres.
double CoherenceLengthNm(const ScanLight& light);

// A sphere with a 300 nm step, 8.0 to 8.6 um along the scan on grids up to 24 x 32 pixels (frames
// 100 to 107 of a 256-frame scan at 80 nm per frame), rising slowly beyond.
double SphereWithStepNm(int row, int col);

// A scan together with what a coarse coherence discriminator reports for it: each pixel's peak frame
// is the true one off by up to two frames in a fixed pattern, (row + 2 col) mod 5 - 2, on the same
// physical frames whatever the scan direction (frame F - p of a reversed scan for frame p of a
// forward one). A ring keeps the frames around these peaks. The auxiliary matrix holds zeros.
struct DiscriminatedScan {
  ScanSettings settings;
  Core::FrameBuffer frames;
  Core::IntMatrix2D peaks;
  Core::IntMatrix2D auxiliary;
};

// Records the scan of `heightNm` with the noise of a generator seeded with `seed`; false when the
// settings cannot be allocated.
bool MakeDiscriminatedScan(DiscriminatedScan& scan, const ScanSettings& settings,
                           const std::function<double(int row, int col)>& heightNm, std::uint64_t seed);

}  // namespace Quarn::Testing

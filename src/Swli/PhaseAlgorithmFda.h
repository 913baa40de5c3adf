#pragma once

#include <memory>
#include <vector>

#include "Analysis/Core/DataWindow2D.h"
#include "Analysis/Core/NoData.h"
#include "QuarnPhaseProcessingExport.h"
#include "Swli/FrameBlockEvaluator.h"
#include "Swli/FrequencyScan.h"
#include "Swli/PhaseAlgorithmHigh2G.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

namespace detail {
struct BandTransform;
}

// PhaseAlgorithmFda
//
// Frequency-domain analysis: surface height from the phase of the signal's spectrum. A white-light
// signal is a sum of fringes of many wavenumbers, all in phase where the scan reaches the surface;
// in the spectrum of a signal window centred on the peak frame, bin k therefore has the phase
//
//   phi(k) = intercept + slope k,    slope = 2 pi (H - z_c) / (q step),
//
// where z_c is the window centre's scan position, H the surface and the intercept the phase change
// on reflection. Per pixel the spectrum of the q samples (transform kernel exp(+2 pi i j k / q)
// with the origin at the window centre) is searched in the band of bins [first, last] (13..21 by
// default, where fringes sampled about four times per fringe land with q = 64): bins below the power
// threshold (4 x saturation x minimum modulation / 100, squared) are empty, the phase is unwrapped
// outwards from the strongest bin while bins are not empty, and a power-weighted line phi(k) is
// fitted. The strongest bin, refined by a parabola through its neighbours' powers, gives the pixel's
// fringe wavenumber k0. A pixel needs at least three unwrapped bins, with some on each side of the
// strongest one; otherwise it gets no height.
//
// Each pixel's k0 is rounded to a multiple of 2^-20 bin before it joins its thread's sum. Sums of
// such values are exact in double precision (up to some 10^8 pixels), so K0, and with it every
// height, is the same however the pixels were shared among threads; with unrounded values the
// grouping of the additions, which follows the split, would change K0's last bits. The rounding, a
// millionth of a bin, is far below any pixel's own uncertainty.
//
// After all pixels (PostProcess), with K0 the mean k0 over the field, L = q x step and c = L / 2 pi:
// - the equivalent wavelength lambda = L / K0 (half the mean optical wavelength);
// - coherence height = z_c + c x slope (from the envelope position, unambiguous);
// - phase height = z_c + (K0 slope + intercept) c / K0, moved by whole lambda to within lambda/2 of
//   the coherence height (z_c here is the peak frame handed in; for a whole scan of exactly q
//   frames the coherence height takes the scan's centre, and the loader hands in that centre for a
//   peak in the first half of the scan but frame q/2 - 1 for one in the second half, whose phase
//   heights thus read one scan step low);
// - the fringe-order analysis (see PhaseAlgorithmHigh2G) joins them into the surface, reporting the
//   field's average gap between the two.
// Heights are nanometres along the scan with frame f at f x step. The noise of the result is that of
// the phase: a small fraction of a nanometre for well-modulated 8-bit signals.
//
// Status: code 1 (source "Swli\PhaseAlgorithmFda") when no pixel of the run succeeded.
//
//   PhaseAlgorithmFda fda;
//   fda.SetScanIncrement(UnitNumber(80.0, LinearConverter(Units::kNanometers)));
//   PhaseGenerator generator(&fda);
//   generator.Process(frames, peakFrames, auxiliary, surface);
//   fda.GetWaveLength();   // ~ 300 nm for 600 nm light
class QUARN_PP_EXPORT PhaseAlgorithmFda : public PhaseAlgorithmHigh2G, public FrameBlockEvaluator {
 public:
  PhaseAlgorithmFda();
  ~PhaseAlgorithmFda() override;

  using PhaseAlgorithm::Initialize;
  void Initialize(int pass, int numberFrames, int qSize, const Analysis::Core::Window2D& window) override;
  // Besides the base's per-thread state, each thread's block of band bins on the fast path.
  void InitializeThread(int numberThreads) override;
  void FinalizeThread() override;
  int ProcessPixel(int thread, int pixel, int peakFrame, int auxiliary) override;
  // Blocks of pixels straight from the frame planes (fast path, signals of 64 or 128 samples cut from
  // a longer scan, the standard fringe removal or none): the block's frames are copied once, and the
  // band transform runs across the block's pixels in vector lanes (detail/BlockBands.h: windows folded
  // in integers, each lane's sums those of the single-signal kernel, so the band's bins are those of the
  // loaded signal bit for bit); the block is then analysed as two blocks of band bins, and the intensity
  // comes from the same integers.
  // Pixels whose peak is to be estimated, and windows far from the rest of their block, are left to
  // the per-pixel path.
  bool BeginFrameBlocks(int thread, const FrameBlockRun& run) override;
  std::uint64_t ProcessFrameBlock(int thread, const FramePlaneBlock& block) override;
  // Analyses the pixels still waiting in the threads' blocks first (fast path), then joins the field.
  void PostProcess() override;
  // K0 / signal size: the mean fringe frequency in cycles per sample (0.0 before any pixel).
  double GetAverageK0() const override;
  // Signal size x scan increment / K0, nanometres (0.0 before any pixel).
  double GetWaveLength() const override;

  FrequencyScan GetFrequencyScanType() const { return frequencyScan_; }
  void SetFrequencyScanType(FrequencyScan type) { frequencyScan_ = type; }
  // The band of bins searched and fitted (default 13 .. 21). It must lie within the transform's
  // bins (0 .. q/2); a band reaching q/2 - 1 fits no slope.
  int GetFirstBandBin() const { return firstBin_; }
  int GetLastBandBin() const { return lastBin_; }
  void SetBand(int firstBin, int lastBin) {
    firstBin_ = firstBin;
    lastBin_ = lastBin;
  }

  // Fast path (true, the default): the band's bins of each pixel are summed directly from the signal where
  // the generator loaded it (detail/BandTransform.h: the samples folded by the transform's symmetries, then
  // 16 products per part and bin for q = 64, six bins' sums giving the default band's nine; at least as
  // accurate as a whole FFT, and cheaper for a band of 9 of 33 bins), into the thread's block of 32 pixels; a
  // full block is analysed across its pixels (detail/BandAnalysis.h): powers, the phases of every band bin in
  // one call of SLEEF's vector atan2 (within 3.5 ulp of libm's), the strongest bin, the unwrapping and the
  // fit's sums with vector lanes for pixels. A pixel's fit is thus written when its block is full, or in
  // PostProcess for the last pixels of each thread. Where the generator offers blocks of pixels from the
  // frame planes (see BeginFrameBlocks) the windows are transformed across the pixels, the same bins
  // bit for bit as from the loaded signal. Heights agree with the plain path to some tens of ulp
  // (the transforms' roundings differ), and are the same bit for bit on any number of threads. Plain path
  // (false, the reference): one pixel at a time, its signal copied into FFTW's whole transform, libm's scalar
  // atan2 on the bins it unwraps. Signal sizes that are not a multiple of 4 take FFTW's transform on the fast
  // path too.
  bool GetUseFastPath() const { return useFastPath_; }
  void SetUseFastPath(bool use) { useFastPath_ = use; }

  // Per pixel of the last run: phase intercept (x, rad), phase slope (y, rad per bin) and the peak
  // frame (z); no-data where the pixel did not succeed.
  const Analysis::Core::DataWindow2D<Analysis::Core::AdcPoint>* GetFitRecords() const {
    return fitRecords_.get();
  }

 private:
  struct BandBlock;
  template <typename Stored>
  std::uint64_t ProcessFrameBlockAs(int thread, const FramePlaneBlock& block);
  // Unwraps the band of one pixel outwards from its strongest bin (-1: none), fits the phase line and
  // stores the pixel's fit record and coherence height. `power` holds the band's powers (0 for empty
  // bins) at stride `stride`, `angle(b)` the wrapped phase of band bin b.
  template <typename Angle>
  void FitBand(ThreadState& state, int pixel, int peakFrame, bool traced, const double* power, int stride,
               int strongest, double strongestPower, const Angle& angle);
  // The fast path's analysis of the pixels waiting in a thread's block; empties the block.
  void AnalyseBlock(int thread);
  // The analysis of `count` lanes of band bins (re, im: bin after bin, kBandLanes lanes each) with
  // the thread's block as scratch; lanes whose pixel is -1 are skipped, `traced` may be null.
  void AnalyseLanes(int thread, double* re, double* im, const int* pixels, const int* peaks,
                    const bool* traced, int count);

  FrequencyScan frequencyScan_;
  int firstBin_ = 13;
  int lastBin_ = 21;
  bool useFastPath_ = true;
  double meanPeakBin_ = 0.0;  // K0
  double powerThreshold_ = 0.0;
  std::unique_ptr<Analysis::Core::DataWindow2D<Analysis::Core::AdcPoint>> fitRecords_;
  double wavelength_ = 0.0;
  double halfWavelength_ = 0.0;
  std::vector<std::unique_ptr<BandBlock>> blocks_;        // per thread, fast path only
  std::unique_ptr<detail::BandTransform> bandTransform_;  // the fast path's, shared by the threads
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

#pragma once

#include <complex>
#include <vector>

#include "Analysis/Core/Status.h"
#include "SwliMba/Search/LsBoard.h"
#include "SwliMba/Search/LsSignal.h"
#include "SwliMba/Search/LsSignalProcessor.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

// LsPixelProcessor
//
// Matches the scan traces of pixels against the library signals; one processor per worker thread,
// holding all its working arrays (sized once in `Init`).
//
// Signal. A pixel's trace (one sample per frame, reversed for scan direction -1) loses its mean
// and is transformed with the library's transform length N = 2 (bins - 1) (a shorter trace is
// padded with zeros, a longer one cut) in the processor's LsSignal. Only the band of bins that carry signal
// (see LsPerfectMirrorSignal) is compared. A surface h frames higher than the library's shifts the trace by h
// frames, which multiplies bin j by exp(-i ω_j h), ω_j = 2π j / N; with a gain G:
//
//   M_j = G · L_j · exp(-i ω_j h).
//
// Candidate stage (which signals come into question). The products of neighbouring bins
// D_j = M_{j+1} conj(M_j) lose everything of the shift but a common factor exp(-i 2π h / N), so
// |<D_M, D_L>| / (|D_M| |D_L|) compares the shape of the two spectra, phase included, whatever the
// height, and the phase of <D_M, D_L> gives the height to a fraction of a frame. For a block of
// pixels against a library this is one complex matrix product ("Linear"); "Fast" computes it on a
// coarse grid of variable 1 (every eighth value, over the band's core, in single precision as
// one real matrix product: see LsLibrary) and then densely around the best coarse intervals only; "MagOnly"
// correlates the normalised spectral magnitudes instead (a real matrix product, blind to the spectral phase).
//
// Candidates are the local maxima of that score along variable 1 ("intervals"). The best one is
// taken (strict greater-than, the first on a tie), and the others are considered further when
// their shortfall 1 - score is at most the interval consideration factor times the best one's
// (with full correlation, all of them); aggressive exclusion keeps at most 2, otherwise 6.
//
// Fit stage (Linear and Fast). For a candidate signal the least-squares gain and height of the
// model above maximise Re C(h), C(h) = Σ_j M_j conj(L_j) exp(i ω_j h). Starting from the
// candidate stage's height, the phase of C at the band's centroid frequency puts h on a fringe,
// three Newton steps on Re C converge it, and the neighbouring fringe orders are tried too. The
// merit is Re C(h) / (|M| |L|): the normalised correlation of the measured and the fitted
// spectrum, 1 for a perfect match, clamped to [0, 1]. The fit climbs along variable 1 to the
// signal of highest merit, and a parabola through that merit and its two neighbours gives the
// fractional index of variable 1 (thickness) and, interpolated the same way, the height.
// MagOnly takes the magnitude score as merit and the height from the phase slope,
// arg Σ P_{j+1} conj(P_j) with P_j = M_j conj(L_j).
//
// Confidence: how far the chosen interval stands out, (s1 - s2) / s1 with s1 and s2 the
// candidate-stage scores of the best and the next interval (1 when there is no other).
//
// Modulation: 100 × the largest deviation of the trace from its mean, divided by the mean (the
// fringe contrast in percent); pixels below the modulation threshold get no result.
//
// Saturation: a pixel with any sample at or above the frame buffer's saturation level
// (`FrameBuffer::GetMaxValue`, which the host lowers for a camera of fewer bits than the sample
// width, e.g. 4095 for 12 bits) gets no-data in every map, the modulation map included.
class LsPixelProcessor {
 public:
  static constexpr const char* kSource = "SwliMba\\Search\\LsPixelProcessor";
  static constexpr int kBlock = 64;  // pixels matched together (one matrix product)

  struct Result {
    double height = 0.0;     // frames, up along the scan
    double thickness = 0.0;  // a + b · fractional variable-1 index
    double merit = 0.0;
    double confidence = 0.0;
    int library = -1;
    int signal = -1;
  };

  // Sizes the working arrays for the board's libraries (already prepared for the band
  // [firstBin, lastBin] and its core [coreFirstBin, coreLastBin]).
  bool Init(const LsBoard& board, int firstBin, int lastBin, int coreFirstBin, int coreLastBin);

  // Processes pixels [colFirst, colEnd) of one row of the frame-buffer window and writes the maps
  // that are set. `thread` selects the frame buffer's scratch.
  void ProcessRow(int thread, int row, int colFirst, int colEnd, bool modulationOnly);

  // The result of one pixel's spectrum against one library (exposed for tests).
  Result MatchLibrary(int pixelInBlock, int libraryId);

  // Diagnostics, on slot 0 with the frame buffer's thread-0 scratch.
  // Loads pixel (row, column) of the window (checked by the caller) into slot 0 and its signal;
  // returns the trace's mean.
  double LoadSinglePixel(int row, int column);
  const LsSignal& GetSignal() const { return signal_; }
  LsSignal& GetSignal() { return signal_; }
  // The signal processor, sized on first use (a search never needs it); null with the status set
  // when it cannot be.
  LsSignalProcessor* GetSignalProcessor();
  int GetFirstBin() const { return first_; }
  int GetLastBin() const { return first_ + band_ - 1; }
  // The candidate-stage score of slot 0 against every signal of a library, whatever the mode: the
  // normalised correlation of the neighbouring-bin products (shift-invariant), in [0, 1].
  void ScoreAllSignals(int libraryId, double* out) const;
  // The fit of slot 0 to one signal, from the candidate stage's start height as in the search:
  // merit, height (frames) and the least-squares gain G of M = G L exp(-i ω h).
  struct SignalFit {
    double merit = -1.0;
    double height = 0.0;
    double gain = 0.0;
  };
  SignalFit FitSignal(int libraryId, int signal) const;

  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  struct Fit {
    double merit = -1.0;
    double height = 0.0;
  };

  // The trace (frames stored) into slot `slot`; returns its mean.
  double LoadPixel(const double* trace, int slot);
  void CandidateScores(int libraryId, int count);
  void Candidates(int slot, const LsLibrary& library, std::vector<int>& out, double& confidence);
  // The least-squares height from h0; `onFringe`: h0 already lies on the right fringe (a
  // neighbouring signal's height), so neither the fringe nor its neighbours are searched.
  Fit FullFit(int slot, const LsLibrary& library, int signal, double h0, bool onFringe) const;
  double StartHeight(int slot, const LsLibrary& library, int signal) const;
  Result Refine(int slot, const LsLibrary& library, int signal) const;

  const LsBoard* board_ = nullptr;
  LsSignal signal_;
  LsSignalProcessor signalProcessor_;
  int n_ = 0, first_ = 0, band_ = 0;
  int coreOffset_ = 0, coreWidth_ = 0;  // the core's features within the band's
  std::vector<double> omega_;           // ω_j of the band's bins, rad per frame
  // Per pixel of the block: band spectrum, norm, features, magnitudes, modulation.
  std::vector<std::complex<double>> spectra_, features_;
  std::vector<double> norms_, magnitudes_, modulation_;
  std::vector<int> libraryOf_;  // LsBoard::kAllLibraries or the one library to match
  // Candidate-stage scores of the block against one library (complex for the feature products).
  std::vector<std::complex<double>> correlations_;
  std::vector<double> merit_;
  // Fast search: each pixel's core features in single precision, [Re …, Im …] renormalised to unit
  // norm over the core (see LsLibrary), and their products with the coarse grid, complex values
  // with the real and imaginary part side by side.
  std::vector<float> coreFeatures_;
  std::vector<std::complex<float>> coarseCorrelations_;
  std::vector<int> candidates_;
  std::vector<double> scores_;                     // candidate-stage scores of one pixel
  std::vector<std::complex<double>> denseScores_;  // fast search, dense values around an interval
  int scoredLibrary_ = -1;
  int blockCount_ = 0;
  Analysis::Core::Status status_{__LINE__, kSource};
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search

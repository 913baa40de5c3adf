#pragma once

#include <complex>
#include <vector>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

// LsLibrary
//
// One library of the search: a copy of the library matrix (one modelled spectrum per row, bins
// interleaved real/imaginary) and the three numbers given with it, which say what a signal index
// means physically:
//
//   a  value of variable 1 at signal 0 (a thickness in the caller's unit, or a Cauchy term),
//   b  step of variable 1 from one value to the next,
//   c  number of values of variable 2 (0 or 1 for a one-dimensional library).
//
// Signals are ordered with variable 2 varying fastest: signal s has variable-1 index s / c and
// variable-2 index s % c. The thickness map receives a + b · (interpolated variable-1 index).
//
// Before a search the library is prepared for the valid band of bins [first, last] (from the
// perfect-mirror signal): each signal's band is copied into contiguous complex rows, with its L2
// norm, and the shift-invariant features the candidate stage compares (see LsPixelProcessor) are
// formed and normalised.
class QUARN_PP_EXPORT LsLibrary {
 public:
  static constexpr const char* kSource = "SwliMba\\Search\\LsLibrary";

  LsLibrary();

  // Copies the matrix; false (status code 3 "Call to signals.Resize failed") when it cannot.
  bool Set(const Analysis::Core::DoubleMatrix2D& matrix, double a, double b, double c);

  int GetNumberOfSignals() const { return signals_; }
  int GetNumberOfBins() const { return bins_; }
  double GetA() const { return a_; }
  double GetB() const { return b_; }
  double GetC() const { return c_; }
  // Values of variable 2 per value of variable 1 (at least 1).
  int GetStride() const { return c_ >= 2.0 ? static_cast<int>(c_) : 1; }
  const double* GetRow(int signal) const { return matrix_.Row(signal); }

  // Builds the band rows and features for bins [first, last]; false with the status set when the
  // memory cannot be had.
  // [coreFirst, coreLast] (within the band) are the bins the coarse grid compares.
  bool Prepare(int first, int last, int coreFirst, int coreLast);

  int GetBandWidth() const { return band_; }
  // Band of signal s (band_ values), its norm, its candidate features (band_ - 1 values, unit
  // norm, conjugated) and its magnitude features (band_ values, unit norm).
  const std::complex<double>* GetBand(int s) const {
    return bandRows_.data() + static_cast<std::size_t>(s) * band_;
  }
  double GetBandNorm(int s) const { return bandNorms_[static_cast<std::size_t>(s)]; }
  const std::complex<double>* GetFeaturesConj(int s) const {
    return features_.data() + static_cast<std::size_t>(s) * (band_ - 1);
  }
  const double* GetMagnitudes(int s) const {
    return magnitudes_.data() + static_cast<std::size_t>(s) * band_;
  }
  const std::complex<double>* GetFeaturesConjData() const { return features_.data(); }
  const double* GetMagnitudesData() const { return magnitudes_.data(); }

  // The coarse grid of the fast search: every kCoarseStride-th value of variable 1 (and the last
  // one), all values of variable 2, with their features gathered into contiguous rows. The grid
  // only has to find the interval the signal lies in, and compares the features of the band's
  // core (GetCoreOffset, GetCoreWidth: the features between bins of at least 10 % of the
  // perfect mirror's peak), renormalised to unit norm there; the dense search around the
  // interval compares the whole band.
  //
  // The grid is held in single precision as a real matrix of 2 rows per signal and 2 × core
  // columns, so that a real product does the complex one: with the pixel's core features as
  // the row [Re d_0 … Re d_{c-1}, Im d_0 … Im d_{c-1}] and l_k the signal's conjugated feature,
  // row 2i is [Re l, -Im l] and row 2i + 1 is [Im l, Re l], and the product's columns 2i and 2i + 1
  // are the real and imaginary part of Σ d_k l_k. Single precision suffices: the scores only
  // rank intervals (an error of 1e-6 against differences of 1e-3 and more between neighbouring
  // grid values), and a real single-precision product moves four values per vector instruction
  // where a complex double one moves one.
  static constexpr int kCoarseStride = 8;
  int GetNumberOfCoarseSignals() const { return static_cast<int>(coarseSignals_.size()); }
  int GetCoarseSignal(int i) const { return coarseSignals_[static_cast<std::size_t>(i)]; }
  const float* GetCoarseGridData() const { return coarseFeatures_.data(); }
  int GetCoreOffset() const { return coreOffset_; }
  int GetCoreWidth() const { return coreWidth_; }

  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  Analysis::Core::DoubleMatrix2D matrix_;
  int signals_ = 0;
  int bins_ = 0;
  double a_ = 0.0, b_ = 1.0, c_ = 0.0;
  int band_ = 0;
  int coreOffset_ = 0, coreWidth_ = 0;
  std::vector<std::complex<double>> bandRows_;
  std::vector<double> bandNorms_;
  std::vector<std::complex<double>> features_;
  std::vector<double> magnitudes_;
  std::vector<int> coarseSignals_;
  std::vector<float> coarseFeatures_;  // 2 rows of 2 × coreWidth_ per coarse signal
  Analysis::Core::Status status_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search

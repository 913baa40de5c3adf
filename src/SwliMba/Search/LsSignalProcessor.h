#pragma once

#include <complex>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/Fft2D.h"
#include "Analysis/Core/Status.h"
#include "SwliMba/Search/LsSignal.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

// LsSignalProcessor
//
// What a signal's spectrum says beyond its bins: the carrier (the band's mean angular frequency,
// rad per frame) and its spread sigmaCarrier, the fringe envelope and its cumulative distribution,
// and the transforms back to the scan axis. Its working arrays, N = the signal's samples:
//
//   envelope                         N reals    |analytic signal|: the fringe amplitude per frame
//   cumulativeDistributionFunction   N reals    running sum of envelope² over the frames, 1 at the
//                                                end: where the fringe energy lies along the scan
//   complexFourierWork               N complex  scratch of the complex transforms
//
// The band of a search is found on the perfect-mirror spectrum (`FindCarrier`): the bins whose
// magnitude is at least 1 % of the largest (outside them a measured spectrum holds only noise);
// the carrier and sigmaCarrier are the mean and standard deviation of the angular frequency
// weighted by |bin|² over the band. The complex transforms are the imported 2-D transform on one
// row of N (forward unscaled, inverse scaled by 1/N); they are sized only by `Init`, so a pixel
// processor that never runs a diagnostic never plans them.
class LsSignalProcessor {
 public:
  static constexpr const char* kSource = "SwliMba\\Search\\LsSignalProcessor";
  static constexpr double kBandFraction = 0.01;
  static constexpr double kCoreFraction = 0.1;

  // Sizes the working arrays and the complex transform for N samples; false with the status set.
  bool Init(int samples);
  int GetNumberOfSamples() const { return samples_; }

  // Band, carrier and sigmaCarrier of a spectrum of `bins` bins; false ("Determination of
  // sigmaCarrier failed", code 6) when no two bins carry signal.
  bool FindCarrier(const std::complex<double>* spectrum, int bins);
  int GetFirstBin() const { return first_; }
  int GetLastBin() const { return last_; }
  // The band's core: the bins of at least 10 % of the largest magnitude (within the band).
  int GetFirstCoreBin() const { return coreFirst_; }
  int GetLastCoreBin() const { return coreLast_; }
  double GetCarrier() const { return carrier_; }
  double GetSigmaCarrier() const { return sigmaCarrier_; }

  // The analytic signal of the band [first, last] of the signal's spectrum into spatialDomainCplx
  // (its real part is the trace band-passed to the library's bins), the envelope and its
  // cumulative distribution, and the centred representations (see LsSignal). Returns the sample
  // at which the cumulative distribution reaches one half (the envelope's centre), -1 on failure.
  int Analyse(LsSignal& signal, int first, int last);

  // The N real samples whose transform is the half spectrum `bins` (N/2 + 1 bins; the imaginary
  // parts of bin 0 and bin N/2 are ignored, as a real trace has none).
  bool InverseReal(const std::complex<double>* bins, double* samples);

  // The normalised analytic cross-correlation of two spectra over the band [first, last]:
  // c(k) = Σ_j m_j conj(l_j) exp(i 2π j k / N) / (|m| |l|) (norms over the band), for the circular
  // shifts k = i - N/2 at out[i]. Re c(k) is the correlation coefficient of the two band-passed
  // traces with the second moved k frames up, so a trace that is the other moved by h whole frames
  // peaks at k = h with c = 1; arg c is the phase left between their fringes. False when a norm is
  // zero or the transform fails.
  bool Correlate(const std::complex<double>* m, const std::complex<double>* l, int first, int last,
                 std::complex<double>* out);

  const Analysis::Core::Array<double>& Envelope() const { return envelope_; }
  const Analysis::Core::Array<double>& CumulativeDistributionFunction() const {
    return cumulativeDistributionFunction_;
  }

  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  bool Fail(unsigned code, unsigned line, const char* message);
  bool Inverse();  // complexFourierWork → complexFourierWork, scaled by 1/N

  int samples_ = 0;
  int first_ = -1, last_ = -1, coreFirst_ = -1, coreLast_ = -1;
  double carrier_ = 0.0, sigmaCarrier_ = 0.0;
  Analysis::Core::Array<double> envelope_;
  Analysis::Core::Array<double> cumulativeDistributionFunction_;
  Analysis::Core::Array<std::complex<double>> complexFourierWork_;
  Analysis::Core::Fft2D transform_;
  Analysis::Core::Status status_{__LINE__, kSource};
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search

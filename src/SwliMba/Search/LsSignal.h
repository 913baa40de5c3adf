#pragma once

#include <complex>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/Fft1DReal.h"
#include "Analysis/Core/Status.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

// LsSignal
//
// One scan trace on its way from the frame buffer to the search, in the sampling of the library:
// B bins, N = 2B - 2 samples (frame j of the trace at sample j; a shorter trace is padded with
// zeros, a longer one cut). Its working arrays, all zero after `Init`:
//
//   spatialDomainReal              N reals    the trace less its mean (reversed for a scan that ran
//                                              the other way)
//   fourierDomainCplx              B complex  its forward transform, bin j at 2πj/N rad per frame
//   spatialDomainCplx              N complex  the analytic signal: the band's bins transformed back
//                                              alone (LsSignalProcessor), |.| the fringe envelope
//   centeredRepresentation         N complex  the analytic signal turned circularly so that the
//                                              envelope's centre sits at sample N/2
//   binnedCenteredRepresentation   N reals    its real part: the centred trace reduced to the
//                                              library's band of bins
//
// The first two are the buffers of the signal's real transform, so loading a trace and
// transforming it costs no copy; the search reads only them. The other three are filled by
// `LsSignalProcessor::Analyse`, which the diagnostics and the perfect-mirror analysis call.
class LsSignal {
 public:
  static constexpr const char* kSource = "SwliMba\\Search\\LsSignal";

  // Sizes the arrays for `bins` bins (at least 2) and zeroes them; false with the status naming
  // the array that could not be had (code 6).
  bool Init(int bins);

  int GetNumberOfBins() const { return bins_; }
  int GetNumberOfSamples() const { return samples_; }

  // The trace of `frames` samples, less its mean, into spatialDomainReal, then transformed. Returns
  // the mean.
  double Load(const double* trace, int frames, bool reversed);
  // spatialDomainReal into fourierDomainCplx.
  void Transform() { fft_.Forward(); }

  double* SpatialDomainReal() { return fft_.Input(); }
  const double* SpatialDomainReal() const { return fft_.Input(); }
  std::complex<double>* FourierDomainCplx() { return fft_.Output(); }
  const std::complex<double>* FourierDomainCplx() const { return fft_.Output(); }
  Analysis::Core::Array<std::complex<double>>& SpatialDomainCplx() { return spatialDomainCplx_; }
  const Analysis::Core::Array<std::complex<double>>& SpatialDomainCplx() const { return spatialDomainCplx_; }
  Analysis::Core::Array<std::complex<double>>& CenteredRepresentation() { return centeredRepresentation_; }
  const Analysis::Core::Array<std::complex<double>>& CenteredRepresentation() const {
    return centeredRepresentation_;
  }
  Analysis::Core::Array<double>& BinnedCenteredRepresentation() { return binnedCenteredRepresentation_; }
  const Analysis::Core::Array<double>& BinnedCenteredRepresentation() const {
    return binnedCenteredRepresentation_;
  }

  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  bool Fail(unsigned line, const char* message);

  int bins_ = 0, samples_ = 0;
  Analysis::Core::Fft1DReal fft_;  // Input(): spatialDomainReal, Output(): fourierDomainCplx
  Analysis::Core::Array<std::complex<double>> spatialDomainCplx_;
  Analysis::Core::Array<std::complex<double>> centeredRepresentation_;
  Analysis::Core::Array<double> binnedCenteredRepresentation_;
  Analysis::Core::Status status_{__LINE__, kSource};
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search

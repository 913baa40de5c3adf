#include "SwliMba/Search/LsSignalProcessor.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

using Analysis::Core::Status;
using cd = std::complex<double>;
namespace StatusCode = Analysis::Core::StatusCode;

bool LsSignalProcessor::Fail(unsigned code, unsigned line, const char* message) {
  status_ = Status(0, code, line, kSource, message);
  return false;
}

bool LsSignalProcessor::Init(int samples) {
  samples_ = 0;
  if (samples < 2 || samples % 2 != 0) return Fail(StatusCode::kArgumentOutOfRange, __LINE__, "samples < 2");
  if (!envelope_.ResizeNoCopy(samples))
    return Fail(StatusCode::kCallFailed, __LINE__, "Call to envelope.Resize failed");
  if (!cumulativeDistributionFunction_.ResizeNoCopy(samples))
    return Fail(StatusCode::kCallFailed, __LINE__, "Call to cumulativeDistributionFunction.Resize failed");
  if (!complexFourierWork_.ResizeNoCopy(samples))
    return Fail(StatusCode::kCallFailed, __LINE__, "Call to complexFourierWork.Resize failed");
  transform_.SetAllowMultiThreads(false);
  if (!transform_.SetSize(1, samples))
    return Fail(StatusCode::kCallFailed, __LINE__, "Call to transform.SetSize failed");
  std::fill(envelope_.begin(), envelope_.end(), 0.0);
  std::fill(cumulativeDistributionFunction_.begin(), cumulativeDistributionFunction_.end(), 0.0);
  std::fill(complexFourierWork_.begin(), complexFourierWork_.end(), cd());
  samples_ = samples;
  return true;
}

bool LsSignalProcessor::FindCarrier(const cd* spectrum, int bins) {
  double peak = 0.0;
  for (int j = 0; j < bins; ++j)
    peak = std::max(peak, std::abs(spectrum[j]));
  first_ = last_ = coreFirst_ = coreLast_ = -1;
  for (int j = 0; j < bins; ++j) {
    if (peak > 0.0 && std::abs(spectrum[j]) >= kBandFraction * peak) {
      if (first_ < 0) first_ = j;
      last_ = j;
    }
    if (peak > 0.0 && std::abs(spectrum[j]) >= kCoreFraction * peak) {
      if (coreFirst_ < 0) coreFirst_ = j;
      coreLast_ = j;
    }
  }
  carrier_ = sigmaCarrier_ = 0.0;
  if (first_ >= 0 && last_ > first_) {
    const int n = 2 * (bins - 1);
    double weight = 0.0, sum = 0.0, sumSq = 0.0;
    for (int j = first_; j <= last_; ++j) {
      const double w = std::norm(spectrum[j]);
      const double omega = 2.0 * std::numbers::pi * j / n;
      weight += w;
      sum += w * omega;
      sumSq += w * omega * omega;
    }
    carrier_ = sum / weight;
    sigmaCarrier_ = std::sqrt(std::max(0.0, sumSq / weight - carrier_ * carrier_));
  }
  if (!(sigmaCarrier_ > 0.0)) {
    first_ = last_ = -1;
    return Fail(StatusCode::kCallFailed, __LINE__, "Determination of sigmaCarrier failed");
  }
  return true;
}

bool LsSignalProcessor::Inverse() {
  cd* row = transform_.GetRow(0);
  std::copy(complexFourierWork_.begin(), complexFourierWork_.end(), row);
  if (!transform_.Transform(true))
    return Fail(StatusCode::kCallFailed, __LINE__, "Call to transform.Transform failed");
  std::copy(row, row + samples_, complexFourierWork_.begin());
  return true;
}

int LsSignalProcessor::Analyse(LsSignal& signal, int first, int last) {
  const int n = samples_;
  if (n == 0 || signal.GetNumberOfSamples() != n) {
    Fail(StatusCode::kArgumentOutOfRange, __LINE__, "Call to signal.Init failed");
    return -1;
  }
  const cd* spectrum = signal.FourierDomainCplx();
  std::fill(complexFourierWork_.begin(), complexFourierWork_.end(), cd());
  // Positive frequencies only, doubled: the real part of the result is the band-passed trace
  // (bin 0 and bin N/2 have no negative twin and count once).
  for (int j = std::max(first, 0); j <= std::min(last, n / 2); ++j)
    complexFourierWork_[j] = (j == 0 || j == n / 2 ? 1.0 : 2.0) * spectrum[j];
  if (!Inverse()) return -1;
  Analysis::Core::Array<cd>& analytic = signal.SpatialDomainCplx();
  double total = 0.0;
  for (int i = 0; i < n; ++i) {
    analytic[i] = complexFourierWork_[i];
    envelope_[i] = std::abs(analytic[i]);
    total += envelope_[i] * envelope_[i];
    cumulativeDistributionFunction_[i] = total;
  }
  int centre = n / 2;
  if (total > 0.0) {
    for (int i = 0; i < n; ++i)
      cumulativeDistributionFunction_[i] /= total;
    centre = static_cast<int>(std::lower_bound(cumulativeDistributionFunction_.begin(),
                                               cumulativeDistributionFunction_.end(), 0.5) -
                              cumulativeDistributionFunction_.begin());
  }
  for (int i = 0; i < n; ++i) {
    const cd value = analytic[((i + centre - n / 2) % n + n) % n];
    signal.CenteredRepresentation()[i] = value;
    signal.BinnedCenteredRepresentation()[i] = value.real();
  }
  return centre;
}

bool LsSignalProcessor::InverseReal(const cd* bins, double* samples) {
  const int n = samples_;
  if (n == 0) return Fail(StatusCode::kArgumentOutOfRange, __LINE__, "Call to signal.Init failed");
  complexFourierWork_[0] = bins[0].real();
  complexFourierWork_[n / 2] = bins[n / 2].real();
  for (int j = 1; j < n / 2; ++j) {
    complexFourierWork_[j] = bins[j];
    complexFourierWork_[n - j] = std::conj(bins[j]);
  }
  if (!Inverse()) return false;
  for (int i = 0; i < n; ++i)
    samples[i] = complexFourierWork_[i].real();
  return true;
}

bool LsSignalProcessor::Correlate(const cd* m, const cd* l, int first, int last, cd* out) {
  const int n = samples_;
  if (n == 0) return Fail(StatusCode::kArgumentOutOfRange, __LINE__, "Call to signal.Init failed");
  first = std::max(first, 0);
  last = std::min(last, n / 2);
  double mm = 0.0, ll = 0.0;
  for (int j = first; j <= last; ++j) {
    mm += std::norm(m[j]);
    ll += std::norm(l[j]);
  }
  if (!(mm > 0.0 && ll > 0.0))
    return Fail(StatusCode::kCallFailed, __LINE__, "Call to Correlate failed: zero norm");
  // The inverse transform divides by N; the normalisation puts it back.
  const double scale = n / std::sqrt(mm * ll);
  std::fill(complexFourierWork_.begin(), complexFourierWork_.end(), cd());
  for (int j = first; j <= last; ++j)
    complexFourierWork_[j] = scale * m[j] * std::conj(l[j]);
  if (!Inverse()) return false;
  for (int i = 0; i < n; ++i)
    out[i] = complexFourierWork_[((i - n / 2) % n + n) % n];
  return true;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search

#include "SwliMba/Search/LsSignal.h"

#include <algorithm>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

bool LsSignal::Fail(unsigned line, const char* message) {
  status_ = Status(0, StatusCode::kCallFailed, line, kSource, message);
  bins_ = samples_ = 0;
  return false;
}

bool LsSignal::Init(int bins) {
  if (bins < 2) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource, "bins < 2");
    return false;
  }
  const int n = 2 * bins - 2;
  if (!fft_.Resize(n)) return Fail(__LINE__, "Call to spatialDomainReal.Resize failed");
  if (!spatialDomainCplx_.ResizeNoCopy(n)) return Fail(__LINE__, "Call to spatialDomainCplx.Resize failed");
  if (!centeredRepresentation_.ResizeNoCopy(n))
    return Fail(__LINE__, "Call to centeredRepresentation.Resize failed");
  if (!binnedCenteredRepresentation_.ResizeNoCopy(n))
    return Fail(__LINE__, "Call to binnedCenteredRepresentation.Resize failed");
  std::fill_n(fft_.Input(), n, 0.0);
  std::fill_n(fft_.Output(), bins, std::complex<double>());
  std::fill(spatialDomainCplx_.begin(), spatialDomainCplx_.end(), std::complex<double>());
  std::fill(centeredRepresentation_.begin(), centeredRepresentation_.end(), std::complex<double>());
  std::fill(binnedCenteredRepresentation_.begin(), binnedCenteredRepresentation_.end(), 0.0);
  bins_ = bins;
  samples_ = n;
  return true;
}

double LsSignal::Load(const double* trace, int frames, bool reversed) {
  double mean = 0.0;
  for (int j = 0; j < frames; ++j)
    mean += trace[j];
  mean /= frames;
  double* input = fft_.Input();
  const int used = std::min(frames, samples_);
  if (reversed) {
    for (int j = 0; j < used; ++j)
      input[j] = trace[frames - 1 - j] - mean;
  } else {
    for (int j = 0; j < used; ++j)
      input[j] = trace[j] - mean;
  }
  std::fill(input + used, input + samples_, 0.0);
  fft_.Forward();
  return mean;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search

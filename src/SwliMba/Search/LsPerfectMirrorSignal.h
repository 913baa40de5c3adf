#pragma once

#include <complex>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/Status.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

// LsPerfectMirrorSignal
//
// The spectrum an ideal mirror at height zero gives with the library's instrument: the source
// spectrum seen through the pupil. The search takes from it the bin count every library must
// have and the band of bins that carry signal (those above 1 % of its largest magnitude; outside
// them a measured spectrum holds only noise).
class LsPerfectMirrorSignal {
 public:
  static constexpr const char* kSource = "SwliMba\\Search\\LsPerfectMirrorSignal";
  static constexpr double kBandFraction = 0.01;

  bool Set(const Analysis::Core::Array<std::complex<double>>& spectrum) {
    spectrum_ = spectrum;
    return spectrum_.GetStatus().IsOk();
  }
  int GetNumberOfBins() const { return spectrum_.Size(); }
  const Analysis::Core::Array<std::complex<double>>& Get() const { return spectrum_; }

  // The first and last bin of the band; false when no bin carries signal.
  bool FindBand(int& first, int& last) const {
    double peak = 0.0;
    for (int j = 0; j < spectrum_.Size(); ++j)
      peak = std::max(peak, std::abs(spectrum_[j]));
    first = last = -1;
    for (int j = 0; j < spectrum_.Size(); ++j) {
      if (peak > 0.0 && std::abs(spectrum_[j]) >= kBandFraction * peak) {
        if (first < 0) first = j;
        last = j;
      }
    }
    return first >= 0 && last > first;
  }

  Analysis::Core::Status& GetStatus() { return status_; }

 private:
  Analysis::Core::Array<std::complex<double>> spectrum_;
  Analysis::Core::Status status_{__LINE__, kSource};
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search

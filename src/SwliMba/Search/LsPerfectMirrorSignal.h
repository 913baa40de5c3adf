#pragma once

#include <complex>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/Status.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

// LsPerfectMirrorSignal
//
// The spectrum an ideal mirror at height zero gives with the library's instrument: the source
// spectrum seen through the pupil. The search takes from it the bin count every library must
// have and, through LsSignalProcessor::FindCarrier, the band of bins that carry signal.
class LsPerfectMirrorSignal {
 public:
  static constexpr const char* kSource = "SwliMba\\Search\\LsPerfectMirrorSignal";

  bool Set(const Analysis::Core::Array<std::complex<double>>& spectrum) {
    spectrum_ = spectrum;
    return spectrum_.GetStatus().IsOk();
  }
  int GetNumberOfBins() const { return spectrum_.Size(); }
  const Analysis::Core::Array<std::complex<double>>& Get() const { return spectrum_; }

  Analysis::Core::Status& GetStatus() { return status_; }

 private:
  Analysis::Core::Array<std::complex<double>> spectrum_;
  Analysis::Core::Status status_{__LINE__, kSource};
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search

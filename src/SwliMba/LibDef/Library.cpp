#include "SwliMba/LibDef/Library.h"

#include "SwliMba/LibDef/detail/NewShared.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

using Analysis::Core::CopyIfFailed;
using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "SwliMba\\LibDef\\Library";
}  // namespace

Library::Library() : status_(__LINE__, kSource) {
  // The parts are made in their field order; the first that cannot be allocated stops construction.
  auto fail = [this](unsigned line, const char* message) {
    status_ = Status(0, StatusCode::kAllocationFailed, line, kSource, message);
  };
  if (!(spectra_ = detail::NewShared<Spectra>())) {
    fail(__LINE__, "Allocation of spectra failed");
  } else if (!(partModel_ = detail::NewShared<PartModel>())) {
    fail(__LINE__, "Allocation of partModel failed");
  } else if (!(systemModel_ = detail::NewShared<SystemModel>())) {
    fail(__LINE__, "Allocation of systemModel failed");
  } else if (!(sampling_ = detail::NewShared<Specifications>())) {
    fail(__LINE__, "Allocation of specifications failed");
  } else if (!(skew_ = detail::NewShared<Skew>())) {
    fail(__LINE__, "Allocation of skew failed");
  }
}

void Library::Clear() {
  if (spectra_) {
    spectra_->Clear();
    CopyIfFailed(status_, spectra_->GetStatus());
  }
  if (partModel_) {
    partModel_->Clear();
    CopyIfFailed(status_, partModel_->GetStatus());
  }
  if (systemModel_) systemModel_->Clear();
  if (sampling_) sampling_->Clear();
  if (skew_) skew_->Clear();
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

#include "SwliMba/LibDef/Spectra.h"

#include <algorithm>
#include <new>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

using Analysis::Core::CopyIfFailed;
using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "SwliMba\\LibDef\\Spectra";
}  // namespace

Spectra::Spectra() : status_(__LINE__, kSource) {
  spectra_.reset(new (std::nothrow) Analysis::Core::Array<Spectrum*>());
  if (!spectra_) {
    status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "Allocation of spectra failed");
    return;
  }
  perfectMirrorSpectrum_.reset(new (std::nothrow) Spectrum());
  if (!perfectMirrorSpectrum_) {
    status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource,
                     "Allocation of perfect mirror spectrum failed");
  }
}

Spectra::~Spectra() {
  if (spectra_) {
    for (Spectrum* s : *spectra_)
      delete s;
  }
}

bool Spectra::Clear() {
  if (spectra_) {
    for (Spectrum*& s : *spectra_) {
      delete s;
      s = nullptr;
    }
    if (!spectra_->Clear()) return !CopyIfFailed(status_, spectra_->GetStatus());
  }
  if (perfectMirrorSpectrum_ && !perfectMirrorSpectrum_->Clear()) {
    return !CopyIfFailed(status_, perfectMirrorSpectrum_->GetStatus());
  }
  return true;
}

bool Spectra::Resize(int count, int bins) {
  if (!spectra_ || !perfectMirrorSpectrum_) return false;  // construction failed: the status says why
  if (!Clear()) return false;
  if (!spectra_->Resize(count)) return !CopyIfFailed(status_, spectra_->GetStatus());
  std::fill(spectra_->begin(), spectra_->end(), nullptr);
  for (int i = 0; i < count; ++i) {
    auto* spectrum = new (std::nothrow) Spectrum();
    if (spectrum == nullptr || !spectrum->Resize(bins)) {
      delete spectrum;
      status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "Allocation of spectrum failed");
      return false;
    }
    std::fill(spectrum->begin(), spectrum->end(), std::complex<double>());
    (*spectra_)[i] = spectrum;
  }
  if (!perfectMirrorSpectrum_->Resize(bins))
    return !CopyIfFailed(status_, perfectMirrorSpectrum_->GetStatus());
  std::fill(perfectMirrorSpectrum_->begin(), perfectMirrorSpectrum_->end(), std::complex<double>());
  return true;
}

void Spectra::GetAsDoubleMatrix2D(DoubleMatrix2D& m) {
  const int count = GetNumberOfSpectra();
  const int bins = count > 0 && (*spectra_)[0] != nullptr ? (*spectra_)[0]->Size() : 0;
  if (!m.Resize(count, 2 * bins)) {
    CopyIfFailed(status_, m.GetStatus());
    return;
  }
  m.SetAll(0.0);
  for (int i = 0; i < count; ++i) {
    const Spectrum* s = (*spectra_)[i];
    if (s == nullptr) continue;
    double* row = m.Row(i);
    for (int j = 0; j < bins && j < s->Size(); ++j) {
      row[2 * j] = (*s)[j].real();
      row[2 * j + 1] = (*s)[j].imag();
    }
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

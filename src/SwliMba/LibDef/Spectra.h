#pragma once

#include <complex>
#include <memory>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// Spectra
//
// The computed library: one complex spectrum (bins 0 .. samples/2 of a real scan's forward
// transform) per configuration of the skew, the perfect-mirror spectrum of the same sampling, and
// the first and last bin in which the source carries light. The library matrix form
// (`GetAsDoubleMatrix2D`) has one row per spectrum with the real and imaginary part of bin j in
// columns 2j and 2j + 1:
//
//   Spectra spectra;
//   spectra.Resize(1226, 65);                 // all zero
//   (*spectra.GetSpectrum(3))[10] = {0.5, -0.25};
//   DoubleMatrix2D matrix;
//   spectra.GetAsDoubleMatrix2D(matrix);      // 1226 x 130; matrix(3, 20) = 0.5, matrix(3, 21) = -0.25
class QUARN_PP_EXPORT Spectra {
 public:
  using Spectrum = Analysis::Core::Array<std::complex<double>>;

  Spectra();
  Spectra(const Spectra&) = delete;
  Spectra& operator=(const Spectra&) = delete;
  ~Spectra();

  int GetFirstBinValid() const { return firstBinValid_; }
  void SetFirstBinValid(int bin) { firstBinValid_ = bin; }
  int GetLastBinValid() const { return lastBinValid_; }
  void SetLastBinValid(int bin) { lastBinValid_ = bin; }

  // `count` zero spectra of `bins` values and a zero perfect-mirror spectrum of `bins` values.
  bool Resize(int count, int bins);
  // Destroys every spectrum and empties the perfect-mirror spectrum; the valid bins stay.
  bool Clear();

  int GetNumberOfSpectra() const { return spectra_ ? spectra_->Size() : 0; }
  // The spectrum at `index`, unchecked.
  Spectrum* GetSpectrum(int index) const { return (*spectra_)[index]; }
  Spectrum& GetPerfectMirrorSpectrum() { return *perfectMirrorSpectrum_; }
  const Spectrum& GetPerfectMirrorSpectrum() const { return *perfectMirrorSpectrum_; }

  // The library matrix (see the class comment); a null spectrum leaves its row 0.
  void GetAsDoubleMatrix2D(Analysis::Core::DoubleMatrix2D& m);

  Analysis::Core::Status& GetStatus() { return status_; }
  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  int firstBinValid_ = 0;
  int lastBinValid_ = 0;
  Analysis::Core::Status status_;
  std::unique_ptr<Analysis::Core::Array<Spectrum*>> spectra_;
  std::unique_ptr<Spectrum> perfectMirrorSpectrum_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

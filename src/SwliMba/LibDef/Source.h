#pragma once

#include "Analysis/Core/Array.h"
#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// Source
//
// The spectrum of the white-light source as a sum of Gaussians in angular wavenumber k = 2π/λ
// (rad/µm): amplitude_i × exp(−½ ((k − centre_i) / width_i)²). The cut-off (default 0.02) is the
// relative intensity below which the library generator treats the spectrum as empty when it bounds
// the valid bins.
//
//   Source source;
//   source.AddGaussian(1.0, 10.47, 1.2);   // centred at 0.6 µm
//   source.Intensity(0.6);                  // ≈ 1
class QUARN_PP_EXPORT Source {
 public:
  Source();

  double GetCutOff() const { return cutOff_; }
  void SetCutOff(double cutOff) { cutOff_ = cutOff; }

  int GetNumberOfGaussians() const { return amplitudes_.Size(); }
  // Appends one Gaussian; false (status holds the array's failure) when memory ran out.
  bool AddGaussian(double amplitude, double centre, double width);
  // Copies Gaussian `index` out; an index out of range leaves the outputs untouched.
  void GetGaussian(int index, double& amplitude, double& centre, double& width) const;
  void Clear();

  // Relative intensity at wavelength λ (µm); 0 without Gaussians.
  double Intensity(double wavelengthUm) const;
  // The same at angular wavenumber k (rad/µm).
  double IntensityAtWavenumber(double wavenumber) const;

  Analysis::Core::Status& GetStatus() { return status_; }
  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  double cutOff_ = 0.02;
  Analysis::Core::Array<double> amplitudes_;
  Analysis::Core::Array<double> centres_;
  Analysis::Core::Array<double> widths_;
  Analysis::Core::Status status_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

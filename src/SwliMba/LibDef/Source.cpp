#include "SwliMba/LibDef/Source.h"

#include <cmath>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

using Analysis::Core::CopyIfFailed;
using Analysis::Core::Status;

Source::Source() : status_(__LINE__, "SwliMba\\LibDef\\Source") {}

bool Source::AddGaussian(double amplitude, double centre, double width) {
  if (!amplitudes_.Add(amplitude)) return !CopyIfFailed(status_, amplitudes_.GetStatus());
  if (!centres_.Add(centre)) return !CopyIfFailed(status_, centres_.GetStatus());
  if (!widths_.Add(width)) return !CopyIfFailed(status_, widths_.GetStatus());
  return true;
}

void Source::GetGaussian(int index, double& amplitude, double& centre, double& width) const {
  if (index < 0 || index >= GetNumberOfGaussians()) return;
  amplitude = amplitudes_[index];
  centre = centres_[index];
  width = widths_[index];
}

void Source::Clear() {
  if (!amplitudes_.Clear()) CopyIfFailed(status_, amplitudes_.GetStatus());
  if (!centres_.Clear()) CopyIfFailed(status_, centres_.GetStatus());
  if (!widths_.Clear()) CopyIfFailed(status_, widths_.GetStatus());
}

double Source::Intensity(double wavelengthUm) const {
  return IntensityAtWavenumber(6.283185307179586 / wavelengthUm);
}

double Source::IntensityAtWavenumber(double wavenumber) const {
  double sum = 0.0;
  for (int i = 0; i < GetNumberOfGaussians(); ++i) {
    const double x = (wavenumber - centres_[i]) / widths_[i];
    sum += amplitudes_[i] * std::exp(-0.5 * x * x);
  }
  return sum;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

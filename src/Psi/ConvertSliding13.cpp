#include "Psi/ConvertSliding13.h"

#include <cmath>

#include "Psi/Convert13.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

namespace {

template <typename Sample>
void SlidingSums(const ConvertSliding13& self, double& numerator, double& denominator,
                 const Sample* samples) {
  const double* wn = self.GetNumerator();
  const double* wd = self.GetDenominator();
  double n = 0.0;
  double d = 0.0;
  for (int i = 0; i < self.GetNumberOfFrames(); ++i) {
    n += static_cast<double>(samples[i]) * wn[i];
    d += static_cast<double>(samples[i]) * wd[i];
  }
  numerator = n * self.GetPhaseSign();
  denominator = d;
}

}  // namespace

void ConvertSliding13::Initialize(int numberOfFrames) {
  if (numberOfFrames < Convert13::kFrames || numberOfFrames == numberOfFrames_) return;
  const auto count = static_cast<std::size_t>(numberOfFrames);
  std::shared_ptr<double[]> numerator(new double[count]());
  std::shared_ptr<double[]> denominator(new double[count]());
  const double* N = Convert13::kNumeratorWeights;
  const double* D = Convert13::kDenominatorWeights;
  for (int j = 0; j < Convert13::kFrames; ++j) {
    numerator[static_cast<std::size_t>(j)] = N[j];
    denominator[static_cast<std::size_t>(j)] = D[j];
  }
  for (int s = 1; s <= numberOfFrames - Convert13::kFrames; ++s) {
    const double theta = 3.141592653589793 * 0.25 * -s;
    const double c = std::cos(theta);
    const double sn = std::sin(theta);
    for (int j = 0; j < Convert13::kFrames; ++j) {
      const auto k = static_cast<std::size_t>(j + s);
      numerator[k] += c * N[j] + sn * D[j];
      denominator[k] += c * D[j] - sn * N[j];
    }
  }
  numerator_ = std::move(numerator);
  denominator_ = std::move(denominator);
  numberOfFrames_ = numberOfFrames;
}

void ConvertSliding13::Convert(double& numerator, double& denominator, const int* samples) const {
  SlidingSums(*this, numerator, denominator, samples);
}

void ConvertSliding13::Convert(double& numerator, double& denominator, const unsigned char* samples) const {
  SlidingSums(*this, numerator, denominator, samples);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

#include "Psi/ConvertSliding13.h"

#include <cmath>
#include <new>

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
  // Weights for another frame count must not outlive a failed attempt: the converter would then
  // read past a shorter stack.
  numerator_.reset();
  denominator_.reset();
  numberOfFrames_ = 0;
  // Both columns live in one zero-filled block, so that there is a single allocation to fail; it is
  // the one place where this converter could throw, and it must not.
  std::shared_ptr<double[]> block;
  try {
    block = std::make_shared<double[]>(2 * count);
  } catch (const std::bad_alloc&) {
    return;
  }
  std::shared_ptr<double[]> numerator(block, block.get());
  std::shared_ptr<double[]> denominator(block, block.get() + count);
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

#include "Psi/Convert20.h"

#include "Psi/detail/Int32Arithmetic.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

const double Convert20::kNumeratorWeights[20] = {
    0.07014,  -0.02966, -0.01048, -0.13572, -0.14926, 0.14926,  0.13572,  0.01048,  0.02966,  -0.07014,
    -0.07014, 0.02966,  0.01048,  0.13572,  0.14926,  -0.14926, -0.13572, -0.01048, -0.02966, 0.07014};
const double Convert20::kDenominatorWeights[20] = {
    0.06611, -0.14129, -0.01346, -0.08822, 0.17686, 0.17686, -0.08822, -0.01346, -0.14129, 0.06611,
    0.06611, -0.14129, -0.01346, -0.08822, 0.17686, 0.17686, -0.08822, -0.01346, -0.14129, 0.06611};

namespace {

template <typename Sample>
void Convert20Samples(double& numerator, double& denominator, const Sample* s) {
  using detail::Int32;
  const auto I = [s](int k) { return Int32(s[k]); };
  // Pair k holds frames k and 19 - k; its partner pair 9 - k holds the frames in between.
  const auto odd = [&](int k) {
    return static_cast<double>((I(k) + I(19 - k) - I(9 - k) - I(10 + k)).value());
  };
  const auto even = [&](int k) {
    return static_cast<double>((I(k) + I(19 - k) + I(9 - k) + I(10 + k)).value());
  };
  numerator = 0.07014 * odd(0) - 0.02966 * odd(1) - 0.01048 * odd(2) - 0.13572 * odd(3) - 0.14926 * odd(4);
  denominator =
      0.06611 * even(0) - 0.14129 * even(1) - 0.01346 * even(2) - 0.08822 * even(3) + 0.17686 * even(4);
}

}  // namespace

void Convert20::Convert(double& numerator, double& denominator, const int* samples) const {
  Convert20Samples(numerator, denominator, samples);
}

void Convert20::Convert(double& numerator, double& denominator, const unsigned char* samples) const {
  Convert20Samples(numerator, denominator, samples);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

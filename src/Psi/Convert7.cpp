#include "Psi/Convert7.h"

#include <cstdint>

#include "Psi/detail/Int32Arithmetic.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

namespace {

constexpr double kNumerator[7] = {-1, 0, 7, 0, -7, 0, 1};
constexpr double kDenominator[7] = {0, -4, 0, 8, 0, -4, 0};

template <typename Sample>
void Convert7Samples(const Convert7& self, double& numerator, double& denominator, const Sample* I) {
  using detail::Int32;
  const Int32 n = Int32(7) * (Int32(I[2]) - Int32(I[4])) + Int32(I[6]) - Int32(I[0]);
  const Int32 d = Int32(4) * (Int32(2) * Int32(I[3]) - Int32(I[1]) - Int32(I[5]));
  numerator = static_cast<double>(n.value()) * self.GetPhaseSign();
  denominator = static_cast<double>(d.value());
}

}  // namespace

void Convert7::Convert(double& numerator, double& denominator, const int* samples) const {
  Convert7Samples(*this, numerator, denominator, samples);
}

void Convert7::Convert(double& numerator, double& denominator, const unsigned char* samples) const {
  Convert7Samples(*this, numerator, denominator, samples);
}

const double* Convert7::GetNumerator() const {
  return kNumerator;
}
const double* Convert7::GetDenominator() const {
  return kDenominator;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

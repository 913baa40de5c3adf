#include "Psi/Convert13.h"

#include "Psi/detail/Int32Arithmetic.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

const double Convert13::kNumeratorWeights[13] = {-3, -4, 0, 12, 21, 16, 0, -16, -21, -12, 0, 4, 3};
const double Convert13::kDenominatorWeights[13] = {0, -4, -12, -12, 0, 16, 24, 16, 0, -12, -12, -4, 0};

namespace {

template <typename Sample>
void Convert13Samples(const Convert13& self, double& numerator, double& denominator, const Sample* s) {
  using detail::Int32;
  Int32 I[13] = {Int32(s[0]), Int32(s[1]), Int32(s[2]), Int32(s[3]),  Int32(s[4]),  Int32(s[5]), Int32(s[6]),
                 Int32(s[7]), Int32(s[8]), Int32(s[9]), Int32(s[10]), Int32(s[11]), Int32(s[12])};
  const Int32 n = Int32(4) * (Int32(3) * (I[3] - I[9]) + Int32(4) * (I[5] - I[7]) - I[1] + I[11]) +
                  Int32(3) * (Int32(7) * (I[4] - I[8]) + I[12] - I[0]);
  const Int32 d = Int32(4) * (Int32(3) * (Int32(2) * I[6] - I[2] - I[10] - I[3] - I[9]) +
                              Int32(4) * (I[5] + I[7]) - I[1] - I[11]);
  numerator = static_cast<double>(n.value()) * self.GetPhaseSign();
  denominator = static_cast<double>(d.value());
}

}  // namespace

void Convert13::Convert(double& numerator, double& denominator, const int* samples) const {
  Convert13Samples(*this, numerator, denominator, samples);
}

void Convert13::Convert(double& numerator, double& denominator, const unsigned char* samples) const {
  Convert13Samples(*this, numerator, denominator, samples);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

// Converts one pixel of a 7-frame stack with the installed library and checks the phase.
#include <cmath>
#include <cstdio>

#include "Psi/Convert7.h"

int main() {
  using Quarn::Metrology::PhaseProcessing::Core::Psi::Convert7;
  // Fringes 100 + 50 cos(phi + 90 deg (k - 3)) with phi = 0.5 rad, rounded as a camera would.
  int samples[7];
  for (int k = 0; k < 7; ++k)
    samples[k] = static_cast<int>(std::lround(100 + 50 * std::cos(0.5 + M_PI / 2 * (k - 3))));
  Convert7 converter;
  double numerator = 0, denominator = 0;
  converter.Convert(numerator, denominator, samples);
  const double phase = std::atan2(numerator, denominator);
  std::printf("phase %.4f rad (expected 0.5)\n", phase);
  return std::abs(phase - 0.5) < 0.02 ? 0 : 1;
}

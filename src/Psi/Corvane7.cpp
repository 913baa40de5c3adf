#include "Psi/Corvane7.h"

#include "Psi/detail/CorvaneStep.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

Corvane7::Corvane7() : CorvaneRatioAlgorithm("Psi\\Corvane7", kFrames) {}

template <typename Sample>
void Corvane7::Process(int thread, int pixel, const Sample* I) {
  // Frames 5 and 6 take no part in the ratio, but a clipped sample anywhere in the stack means the
  // pixel's fringe is not a sinusoid.
  const std::int64_t s[5] = {I[0], I[1], I[2], I[3], I[4]};
  StoreStep(thread, pixel, I, kFrames, s);
}

void Corvane7::ProcessPixel(int thread, int pixel, const int* samples) {
  Process(thread, pixel, samples);
}

void Corvane7::ProcessPixel(int thread, int pixel, const unsigned char* samples) {
  Process(thread, pixel, samples);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

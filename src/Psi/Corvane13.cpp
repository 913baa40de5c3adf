#include "Psi/Corvane13.h"

#include "Psi/detail/CorvaneStep.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

Corvane13::Corvane13() : CorvaneRatioAlgorithm("Psi\\Corvane13", kFrames) {}

template <typename Sample>
void Corvane13::Process(int thread, int pixel, const Sample* I) {
  const auto pair = [I](int k) {
    return static_cast<std::int64_t>(I[2 * k]) + static_cast<std::int64_t>(I[2 * k + 1]);
  };
  const std::int64_t s[5] = {pair(0), pair(1), pair(2), pair(3), pair(4)};
  // Only the ten frames that form the five pair sums are read, so only they can spoil the pixel.
  StoreStep(thread, pixel, I, 10, s);
}

void Corvane13::ProcessPixel(int thread, int pixel, const int* samples) {
  Process(thread, pixel, samples);
}

void Corvane13::ProcessPixel(int thread, int pixel, const unsigned char* samples) {
  Process(thread, pixel, samples);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

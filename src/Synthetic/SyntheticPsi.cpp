#include "Synthetic/SyntheticPsi.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>

#include "Synthetic/SampleStore.h"

namespace Quarn::Testing {

using Core::FrameBuffer;

std::vector<double> ShiftsFor7(double gainError) {
  std::vector<double> shifts(7);
  for (int k = 0; k < 7; ++k)
    shifts[static_cast<std::size_t>(k)] = (1.0 + gainError) * std::numbers::pi / 2 * (k - 3);
  return shifts;
}

std::vector<double> ShiftsFor13(double gainError) {
  return ShiftsForSliding13(13, gainError);
}

std::vector<double> ShiftsForSliding13(int frames, double gainError) {
  std::vector<double> shifts(static_cast<std::size_t>(frames));
  for (int k = 0; k < frames; ++k)
    shifts[static_cast<std::size_t>(k)] = -(1.0 + gainError) * std::numbers::pi / 4 * (k - 6);
  return shifts;
}

std::vector<double> ShiftsFor20(double gainError) {
  std::vector<double> shifts(20);
  for (int k = 0; k < 20; ++k) {
    shifts[static_cast<std::size_t>(k)] =
        (1.0 + gainError) * 4.18 * std::cos(2.0 * std::numbers::pi * (k + 0.75) / 20.0);
  }
  return shifts;
}

std::vector<double> FringeSamples(const PixelFringe& fringe, const std::vector<double>& shifts) {
  std::vector<double> samples(shifts.size());
  for (std::size_t k = 0; k < shifts.size(); ++k) {
    samples[k] = fringe.bias + fringe.amplitude * std::cos(fringe.phase + shifts[k]);
  }
  return samples;
}

void FillPsiStack(FrameBuffer& frames, const std::vector<double>& shifts,
                  const std::function<PixelFringe(int row, int col)>& scene, double noiseSigma,
                  SeededRandom* random, const std::vector<double>& frameBrightness) {
  const int rows = frames.GetRows();
  const int cols = frames.GetColumns();
  const double maxValue = frames.GetMaxValue();
  const int frameCount = std::min<int>(static_cast<int>(shifts.size()), frames.GetFramesStored());
  std::vector<double> cosShift(shifts.size()), sinShift(shifts.size());
  for (std::size_t k = 0; k < shifts.size(); ++k) {
    cosShift[k] = std::cos(shifts[k]);
    sinShift[k] = std::sin(shifts[k]);
  }
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      const PixelFringe f = scene(r, c);
      const double cp = f.amplitude * std::cos(f.phase);
      const double sp = f.amplitude * std::sin(f.phase);
      const std::size_t pixel = static_cast<std::size_t>(r) * cols + c;
      for (int k = 0; k < frameCount; ++k) {
        const auto kk = static_cast<std::size_t>(k);
        // cos(phi + psi) = cos(phi) cos(psi) - sin(phi) sin(psi)
        double value = f.bias + cp * cosShift[kk] - sp * sinShift[kk];
        if (kk < frameBrightness.size()) value *= frameBrightness[kk];
        if (random && noiseSigma > 0.0) value += random->Normal(noiseSigma);
        value = std::clamp(std::round(value), 0.0, maxValue);
        StoreSample(frames, k, pixel, value);
      }
    }
  }
}

}  // namespace Quarn::Testing

#include "Synthetic/SyntheticCarrier.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>

#include "Synthetic/SampleStore.h"

namespace Quarn::Testing {

using Core::FrameBuffer;

double CarrierPhase(int quadrant, double pixelsPerFringe, int row, int col) {
  const double k = 2.0 * std::numbers::pi / pixelsPerFringe;
  switch (quadrant) {
    case 1:
      return k * (row - col);
    case 3:
      return k * (col - row);
    case 4:
      return -k * (col + row);
    default:
      return k * (col + row);
  }
}

void FillCarrierFrame(FrameBuffer& frames, int frame, const CarrierScene& scene, SeededRandom* random) {
  const int rows = frames.GetRows();
  const int cols = frames.GetColumns();
  const double maxValue = frames.GetMaxValue();
  const int slot = frames.GetSlotOfFrame(frame);
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      double value =
          scene.obscured && scene.obscured(r, c)
              ? scene.obscuredLevel
              : scene.bias +
                    scene.modulation * std::cos(scene.phase(r, c) +
                                                CarrierPhase(scene.quadrant, scene.pixelsPerFringe, r, c));
      if (random && scene.noiseSigma > 0.0) value += random->Normal(scene.noiseSigma);
      value = std::clamp(std::round(value), 0.0, maxValue);
      const std::size_t pixel = static_cast<std::size_t>(r) * cols + c;
      StoreSample(frames, slot, pixel, value);
    }
  }
}

}  // namespace Quarn::Testing

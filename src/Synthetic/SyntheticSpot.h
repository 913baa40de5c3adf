#pragma once

#include <vector>

#include "Analysis/Core/IntMatrix2D.h"
#include "Synthetic/SeededRandom.h"

namespace Quarn::Testing {

namespace Core = ::Quarn::Metrology::Analysis::Core;

// A Gaussian light spot: peak counts above the background at (centerX, centerY) (camera column and
// row, pixel centres at integer coordinates) with standard deviations sigmaX, sigmaY in pixels:
//   I(x, y) = peak exp(-(x - cx)^2 / (2 sx^2) - (y - cy)^2 / (2 sy^2)).
// Its total light is 2 pi sx sy peak counts.
struct GaussianSpot {
  double centerX = 0.0;
  double centerY = 0.0;
  double sigmaX = 1.0;
  double sigmaY = 1.0;
  double peak = 0.0;
};

// A camera frame of spots: a background that may ramp across the image,
//   B(x, y) = background + gradientX x + gradientY y   (counts, x and y camera coordinates),
// the spots on top, Gaussian read noise of noiseSigma counts, rounded to whole counts and clipped to
// [0, saturationLevel] as a camera delivers it.
struct SpotScene {
  double background = 0.0;
  double gradientX = 0.0;
  double gradientY = 0.0;
  double noiseSigma = 0.0;
  int saturationLevel = 255;
  std::vector<GaussianSpot> spots;

  // The noise-free, unclipped intensity at (x, y).
  double Intensity(double x, double y) const;
};

// Fills `image` (its size and origin as they are) with the scene. `random` is needed when the scene
// has noise.
void FillSpotImage(Core::IntMatrix2D& image, const SpotScene& scene, SeededRandom* random = nullptr);

}  // namespace Quarn::Testing

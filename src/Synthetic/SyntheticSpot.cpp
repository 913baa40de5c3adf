#include "Synthetic/SyntheticSpot.h"

#include <algorithm>
#include <cmath>

namespace Quarn::Testing {

namespace {

double SpotAt(const GaussianSpot& spot, double x, double y) {
  const double u = (x - spot.centerX) / spot.sigmaX;
  const double v = (y - spot.centerY) / spot.sigmaY;
  return spot.peak * std::exp(-0.5 * (u * u + v * v));
}

}  // namespace

double SpotScene::Intensity(double x, double y) const {
  double value = background + gradientX * x + gradientY * y;
  for (const GaussianSpot& spot : spots)
    value += SpotAt(spot, x, y);
  return value;
}

void FillSpotImage(Core::IntMatrix2D& image, const SpotScene& scene, SeededRandom* random) {
  const int rows = image.GetRows();
  const int cols = image.GetColumns();
  for (int r = 0; r < rows; ++r) {
    const double y = image.GetStartRow() + r;
    int* row = image.Row(r);
    for (int c = 0; c < cols; ++c) {
      const double x = image.GetStartCol() + c;
      double value = scene.background + scene.gradientX * x + scene.gradientY * y;
      // Beyond 9 sigmas a spot adds less than 3e-18 of its peak: nothing a camera could count.
      for (const GaussianSpot& spot : scene.spots) {
        if (std::fabs(x - spot.centerX) < 9.0 * spot.sigmaX &&
            std::fabs(y - spot.centerY) < 9.0 * spot.sigmaY) {
          value += SpotAt(spot, x, y);
        }
      }
      if (random && scene.noiseSigma > 0.0) value += random->Normal(scene.noiseSigma);
      value = std::clamp(std::round(value), 0.0, static_cast<double>(scene.saturationLevel));
      row[c] = static_cast<int>(value);
    }
  }
}

}  // namespace Quarn::Testing

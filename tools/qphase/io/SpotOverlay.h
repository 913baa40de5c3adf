#pragma once

#include <string>
#include <vector>

#include "Analysis/Core/IntMatrix2D.h"
#include "RgbImage.h"

namespace Quarn::Qphase {

// What the spot overlay shows on top of the camera image (coordinates in pixels of the image,
// x = column, y = row, rows growing downwards).
struct SpotMark {
  double centerX = 0.0;  // centre of mass
  double centerY = 0.0;
  double x0 = 0.0, y0 = 0.0, x1 = 0.0, y1 = 0.0;  // bounding box, inclusive
};

struct SpotOverlay {
  double reticleX = 0.0;
  double reticleY = 0.0;
  double obscurationRadius = 0.0;
  double halfWidth = 0.0;       // of the square region of interest
  std::vector<SpotMark> spots;  // the surviving spots
  // When set (the foreground image of the run, same shape as the image), its pixels at or above
  // the saturation level are shown in orange.
  const Metrology::Analysis::Core::IntMatrix2D* foreground = nullptr;
  int saturationLevel = 0;
  std::string label;  // written in the top left corner, e.g. the position's name
};

// Overlay colours, so that tests and readers agree on what is what.
inline constexpr Rgb kReticleColour{255, 230, 0};      // yellow cross at the reticle centre
inline constexpr Rgb kObscurationColour{0, 220, 255};  // cyan circle
inline constexpr Rgb kSquareColour{40, 220, 40};       // green square of interest
inline constexpr Rgb kSpotBoxColour{255, 0, 255};      // magenta bounding box
inline constexpr Rgb kSpotCentreColour{255, 30, 30};   // red cross at the centre of mass
inline constexpr Rgb kSaturatedColour{255, 140, 0};    // orange saturated pixels

// The image in grey (black at its smallest valid value, white at its largest; invalid pixels dark
// blue) with the marks drawn on it.
RgbImage RenderSpotOverlay(const Metrology::Analysis::Core::IntMatrix2D& image, const SpotOverlay& overlay);

}  // namespace Quarn::Qphase

#pragma once

#include <string>

#include "Analysis/Core/DataMatrix2D.h"
#include "RgbImage.h"

namespace Quarn::Qphase {

// How a map is coloured: the value range (from the valid data unless fixed) and the labels.
struct PreviewStyle {
  std::string title;  // printed above the map, e.g. "phase"
  std::string unit;   // printed with the colour bar, e.g. "rad"
  bool fixedRange = false;
  double lo = 0.0;
  double hi = 1.0;
};

// The colour of a value at fraction t in [0, 1] of the range: a perceptually ordered ramp from dark
// blue over teal and green to yellow (the viridis colour map, sampled at nine points).
Rgb ColourAt(double t);

// The neutral grey of pixels without data, outside the colour ramp.
inline constexpr Rgb kNoDataColour{150, 150, 150};

// Renders a map (no-data pixels in neutral grey) with a title and a labelled colour bar. Maps larger
// than 1024 pixels on a side are reduced by showing one valid sample of each block (never a mean,
// which would invent values between the two sides of a phase wrap).
RgbImage RenderPreview(const ::Quarn::Metrology::Analysis::Core::DataMatrix2D<double>& map,
                       const PreviewStyle& style);

void WritePreviewPng(WriteTarget target, const ::Quarn::Metrology::Analysis::Core::DataMatrix2D<double>& map,
                     const PreviewStyle& style);
void WritePreviewPng(const std::string& path,
                     const ::Quarn::Metrology::Analysis::Core::DataMatrix2D<double>& map,
                     const PreviewStyle& style);

}  // namespace Quarn::Qphase

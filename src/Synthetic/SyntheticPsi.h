#pragma once

#include <functional>
#include <vector>

#include "Analysis/Core/FrameBuffer.h"
#include "Synthetic/SeededRandom.h"

namespace Quarn::Testing {

namespace Core = ::Quarn::Metrology::Analysis::Core;

// Phase-shift models of the PSI algorithms: the phase shift psi_k (radians) of frame k under which
// each converter returns the phase phi of fringes a + b cos(phi + psi_k). `gainError` scales every
// shift (0.05: the shifter moves 5 % too far), the usual miscalibration of a piezo shifter.
std::vector<double> ShiftsFor7(double gainError = 0.0);                      // +90 deg (k - 3)
std::vector<double> ShiftsFor13(double gainError = 0.0);                     // -45 deg (k - 6)
std::vector<double> ShiftsFor20(double gainError = 0.0);                     // 4.18 cos(2 pi (k + 0.75) / 20)
std::vector<double> ShiftsForSliding13(int frames, double gainError = 0.0);  // -45 deg (k - 6), k < frames

// The fringe of one pixel: intensity a + b cos(phase + psi_k).
struct PixelFringe {
  double bias = 0.0;
  double amplitude = 0.0;
  double phase = 0.0;
};

// The exact (unrounded) intensities of one pixel.
std::vector<double> FringeSamples(const PixelFringe& fringe, const std::vector<double>& shifts);

// Fills an allocated frame buffer (one frame per shift) with a + b cos(phase + psi_k) + noise,
// rounded to the nearest integer and clipped to [0, GetMaxValue()] as a camera would deliver it.
// `scene(row, col)` gives the fringe of each pixel (row and column inside the window). A non-empty
// `frameBrightness` (one factor per frame) scales frame k's intensity, as a source whose power drifts
// during the acquisition would.
void FillPsiStack(Core::FrameBuffer& frames, const std::vector<double>& shifts,
                  const std::function<PixelFringe(int row, int col)>& scene, double noiseSigma = 0.0,
                  SeededRandom* random = nullptr, const std::vector<double>& frameBrightness = {});

}  // namespace Quarn::Testing

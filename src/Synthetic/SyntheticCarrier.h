#pragma once

#include <functional>

#include "Analysis/Core/FrameBuffer.h"
#include "Synthetic/SeededRandom.h"

namespace Quarn::Testing {

namespace Core = ::Quarn::Metrology::Analysis::Core;

// CarrierPhase
//
// The spatial carrier c(row, col) in radians of a frame with `pixelsPerFringe` pixels per fringe
// whose side lobe, under the carrier-fringe pipeline's conventions, lies in `quadrant` (1 right-up,
// 2 left-up, 3 left-down, 4 right-down of the frequency plane, rows upwards):
//   1: 2 pi (row - col) / P    2: 2 pi (col + row) / P    3: 2 pi (col - row) / P    4: -2 pi (col + row) / P
// The pipeline reads a frame a + b cos(phi + c) as phi (plus a constant).
double CarrierPhase(int quadrant, double pixelsPerFringe, int row, int col);

// A carrier-fringe scene: intensity bias + modulation cos(phase(row, col) + carrier) + noise, with
// an optional obscured area that shows `obscuredLevel` (plus noise) and no fringes.
struct CarrierScene {
  std::function<double(int row, int col)> phase;  // the surface phase phi in radians
  int quadrant = 2;
  double pixelsPerFringe = 4.0;
  double bias = 110.0;       // counts
  double modulation = 80.0;  // b, counts: the modulation the pipeline should read
  double noiseSigma = 0.0;   // Gaussian camera noise, counts
  std::function<bool(int row, int col)> obscured;
  double obscuredLevel = 0.0;  // counts
};

// Fills frame `frame` of an allocated frame buffer with the scene (row and column inside the
// window), rounded to integers and clipped to [0, GetMaxValue()] as a camera delivers them.
void FillCarrierFrame(Core::FrameBuffer& frames, int frame, const CarrierScene& scene,
                      SeededRandom* random = nullptr);

}  // namespace Quarn::Testing

#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Analysis/Core/Window2D.h"

namespace Quarn::Testing {

// ImageMaps
//
// What an image operation wrote for one window of the test image: one vector per output map (phase,
// modulation, ...), each row-major over that window, in the same order on every run.
using ImageMaps = std::vector<std::vector<double>>;

// MapTolerance
//
// How far one output map of the fast path may lie from the reference, in units in the last place:
// 0 where the arithmetic is the same (bit for bit), a few where a vector math function replaces a
// scalar one. No-data elements (the largest finite double) are then equal only to no-data.
struct MapTolerance {
  std::string name;
  std::int64_t maxUlp = 0;
};

// EquivalenceSettings
//
// The test image (rows x columns, origin 0, 0), the maps to compare and the thread counts to run the
// fast path on. `pixelLocal` says that a pixel's result depends on that pixel's input only (PSI
// converters, per-pixel white-light analysis), so that a run on a sub-window must reproduce the
// whole image's results there; operations over the whole frame (transforms) set it false.
struct EquivalenceSettings {
  int rows = 0;
  int columns = 0;
  std::vector<MapTolerance> maps;
  std::vector<int> threadCounts = {1, 2, 3, 8};
  bool pixelLocal = true;
};

// CheckImageEquivalence
//
// The house's one check that a fast whole-image path computes what its plain per-pixel reference
// computes, in the spirit of Arrow's CheckScalar: `reference(window)` runs the plain path once on
// the whole image, then `fast(window, threads)` runs
//   - on the whole image with each of the thread counts,
//   - for a pixel-local operation, on sub-windows that do not start at the image's origin (an inset
//     of one pixel, an off-centre quarter) and on a one-row image with one worker and with more
//     workers than rows,
// and every element must lie within its map's tolerance of the reference at the same pixel. Each
// run stops at its first differing element and reports the map, the run, the pixel and both values.
//
//   CheckImageEquivalence({rows, cols, {{"phase", 2}, {"modulation", 0}}},
//                         [&](const Window2D& w) { return Run(w, kPlain, 0); },
//                         [&](const Window2D& w, int threads) { return Run(w, kFast, threads); });
void CheckImageEquivalence(
    const EquivalenceSettings& settings,
    const std::function<ImageMaps(const Metrology::Analysis::Core::Window2D&)>& reference,
    const std::function<ImageMaps(const Metrology::Analysis::Core::Window2D&, int)>& fast);

// UlpDistance
//
// The number of doubles between a and b (0 for equal values, +0 and -0 included), across zero too;
// saturates at the largest int64 and is that for a NaN that is not bitwise equal to the other.
std::int64_t UlpDistance(double a, double b);

}  // namespace Quarn::Testing

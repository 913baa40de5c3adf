// The align spot detector on a 2048 x 2048 camera frame (int pixels, 16 MiB): a Gaussian spot on a
// sloping, noisy background. Reported: the time of one detection, megapixels per second and the
// time as a number of memcpy passes over the image (the time memcpy takes to copy the image's bytes,
// measured in the same run). Argument: the half-width of the square of interest in pixels (1024:
// the whole frame; 256: a square a quarter of the frame's side).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>

#include "AlignSpotDetector/AlignSpotDetector.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticSpot.h"
#include "Testing/MemoryBandwidth.h"

namespace {

using namespace Quarn::Metrology::Analysis::Core;
using namespace Quarn::Metrology::PhaseProcessing::Core::Alignment;

constexpr int kSize = 2048;

const IntMatrix2D& Frame() {
  static const IntMatrix2D image = [] {
    IntMatrix2D frame(kSize, kSize);
    Quarn::Testing::SpotScene scene;
    scene.background = 800.0;
    scene.gradientX = 0.05;
    scene.gradientY = -0.03;
    scene.noiseSigma = 4.0;
    scene.saturationLevel = 65535;
    scene.spots = {{900.3, 850.8, 8.0, 7.0, 30000.0}};
    Quarn::Testing::SeededRandom random(2048);
    Quarn::Testing::FillSpotImage(frame, scene, &random);
    return frame;
  }();
  return image;
}

void BM_DetectSpotPosition(benchmark::State& state) {
  const IntMatrix2D& image = Frame();
  AlignSpotDetector detector;
  detector.Initialize();
  detector.SetReticleCenterX(kSize / 2.0);
  detector.SetReticleCenterY(kSize / 2.0);
  detector.SetReticleCenterR(40.0);
  detector.SetInterestRegionRadius(static_cast<double>(state.range(0)));
  detector.SetSaturationThreshold(65535.0);
  detector.SetInput(&image);
  const AsdSpotPosition warm = detector.DetectSpotPosition();  // first touch of the working images
  if (warm != AsdSpotPosition::Quadrant2) state.SkipWithError("the spot was not found in quadrant 2");

  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    benchmark::DoNotOptimize(detector.DetectSpotPosition());
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double perRun = seconds / static_cast<double>(state.iterations());
  const double bytes = static_cast<double>(image.GetCount()) * sizeof(int);
  const double memcpySeconds = bytes / Quarn::Testing::MemcpyBytesPerSecond(static_cast<std::size_t>(bytes));
  state.counters["MPix_per_s"] = static_cast<double>(image.GetCount()) / perRun / 1e6;
  state.counters["memcpy_ms"] = memcpySeconds * 1e3;
  state.counters["memcpy_passes"] = perRun / memcpySeconds;
}

BENCHMARK(BM_DetectSpotPosition)
    ->ArgName("halfWidth")
    ->Arg(1024)
    ->Arg(256)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

#pragma once

// What the PSI benchmarks share: the synthetic 2048 x 2048 8-bit stacks and (for the two
// phase-shifter checks) the timing of one calculator, reported as megapixels per second and as a ratio of
// memcpy's bandwidth over the same bytes with as many threads, measured in the same run.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstddef>
#include <map>
#include <numbers>
#include <vector>

#include "Analysis/Core/FrameBuffer.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticPsi.h"
#include "Testing/MemoryBandwidth.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail {

inline constexpr int kCheckBenchmarkSize = 2048;

// A tilted, slightly curved surface through a shifter 3 % off, built once per frame count and
// random seed: `shifts` gives the phase shifts for a frame count.
inline Analysis::Core::FrameBuffer& CheckBenchmarkStack(int frames, std::uint64_t seed,
                                                        std::vector<double> (*shifts)(int frames)) {
  static std::map<std::pair<int, std::uint64_t>, Analysis::Core::FrameBuffer> stacks;
  const auto key = std::make_pair(frames, seed);
  auto found = stacks.find(key);
  if (found != stacks.end()) return found->second;
  Analysis::Core::FrameBuffer& f = stacks[key];
  constexpr int kSize = kCheckBenchmarkSize;
  f.Allocate(Analysis::Core::Window2D(0, 0, kSize, kSize), frames, Analysis::Core::FrameBuffer::kRes8Bit);
  Quarn::Testing::SeededRandom random(seed);
  Quarn::Testing::FillPsiStack(
      f, shifts(frames),
      [](int r, int c) {
        const double x = (c - kSize / 2.0) / kSize, y = (r - kSize / 2.0) / kSize;
        return Quarn::Testing::PixelFringe{120.0, 90.0,
                                           2 * std::numbers::pi * (20 * x + 10 * (x * x + y * y))};
      },
      2.0, &random);
  return f;
}

// Times `run()` over the benchmark's iterations and reports the rates: `bytes` moved per run and
// `workers` threads for the memcpy comparison.
template <typename Run>
void ReportCheckRate(benchmark::State& state, double bytes, int workers, Run&& run) {
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state)
    run();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double perRun = seconds / static_cast<double>(state.iterations());
  const double pixels = static_cast<double>(kCheckBenchmarkSize) * kCheckBenchmarkSize;
  state.counters["threads"] = workers;
  state.counters["MPix_per_s"] = pixels / perRun / 1e6;
  state.counters["GB_per_s"] = bytes / perRun / 1e9;
  state.counters["ratio_to_memcpy"] =
      (bytes / perRun) / Quarn::Testing::MemcpyBytesPerSecond(static_cast<std::size_t>(bytes), workers);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail

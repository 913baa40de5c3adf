// The gain estimate on a 2048 x 2048, 8-bit stack: the 7-sample estimate on 7 frames and the
// sinusoidal one on 20 frames. Megapixels per second and the effective bandwidth (frame bytes read
// per second) as a ratio of memcpy's bandwidth over the same number of bytes with as many threads,
// measured in the same run. Arguments: frames (7 or 20), threads (0 = the calling thread only).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <map>
#include <numbers>

#include "Analysis/Core/Threading/CpuCounter.h"
#include "Psi/GainCorrectionCalculator.h"
#include "Psi/GainCorrectionPmi.h"
#include "Psi/GainCorrectionSinPsi.h"
#include "Testing/MemoryBandwidth.h"
#include "Testing/SeededRandom.h"
#include "Testing/SyntheticPsi.h"

namespace {

using namespace Quarn::Metrology::Analysis::Core;
using namespace Quarn::Metrology::PhaseProcessing::Core::Psi;

constexpr int kSize = 2048;

FrameBuffer& Stack(int frames) {
  static std::map<int, FrameBuffer> stacks;
  auto found = stacks.find(frames);
  if (found != stacks.end()) return found->second;
  FrameBuffer& f = stacks[frames];
  f.Allocate(Window2D(0, 0, kSize, kSize), frames, FrameBuffer::kRes8Bit);
  Quarn::Testing::SeededRandom random(12);
  Quarn::Testing::FillPsiStack(
      f, frames == 7 ? Quarn::Testing::ShiftsFor7(0.03) : Quarn::Testing::ShiftsFor20(0.03),
      [](int r, int c) {
        const double x = (c - kSize / 2.0) / kSize, y = (r - kSize / 2.0) / kSize;
        return Quarn::Testing::PixelFringe{120.0, 90.0,
                                           2 * std::numbers::pi * (20 * x + 10 * (x * x + y * y))};
      },
      2.0, &random);
  return f;
}

void BM_GainCorrectionCalculator(benchmark::State& state) {
  const int frameCount = static_cast<int>(state.range(0));
  const int threads = static_cast<int>(state.range(1));
  FrameBuffer& frames = Stack(frameCount);
  GainCorrectionPmi pmi;
  GainCorrectionSinPsi sinPsi;
  GainCorrectionCalculator calculator;
  calculator.SetAlgorithm(frameCount == 7 ? static_cast<GainCorrection*>(&pmi) : &sinPsi);
  calculator.SetAllowMultipleThreads(threads > 0);
  if (threads > 0) calculator.SetNumberOfThreads(threads);
  calculator.Calculate(frames);  // warm the pool

  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    calculator.Calculate(frames);
    benchmark::DoNotOptimize(calculator.GetGainCorrection());
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double perRun = seconds / static_cast<double>(state.iterations());
  const double pixels = static_cast<double>(kSize) * kSize;
  const double bytes = pixels * frameCount;
  // The calculator caps its thread count at the processors: report and compare what really ran.
  const int workers = threads > 0 ? calculator.GetNumberOfThreads() : 1;
  state.counters["threads"] = workers;
  state.counters["MPix_per_s"] = pixels / perRun / 1e6;
  state.counters["GB_per_s"] = bytes / perRun / 1e9;
  state.counters["ratio_to_memcpy"] =
      (bytes / perRun) / Quarn::Testing::MemcpyBytesPerSecond(static_cast<std::size_t>(bytes), workers);
}

const int kAllThreads = Threading::CpuCounter::Instance().GetNumberOfProcessors();
BENCHMARK(BM_GainCorrectionCalculator)
    ->ArgNames({"frames", "threads"})
    ->Args({7, 0})
    ->Args({7, kAllThreads})
    ->Args({20, 0})
    ->Args({20, kAllThreads})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

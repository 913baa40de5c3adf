// The Corvane check on a 2048 x 2048, 8-bit stack (7 or 13 frames): megapixels per second and the
// effective bandwidth (frame bytes read + map bytes written per second) as a ratio of memcpy's
// bandwidth over the same number of bytes with as many threads, measured in the same run.
// Arguments: frames (7 or 13), threads (0 = the calling thread only), scan period.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <map>
#include <numbers>

#include "Analysis/Core/Threading/CpuCounter.h"
#include "Psi/Corvane13.h"
#include "Psi/Corvane7.h"
#include "Psi/CorvaneCalculator.h"
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
  Quarn::Testing::SeededRandom random(11);
  Quarn::Testing::FillPsiStack(
      f, frames == 7 ? Quarn::Testing::ShiftsFor7(0.03) : Quarn::Testing::ShiftsFor13(0.03),
      [](int r, int c) {
        const double x = (c - kSize / 2.0) / kSize, y = (r - kSize / 2.0) / kSize;
        return Quarn::Testing::PixelFringe{120.0, 90.0,
                                           2 * std::numbers::pi * (20 * x + 10 * (x * x + y * y))};
      },
      2.0, &random);
  return f;
}

void BM_CorvaneCalculator(benchmark::State& state) {
  const int frameCount = static_cast<int>(state.range(0));
  const int threads = static_cast<int>(state.range(1));
  const int period = static_cast<int>(state.range(2));
  FrameBuffer& frames = Stack(frameCount);
  Corvane7 seven;
  Corvane13 thirteen;
  CorvaneCalculator calculator;
  calculator.SetAlgorithm(frameCount == 7 ? static_cast<CorvaneAlgorithm*>(&seven) : &thirteen);
  calculator.SetAllowMultipleThreads(threads > 0);
  if (threads > 0) calculator.SetNumberOfThreads(threads);
  calculator.SetScanPeriod(period);
  DoubleMatrix2D steps(kSize, kSize);
  calculator.Calculate(frames, steps);  // warm the map and the pool

  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    calculator.Calculate(frames, steps);
    benchmark::DoNotOptimize(steps.Data());
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double perRun = seconds / static_cast<double>(state.iterations());
  // Every frame byte is touched once (whole cache lines, whatever the stride); the map is written
  // at the visited pixels only.
  const double pixels = static_cast<double>(kSize) * kSize;
  const double bytes = pixels * frameCount + pixels / period * sizeof(double);
  // The calculator caps its thread count at the processors: report and compare what really ran.
  const int workers = threads > 0 ? calculator.GetNumberOfThreads() : 1;
  state.counters["threads"] = workers;
  state.counters["MPix_per_s"] = pixels / perRun / 1e6;
  state.counters["GB_per_s"] = bytes / perRun / 1e9;
  state.counters["ratio_to_memcpy"] =
      (bytes / perRun) / Quarn::Testing::MemcpyBytesPerSecond(static_cast<std::size_t>(bytes), workers);
}

const int kAllThreads = Threading::CpuCounter::Instance().GetNumberOfProcessors();
BENCHMARK(BM_CorvaneCalculator)
    ->ArgNames({"frames", "threads", "period"})
    ->Args({7, 0, 1})
    ->Args({7, kAllThreads, 1})
    ->Args({13, 0, 1})
    ->Args({13, kAllThreads, 1})
    ->Args({7, kAllThreads, 4})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

// The converter generator on a 2048 x 2048, 13-frame, 8-bit stack with phase and modulation output:
// megapixels per second and the effective bandwidth (frame bytes read + map bytes written per
// second) as a ratio of memcpy's bandwidth over the same number of bytes with as many threads,
// measured in the same run.
// Arguments: threads (0 = the calling thread only), fast path (1) or per-pixel reference (0).
#include <benchmark/benchmark.h>

#include <chrono>
#include <vector>

#include "Analysis/Core/Threading/CpuCounter.h"
#include "Psi/Convert13.h"
#include "Psi/ConverterGenerator.h"
#include "Psi/detail/PixelCheckBenchmark.h"
#include "Testing/MemoryBandwidth.h"

namespace {

using namespace Quarn::Metrology::Analysis::Core;
using namespace Quarn::Metrology::PhaseProcessing::Core::Psi;

constexpr int kSize = detail::kCheckBenchmarkSize;
constexpr int kFrames = 13;

std::vector<double> Shifts(int) {
  return Quarn::Testing::ShiftsFor13(0.03);
}

void BM_ConverterGenerator13(benchmark::State& state) {
  const int threads = static_cast<int>(state.range(0));
  FrameBuffer& frames = detail::CheckBenchmarkStack(kFrames, 5, Shifts);
  Convert13 converter;
  ConverterGenerator generator;
  generator.SetAlgorithm(&converter);
  generator.SetUseFastPath(state.range(1) != 0);
  generator.SetAllowMultiThreads(threads > 0);
  generator.SetNumberOfThreads(threads);
  DoubleMatrix2D phase(kSize, kSize), modulation(kSize, kSize);
  generator.Process(frames, phase, &modulation);  // warm the maps and the pool

  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    generator.Process(frames, phase, &modulation);
    benchmark::DoNotOptimize(phase.Data());
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double pixels = static_cast<double>(kSize) * kSize;
  const double bytes = pixels * (kFrames * 1.0 + 2 * sizeof(double));
  const double perRun = seconds / static_cast<double>(state.iterations());
  const int workers = generator.GetAllowMultiThreads() ? generator.GetNumberOfThreads() : 1;
  state.counters["threads"] = workers;
  state.counters["MPix_per_s"] = pixels / perRun / 1e6;
  state.counters["GB_per_s"] = bytes / perRun / 1e9;
  state.counters["ratio_to_memcpy"] =
      (bytes / perRun) / Quarn::Testing::MemcpyBytesPerSecond(static_cast<std::size_t>(bytes), workers);
}

const int kAllThreads = Threading::CpuCounter::Instance().GetNumberOfProcessors();
BENCHMARK(BM_ConverterGenerator13)
    ->ArgNames({"threads", "fast"})
    ->Args({0, 0})
    ->Args({0, 1})
    ->Args({kAllThreads, 0})
    ->Args({kAllThreads, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

// The peak-frame finder on a 512 x 512 pixel, 128-frame scan, vectorised and plain paths, on one
// thread and on all. ratio_to_memcpy is the time memcpy takes to copy the scan's bytes on as many
// threads, measured in the same run, divided by the finder's time: the finder reads every sample
// once, so 1 means it runs at the speed of memory.
// Arguments: bits, path (1 vectorised, 0 plain), threads. The scans by bits:
//   8   8-bit samples;
//   12  16-bit samples that stay below 4096, as a 12-bit camera delivers them (summed in 32-bit
//       integers);
//   16  16-bit samples over most of the range (bias 20000, fringes of 15000 counts), summed in
//       64-bit integers with AVX-512, in doubles with AVX2.
// The vectorised path is the widest the processor runs (AVX-512 where it has BW and VNNI);
// QUARN_SWLI_ISA=avx2 or sse2 in the environment caps it.
#include <benchmark/benchmark.h>

#include <chrono>
#include <map>
#include <memory>

#include "Analysis/Core/Threading/CpuCounter.h"
#include "Swli/CoherenceDiscriminator.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticScan.h"
#include "Testing/MemoryBandwidth.h"

namespace {

using namespace Quarn::Metrology::Analysis::Core;
using namespace Quarn::Metrology::PhaseProcessing::Core::Swli;

constexpr int kSize = 512;
constexpr int kFrames = 128;

double Surface(int r, int c) {
  const double x = (c - kSize / 2.0) / kSize, y = (r - kSize / 2.0) / kSize;
  return 5000.0 + 1500.0 * (x * x + y * y) + 400.0 * x;
}

FrameBuffer& TheScan(int bits) {
  static std::map<int, std::unique_ptr<FrameBuffer>> scans;
  auto& scan = scans[bits];
  if (!scan) {
    scan = std::make_unique<FrameBuffer>();
    Quarn::Testing::ScanSettings s;
    s.rows = s.cols = kSize;
    s.framesScanned = kFrames;
    s.noiseSigmaCounts = 1.5;
    if (bits == 12) {
      s.resolution = FrameBuffer::kRes16Bit;
      s.biasCounts = 2000.0;
      s.modulationCounts = 1500.0;
    } else if (bits == 16) {
      s.resolution = FrameBuffer::kRes16Bit;
      s.biasCounts = 20000.0;
      s.modulationCounts = 15000.0;
    }
    Quarn::Testing::SeededRandom random(9);
    Quarn::Testing::MakeSyntheticScan(*scan, s, Surface, &random);
  }
  return *scan;
}

void BM_FindPeakFrames(benchmark::State& state) {
  const int bits = static_cast<int>(state.range(0));
  const bool fast = state.range(1) != 0;
  const int threads = static_cast<int>(state.range(2));
  FrameBuffer& frames = TheScan(bits);
  IntMatrix2D peaks;
  double seconds = 0.0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    if (fast) {
      FindPeakFrames(frames, peaks, threads);
    } else {
      FindPeakFramesReference(frames, peaks, threads);
    }
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    benchmark::DoNotOptimize(peaks.Data());
  }
  const double scanBytes = static_cast<double>(kSize) * kSize * kFrames * frames.GetBytesPerSample();
  const double perRun = seconds / static_cast<double>(state.iterations());
  const double memcpySeconds =
      scanBytes / Quarn::Testing::MemcpyBytesPerSecond(static_cast<std::size_t>(scanBytes), threads);
  state.counters["threads"] = threads;
  state.counters["Mpixel_per_s"] = kSize * kSize / perRun / 1e6;
  state.counters["ratio_to_memcpy"] = memcpySeconds / perRun;
}

const int kAllThreads = Threading::CpuCounter::Instance().GetNumberOfProcessors();
BENCHMARK(BM_FindPeakFrames)
    ->ArgNames({"bits", "vector", "threads"})
    ->ArgsProduct({{8, 12, 16}, {1, 0}, {1, kAllThreads}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

// The white-light generator with the centroid and the FDA on a 512 x 512 pixel, 256-frame, 8-bit
// scan: megapixels per second, on one thread and on all, with two ratios measured in the same run:
// - ratio_to_memcpy: the time memcpy takes to copy the scan's 64 MiB on as many threads divided by
//   the evaluation's time (1 would mean the evaluation costs no more than reading the scan once);
// - ratio_to_fftw (FDA only): the time FFTW alone takes for the same number of 64-point real
//   transforms (one per pixel, on as many threads, same planning mode) divided by the evaluation's
//   time: the FDA against the cost of the whole transform a pixel's spectrum needs. (The FDA's fast
//   path sums only its band's bins and no longer calls FFTW; the yardstick stays the same.)
// On the calling thread alone (threads 0) both ratios are also given from the thread's processor time
// (ratio_to_memcpy_cpu, ratio_to_fftw_cpu), which a machine shared with other work inflates far less
// than the wall-clock time.
// Arguments: algorithm (0 centroid, 1 FDA), threads (0: the calling thread only), bits per sample
// (8, or 16 for the same scan scaled by 200 into 16-bit samples; the ratios then compare with the
// memcpy of the 16-bit scan's 128 MiB).
#include <benchmark/benchmark.h>

#include <fftw3.h>

#include <time.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <vector>

#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/Threading/CpuCounter.h"
#include "Analysis/Core/Threading/ThreadDispatcher.h"
#include "Analysis/Core/UnitNumber.h"
#include "Swli/PhaseAlgorithmCentroid.h"
#include "Swli/PhaseAlgorithmFda.h"
#include "Swli/PhaseGenerator.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticScan.h"
#include "Testing/MemoryBandwidth.h"

namespace {

using namespace Quarn::Metrology::Analysis::Core;
using namespace Quarn::Metrology::PhaseProcessing::Core::Swli;

constexpr int kSize = 512;
constexpr int kFrames = 256;
constexpr int kSignal = 64;

double Surface(int r, int c) {
  const double x = (c - kSize / 2.0) / kSize, y = (r - kSize / 2.0) / kSize;
  return 10000.0 + 3000.0 * (x * x + y * y) + 800.0 * x + (c > kSize / 2 ? 400.0 : 0.0);
}

struct Scan {
  FrameBuffer frames;
  IntMatrix2D peaks{kSize, kSize};
  IntMatrix2D aux{kSize, kSize};
  Quarn::Testing::ScanSettings settings;
};

Scan MakeScan(FrameBuffer::ElementRes resolution, double scale) {
  Scan s;
  s.settings.rows = s.settings.cols = kSize;
  s.settings.framesScanned = kFrames;
  s.settings.resolution = resolution;
  s.settings.biasCounts *= scale;
  s.settings.modulationCounts *= scale;
  s.settings.noiseSigmaCounts = 1.5 * scale;
  Quarn::Testing::SeededRandom random(9);
  Quarn::Testing::MakeSyntheticScan(s.frames, s.settings, Surface, &random);
  for (int r = 0; r < kSize; ++r) {
    for (int c = 0; c < kSize; ++c)
      s.peaks(r, c) = Quarn::Testing::TruePeakFrame(s.settings, Surface(r, c)) + (r + c) % 3 - 1;
  }
  s.aux.SetAll(0);
  return s;
}

Scan& TheScan(int bits) {
  if (bits == 16) {
    static Scan wide = MakeScan(FrameBuffer::kRes16Bit, 200.0);
    return wide;
  }
  static Scan scan = MakeScan(FrameBuffer::kRes8Bit, 1.0);
  return scan;
}

double ThreadSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// FFTW alone: `count` transforms of 64 samples, spread over the workers like the pixels, each worker
// with its own plan and arrays.
class FftOnly {
 public:
  explicit FftOnly(int threads) : threads_(std::max(threads, 1)), dispatcher_(this, nullptr, -1) {
    dispatcher_.SetNumberOfWorkers(threads_);
    for (int t = 0; t < threads_; ++t) {
      double* in = fftw_alloc_real(kSignal);
      fftw_complex* out = fftw_alloc_complex(kSignal / 2 + 1);
      for (int k = 0; k < kSignal; ++k)
        in[k] = 100.0 + 60.0 * std::cos(1.7 * k);
      inputs_.push_back(in);
      outputs_.push_back(out);
      plans_.push_back(fftw_plan_dft_r2c_1d(kSignal, in, out, FFTW_ESTIMATE));
    }
  }
  ~FftOnly() {
    for (int t = 0; t < threads_; ++t) {
      fftw_destroy_plan(plans_[static_cast<std::size_t>(t)]);
      fftw_free(inputs_[static_cast<std::size_t>(t)]);
      fftw_free(outputs_[static_cast<std::size_t>(t)]);
    }
  }
  double Seconds(int count, double* threadSeconds = nullptr) {
    const auto start = std::chrono::steady_clock::now();
    const double cpuStart = ThreadSeconds();
    if (threads_ == 1) {
      Transforms(0, 0, count);
    } else {
      dispatcher_.Invoke(&FftOnly::Transforms, 0, count);
    }
    if (threadSeconds) *threadSeconds = ThreadSeconds() - cpuStart;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }

 private:
  void Transforms(int thread, int first, int end) {
    const auto t = static_cast<std::size_t>(thread);
    for (int i = first; i < end; ++i) {
      inputs_[t][i % kSignal] += 1.0;  // a fresh input each time, as every pixel has its own
      fftw_execute(plans_[t]);
      benchmark::DoNotOptimize(outputs_[t][17][0]);
    }
  }

  int threads_;
  Threading::ThreadDispatcher<FftOnly> dispatcher_;
  std::vector<double*> inputs_;
  std::vector<fftw_complex*> outputs_;
  std::vector<fftw_plan> plans_;
};

void BM_SwliGenerator(benchmark::State& state) {
  const bool fda = state.range(0) != 0;
  const int threads = static_cast<int>(state.range(1));
  const int bits = static_cast<int>(state.range(2));
  Scan& scan = TheScan(bits);
  PhaseAlgorithmCentroid centroid;
  PhaseAlgorithmFda frequency;
  PhaseAlgorithm& algorithm = fda ? static_cast<PhaseAlgorithm&>(frequency) : centroid;
  algorithm.SetScanIncrement(UnitNumber(80.0, LinearConverter(Units::kNanometers)));
  PhaseGenerator generator(&algorithm);
  generator.SetAllowMultiThreads(threads > 0);
  DoubleMatrix2D surface(kSize, kSize);
  generator.SetMaxNumThreads(threads);
  surface.SetAll(0.0);
  generator.Process(scan.frames, scan.peaks, scan.aux, surface);  // warm the maps and the pool

  double seconds = 0.0, cpuSeconds = 0.0;
  for (auto _ : state) {
    surface.SetAll(0.0);
    const auto start = std::chrono::steady_clock::now();
    const double cpuStart = ThreadSeconds();
    generator.Process(scan.frames, scan.peaks, scan.aux, surface);
    cpuSeconds += ThreadSeconds() - cpuStart;
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    benchmark::DoNotOptimize(surface.Data());
  }
  if (generator.GetStatus().IsError()) state.SkipWithError(generator.GetStatus().GetPrintString().c_str());
  const double pixels = static_cast<double>(kSize) * kSize;
  const double perRun = seconds / static_cast<double>(state.iterations());
  const double scanBytes = pixels * kFrames * (bits / 8);
  const int workers = threads > 0 ? generator.GetMaxNumThreads() : 1;
  state.counters["threads"] = workers;
  state.counters["MPix_per_s"] = pixels / perRun / 1e6;
  state.counters["valid_pct"] = 100.0 * static_cast<double>(surface.CountValid()) / pixels;
  state.counters["ratio_to_memcpy"] =
      (scanBytes / Quarn::Testing::MemcpyBytesPerSecond(static_cast<std::size_t>(scanBytes), workers)) /
      perRun;
  const double cpuPerRun = cpuSeconds / static_cast<double>(state.iterations());
  if (threads == 0) {
    const std::size_t bytes = static_cast<std::size_t>(scanBytes);
    std::vector<unsigned char> from(bytes, 1), to(bytes);
    double copy = 1e300;
    for (int i = 0; i < 3; ++i) {
      const double cpuStart = ThreadSeconds();
      std::memcpy(to.data(), from.data(), bytes);
      benchmark::DoNotOptimize(to.data());
      copy = std::min(copy, ThreadSeconds() - cpuStart);
    }
    state.counters["ratio_to_memcpy_cpu"] = copy / cpuPerRun;
  }
  if (fda) {
    FftOnly fft(threads > 0 ? generator.GetMaxNumThreads() : 1);
    double best = 1e300, bestCpu = 1e300;
    for (int i = 0; i < 3; ++i) {
      double cpu = 0.0;
      best = std::min(best, fft.Seconds(kSize * kSize, &cpu));
      bestCpu = std::min(bestCpu, cpu);
    }
    state.counters["ratio_to_fftw"] = best / perRun;
    if (threads == 0) state.counters["ratio_to_fftw_cpu"] = bestCpu / cpuPerRun;
  }
}

const int kAllThreads = Threading::CpuCounter::Instance().GetNumberOfProcessors();
BENCHMARK(BM_SwliGenerator)
    ->ArgNames({"fda", "threads", "bits"})
    ->Args({0, 0, 8})
    ->Args({0, kAllThreads, 8})
    ->Args({0, 0, 16})
    ->Args({1, 0, 8})
    ->Args({1, kAllThreads, 8})
    ->Args({1, 0, 16})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

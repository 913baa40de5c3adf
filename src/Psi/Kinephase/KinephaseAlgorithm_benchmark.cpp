// The carrier-fringe pipeline on a 2048 x 2048, 8-bit frame (frame to phase and modulation:
// SetIntensity + Process), against the Fourier transforms it cannot do without, measured in the
// same run (inside the pipeline benchmark, one of each after every pipeline run):
//   FftwAlone     FFTW's own in-place 2-D plans (measured), forward then backward, with FFTW's
//                 threads when more than one thread is asked for;
//   Fft2DAlone    the library's transform, forward then inverse, exactly as the pipeline runs it.
// The pipeline's counters give its time as a ratio of both.
// Arguments: threads (0 = the calling thread only); for the pipeline also low_memory (1: the
// filter computed in the column pass and the transform's memory given back on every frame, as one
// frame at a time in the tool runs it).
#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <memory>
#include <numbers>

#include "Analysis/Core/Fft2D.h"
#include "Analysis/Core/Threading/CpuCounter.h"
#include "Psi/Kinephase/KinephaseAlgorithm.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticCarrier.h"

namespace {

using namespace Quarn::Metrology::Analysis::Core;
using namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase;

constexpr int kSize = 2048;

// FFTW's threads must be set up before any plan of the process is made.
const bool kFftwThreads = [] { return fftw_init_threads() != 0; }();

FrameBuffer& Frame() {
  static FrameBuffer frame = [] {
    FrameBuffer f;
    f.Allocate(Window2D(0, 0, kSize, kSize), 1, FrameBuffer::kRes8Bit);
    Quarn::Testing::SeededRandom random(5);
    Quarn::Testing::CarrierScene scene;
    scene.phase = [](int r, int c) {
      const double x = (c - kSize / 2.0) / kSize, y = (r - kSize / 2.0) / kSize;
      return 2.0 * std::numbers::pi * (3.0 * (x * x + y * y) + 1.5 * x * y);
    };
    scene.noiseSigma = 1.5;
    scene.obscured = [](int r, int c) { return std::hypot(r - kSize / 2.0, c - kSize / 2.0) < kSize / 10.0; };
    scene.obscuredLevel = 20.0;
    Quarn::Testing::FillCarrierFrame(f, 0, scene, &random);
    return f;
  }();
  return frame;
}

// FFTW's own in-place 2-D plans of the frame's size (measured), with FFTW's threads. The
// benchmark plans alone, on its own thread, so no planner lock is needed here.
struct FftwAlone {
  fftw_complex* data = nullptr;
  fftw_plan forward = nullptr;
  fftw_plan backward = nullptr;
  explicit FftwAlone(int threads) {
    data = fftw_alloc_complex(static_cast<std::size_t>(kSize) * kSize);
    fftw_plan_with_nthreads(kFftwThreads ? std::max(1, threads) : 1);
    forward = fftw_plan_dft_2d(kSize, kSize, data, data, FFTW_FORWARD, FFTW_MEASURE);
    backward = fftw_plan_dft_2d(kSize, kSize, data, data, FFTW_BACKWARD, FFTW_MEASURE);
    fftw_plan_with_nthreads(1);
    const auto* samples = static_cast<const std::uint8_t*>(Frame().GetFrameData(0));
    for (std::size_t i = 0; i < static_cast<std::size_t>(kSize) * kSize; ++i) {
      data[i][0] = samples[i];
      data[i][1] = 0.0;
    }
  }
  ~FftwAlone() {
    fftw_destroy_plan(forward);
    fftw_destroy_plan(backward);
    fftw_free(data);
  }
  void Run() {
    fftw_execute(forward);
    fftw_execute(backward);
  }
};

FftwAlone& Fftw(int threads) {
  static std::map<int, std::unique_ptr<FftwAlone>> plans;
  auto& entry = plans[threads];
  if (!entry) entry = std::make_unique<FftwAlone>(threads);
  return *entry;
}

Fft2D& LoadedTransform(int threads) {
  static Fft2D fft;
  fft.SetSize(kSize, kSize);
  fft.SetAllowMultiThreads(threads > 0);
  fft.SetNumberOfThreads(threads);
  DoubleMatrix2D image(kSize, kSize);
  const auto* samples = static_cast<const std::uint8_t*>(Frame().GetFrameData(0));
  for (std::int64_t i = 0; i < image.GetCount(); ++i)
    image.At(i) = samples[i];
  fft.SetData(image, false, false, false);
  return fft;
}

template <typename F>
double Seconds(F&& run) {
  const auto start = std::chrono::steady_clock::now();
  run();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void BM_FftwAlone(benchmark::State& state) {
  FftwAlone& fftw = Fftw(static_cast<int>(state.range(0)));
  for (auto _ : state)
    fftw.Run();
  state.counters["fftw_threads"] = kFftwThreads ? std::max<int>(1, static_cast<int>(state.range(0))) : 1;
}

void BM_Fft2DAlone(benchmark::State& state) {
  Fft2D& fft = LoadedTransform(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    fft.Transform(false);
    fft.Transform(true);
    benchmark::DoNotOptimize(fft.GetRow(0));
  }
}

// Each iteration runs the pipeline and, right after it, both baselines, so that all three see the
// same load on a shared machine; the ratios compare the best times of each.
void BM_KinephasePipeline(benchmark::State& state) {
  const int threads = static_cast<int>(state.range(0));
  FrameBuffer& frame = Frame();
  KinephaseAlgorithm kinephase;
  kinephase.SetAllowMultiThreads(threads > 0);
  kinephase.SetNumberOfThreads(threads);
  kinephase.SetModulationThreshold(10.0);
  kinephase.SetLowMemory(state.range(1) != 0);
  DoubleMatrix2D phase, modulation;
  kinephase.SetIntensity(frame, 0);
  kinephase.Process(phase, modulation);  // plans, filter, maps and the pool warmed up
  FftwAlone& fftw = Fftw(threads);
  Fft2D& fft = LoadedTransform(threads);

  double bestPipeline = 1e300, bestFftw = 1e300, bestFft2d = 1e300;
  for (auto _ : state) {
    const double pipeline = Seconds([&] {
      kinephase.SetIntensity(frame, 0);
      kinephase.Process(phase, modulation);
    });
    state.SetIterationTime(pipeline);
    bestPipeline = std::min(bestPipeline, pipeline);
    bestFftw = std::min(bestFftw, Seconds([&] { fftw.Run(); }));
    bestFft2d = std::min(bestFft2d, Seconds([&] {
                           fft.Transform(false);
                           fft.Transform(true);
                         }));
    benchmark::DoNotOptimize(phase.Data());
  }
  if (kinephase.GetStatus().IsError()) state.SkipWithError(kinephase.GetStatus().GetPrintString().c_str());
  state.counters["threads"] = kinephase.GetAllowMultiThreads() ? kinephase.GetNumberOfThreads() : 1;
  state.counters["best_ms"] = bestPipeline * 1e3;
  state.counters["MPix_per_s"] = static_cast<double>(kSize) * kSize / bestPipeline / 1e6;
  state.counters["fftw_ms"] = bestFftw * 1e3;
  state.counters["fft2d_ms"] = bestFft2d * 1e3;
  state.counters["ratio_to_fftw"] = bestPipeline / bestFftw;
  state.counters["ratio_to_fft2d"] = bestPipeline / bestFft2d;
}

const int kAllThreads =
    Quarn::Metrology::Analysis::Core::Threading::CpuCounter::Instance().GetNumberOfProcessors();
BENCHMARK(BM_KinephasePipeline)
    ->ArgNames({"threads", "low_memory"})
    ->ArgsProduct({{0, kAllThreads}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();
BENCHMARK(BM_Fft2DAlone)
    ->ArgName("threads")
    ->Arg(0)
    ->Arg(kAllThreads)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_FftwAlone)
    ->ArgName("threads")
    ->Arg(0)
    ->Arg(kAllThreads)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

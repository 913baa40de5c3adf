// The block band transform (bins 13 .. 21 of 64 8-bit samples, the FDA's default band, 64 pixels a
// block) against FFTW's whole 64-point real transform of as many signals, on one thread: nanoseconds
// per signal, and ratio_to_fftw = FFTW's time / the block transform's time, measured in the same run.
// Arguments: starts (the distinct window starts in a block: 1, or 3 as neighbouring peaks jitter by a
// frame) and sse2 (1: the baseline kernel instead of the widest).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <complex>
#include <cstdint>
#include <vector>

#include "Analysis/Core/Fft1DReal.h"
#include "Swli/detail/BlockBands.h"

namespace {

using namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail;

constexpr int kSignal = 64;
constexpr int kLanes = BlockBandsJob::kLanes;
constexpr int kBlocks = 64;
constexpr int kRows = 2 * kSignal;

void BM_BlockBands(benchmark::State& state) {
  const int starts = static_cast<int>(state.range(0));
  const bool sse2 = state.range(1) != 0;
  // Frames of fringes under an envelope, a different phase per pixel and per block.
  std::vector<std::uint8_t> frames(static_cast<std::size_t>(kBlocks) * kRows * kLanes);
  std::vector<double> signals(static_cast<std::size_t>(kBlocks) * kLanes * kSignal);
  for (int b = 0; b < kBlocks; ++b) {
    for (int r = 0; r < kRows; ++r) {
      for (int i = 0; i < kLanes; ++i) {
        const double envelope = std::exp(-0.5 * std::pow((r - kSignal) / 12.0, 2.0));
        const double value = 120.0 + 90.0 * envelope * std::cos(1.7 * r + 0.1 * i + 0.3 * b);
        frames[(static_cast<std::size_t>(b) * kRows + static_cast<std::size_t>(r)) * kLanes +
               static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(std::lround(value));
      }
    }
  }
  int offsets[kLanes];
  for (int i = 0; i < kLanes; ++i)
    offsets[i] = kSignal / 2 + (starts > 1 ? i % starts : 0);
  for (int b = 0; b < kBlocks; ++b) {
    for (int i = 0; i < kLanes; ++i) {
      for (int j = 0; j < kSignal; ++j)
        signals[(static_cast<std::size_t>(b) * kLanes + static_cast<std::size_t>(i)) * kSignal +
                static_cast<std::size_t>(j)] =
            frames[(static_cast<std::size_t>(b) * kRows + static_cast<std::size_t>(offsets[i] + j)) * kLanes +
                   static_cast<std::size_t>(i)];
    }
  }
  BandTransform band;
  band.Plan(kSignal, 13, 21);
  const BlockBandsFunction blockBands = sse2 ? &BlockBandsSse2 : SelectBlockBands();
  Quarn::Metrology::Analysis::Core::Fft1DReal fft(kSignal);
  std::vector<std::complex<double>> spectrum(kSignal / 2 + 1);
  std::vector<double> re(2 * 9 * kBandLanes), im(re.size());
  std::int32_t sums[kLanes];
  BlockBandsJob job;
  job.offsets = offsets;
  job.re = re.data();
  job.im = im.data();
  job.intensity = sums;
  double blockSeconds = 0.0, fftSeconds = 0.0;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    for (int b = 0; b < kBlocks; ++b) {
      job.frames = frames.data() + static_cast<std::ptrdiff_t>(b) * kRows * kLanes;
      blockBands(band, job);
      benchmark::DoNotOptimize(re.data());
    }
    auto middle = std::chrono::steady_clock::now();
    for (int s = 0; s < kBlocks * kLanes; ++s) {
      fft.Forward(signals.data() + static_cast<std::ptrdiff_t>(s) * kSignal, spectrum.data());
      benchmark::DoNotOptimize(spectrum.data());
    }
    auto end = std::chrono::steady_clock::now();
    blockSeconds += std::chrono::duration<double>(middle - start).count();
    fftSeconds += std::chrono::duration<double>(end - middle).count();
  }
  const double count = static_cast<double>(state.iterations()) * kBlocks * kLanes;
  state.counters["block_ns"] = blockSeconds / count * 1e9;
  state.counters["fftw_ns"] = fftSeconds / count * 1e9;
  state.counters["ratio_to_fftw"] = fftSeconds / blockSeconds;
}

BENCHMARK(BM_BlockBands)->ArgNames({"starts", "sse2"})->Args({1, 0})->Args({3, 0})->Args({3, 1});

}  // namespace

// The band transform (bins 13 .. 21 of 64 samples, the FDA's default band) against FFTW's whole
// 64-point real transform of the same signals, on one thread: nanoseconds per signal, and
// ratio_to_fftw = FFTW's time / the band transform's time, measured in the same run.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <vector>

#include "Analysis/Core/Fft1DReal.h"
#include "Swli/detail/BandTransform.h"

namespace {

using namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail;

constexpr int kSignal = 64;
constexpr int kSignals = 4096;

std::vector<double> Signals() {
  std::vector<double> x(static_cast<std::size_t>(kSignal) * kSignals);
  for (int s = 0; s < kSignals; ++s) {
    for (int j = 0; j < kSignal; ++j)
      x[static_cast<std::size_t>(s * kSignal + j)] = std::round(100.0 + 60.0 * std::cos(1.7 * j + 0.01 * s));
  }
  return x;
}

void BM_BandTransform(benchmark::State& state) {
  const bool sse2 = state.range(0) != 0;
  const std::vector<double> x = Signals();
  BandTransform band;
  band.Plan(kSignal, 13, 21);
  const BandBinsFunction bins = sse2 ? &BandBinsSse2 : SelectBandBins();
  Quarn::Metrology::Analysis::Core::Fft1DReal fft(kSignal);
  std::vector<std::complex<double>> spectrum(kSignal / 2 + 1);
  double re[9 * 32], im[9 * 32];
  double bandSeconds = 0.0, fftSeconds = 0.0;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    for (int s = 0; s < kSignals; ++s)
      bins(band, x.data() + static_cast<std::ptrdiff_t>(s) * kSignal, re + s % 32, im + s % 32, 32);
    benchmark::DoNotOptimize(re);
    auto middle = std::chrono::steady_clock::now();
    for (int s = 0; s < kSignals; ++s)
      fft.Forward(x.data() + static_cast<std::ptrdiff_t>(s) * kSignal, spectrum.data());
    benchmark::DoNotOptimize(spectrum.data());
    auto end = std::chrono::steady_clock::now();
    bandSeconds += std::chrono::duration<double>(middle - start).count();
    fftSeconds += std::chrono::duration<double>(end - middle).count();
  }
  const double signals = static_cast<double>(state.iterations()) * kSignals;
  state.counters["band_ns"] = bandSeconds / signals * 1e9;
  state.counters["fftw_ns"] = fftSeconds / signals * 1e9;
  state.counters["ratio_to_fftw"] = fftSeconds / bandSeconds;
}

BENCHMARK(BM_BandTransform)->ArgNames({"sse2"})->Arg(0)->Arg(1);

}  // namespace

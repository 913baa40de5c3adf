// The library search on a 512 x 512 pixel, 128-frame film scan (SiO2 on Si, 0.1 to 2 µm across the
// image, 1 % noise) against a 1,226-signal library (0.05 to 2.5 µm by 2 nm), on one thread, with
// the ratio to Eigen's complex matrix product measured in the same run:
// - ratio_to_gemm_full: the time Eigen takes for the product of every pixel's full spectrum (65
//   bins) with every library spectrum, computed a row of 512 pixels at a time, divided by the
//   search's time (the straightforward "correlate every pixel with every signal" computation);
// - ratio_to_gemm_band: the same product over the band of bins that carry signal only;
// - the same ratios on process CPU time (*_cpu), which a machine shared with other work disturbs
//   far less than the wall-clock ones: compare Fast with Linear on cpu_s.
// Arguments: search mode (0 Linear, 1 Fast, 2 MagOnly).
#include <benchmark/benchmark.h>

#include <Eigen/Core>

#include <time.h>

#include <chrono>
#include <complex>
#include <cstdint>
#include <vector>

#include "SwliMba/Search/LibrarySearch.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticFilm.h"

namespace {

using namespace Quarn::Metrology::Analysis::Core;
using namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search;
using cd = std::complex<double>;

constexpr int kSize = 512;
constexpr int kFrames = 128;
constexpr double kStepUm = 0.080;
constexpr double kFromUm = 0.05, kIncrementUm = 0.002;
constexpr int kSignals = 1226;

struct Setup {
  Quarn::Testing::FilmSignalModel model;
  DoubleMatrix2D library;
  Array<cd> mirror;
  FrameBuffer frames;
  int firstBin = 0, lastBin = 0;
};

// One trace per column (its thickness), moved by whole frames from row to row (a tilt), with the
// noise drawn per pixel: the synthesis of 512 x 512 traces point by point would take minutes.
Setup& TheSetup() {
  static Setup s = [] {
    Setup setup;
    setup.model.LibraryMatrix(kFromUm, kIncrementUm, kSignals, kFrames, kStepUm, setup.library);
    setup.model.PerfectMirror(kFrames, kStepUm, setup.mirror);
    double peak = 0.0;
    for (int j = 0; j < setup.mirror.Size(); ++j)
      peak = std::max(peak, std::abs(setup.mirror[j]));
    for (int j = 0; j < setup.mirror.Size(); ++j) {
      if (std::abs(setup.mirror[j]) < 0.01 * peak) continue;
      if (setup.firstBin == 0) setup.firstBin = j;
      setup.lastBin = j;
    }
    setup.frames.Allocate(Window2D(0, 0, kSize, kSize), kFrames, FrameBuffer::kRes16Bit);
    std::vector<double> traces(static_cast<std::size_t>(kSize) * kFrames, 0.0);
    for (int c = 0; c < kSize; ++c)
      setup.model.AddSignal(0.1 + 1.9 * c / (kSize - 1), 0.0, -(kFrames / 2) * kStepUm, kStepUm, kFrames,
                            traces.data() + static_cast<std::size_t>(c) * kFrames);
    Quarn::Testing::SeededRandom random(3);
    for (int r = 0; r < kSize; ++r) {
      const int shift = (r % 9) - 4;
      for (int c = 0; c < kSize; ++c) {
        const double* trace = traces.data() + static_cast<std::size_t>(c) * kFrames;
        for (int j = 0; j < kFrames; ++j) {
          const int from = j - shift;
          const double v = from >= 0 && from < kFrames ? trace[from] : 0.0;
          setup.frames.GetFrame<std::uint16_t>(j)[r * kSize + c] =
              static_cast<std::uint16_t>(20000.0 + 20000.0 * v + random.Normal(100.0));
        }
      }
    }
    return setup;
  }();
  return s;
}

double ProcessCpuSeconds() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

struct Seconds {
  double wall = 0.0, cpu = 0.0;
};

// Eigen's product of a row of pixels' spectra (bins [first, first + width)) with every library
// spectrum, for every row of the image.
Seconds GemmSeconds(const Setup& s, int first, int width) {
  using Matrix = Eigen::Matrix<cd, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
  Matrix library(kSignals, width), pixels(kSize, width), product(kSize, kSignals);
  for (int i = 0; i < kSignals; ++i)
    for (int k = 0; k < width; ++k)
      library(i, k) = std::conj(cd(s.library(i, 2 * (first + k)), s.library(i, 2 * (first + k) + 1)));
  pixels.setRandom();
  const auto start = std::chrono::steady_clock::now();
  const double cpuStart = ProcessCpuSeconds();
  for (int r = 0; r < kSize; ++r) {
    pixels(r % kSize, 0) += 1.0;  // a fresh operand each row
    product.noalias() = pixels * library.transpose();
    benchmark::DoNotOptimize(product(3, 7));
  }
  return {std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
          ProcessCpuSeconds() - cpuStart};
}

void BM_LibrarySearch(benchmark::State& state) {
  static const char* kModes[] = {"Linear", "Fast", "MagOnly"};
  Setup& s = TheSetup();
  DoubleMatrix2D height, thickness, signal;
  double seconds = 0.0, cpu = 0.0;
  for (auto _ : state) {
    LibrarySearch search;
    search.SetSearchMode(kModes[state.range(0)]);
    search.SetPerfectMirrorSignal(s.mirror);
    search.SetLibrary(s.library, kFromUm, kIncrementUm, 0);
    search.SetFrameBuffer(s.frames);
    search.SetHeightMap(&height);
    search.SetThicknessMap(&thickness);
    search.SetBestSignalIdMap(&signal);
    const auto start = std::chrono::steady_clock::now();
    const double cpuStart = ProcessCpuSeconds();
    search.Execute();
    cpu = ProcessCpuSeconds() - cpuStart;
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.SetIterationTime(seconds);
    if (search.GetStatus().IsError()) state.SkipWithError(search.GetStatus().GetPrintString().c_str());
  }
  const Seconds full = GemmSeconds(s, 0, kFrames / 2 + 1);
  const Seconds band = GemmSeconds(s, s.firstBin, s.lastBin - s.firstBin + 1);
  state.counters["Mpixel_per_s"] = kSize * kSize / seconds / 1e6;
  state.counters["cpu_s"] = cpu;
  state.counters["gemm_full_s"] = full.wall;
  state.counters["gemm_band_s"] = band.wall;
  state.counters["ratio_to_gemm_full"] = full.wall / seconds;
  state.counters["ratio_to_gemm_band"] = band.wall / seconds;
  state.counters["ratio_to_gemm_full_cpu"] = full.cpu / cpu;
  state.counters["ratio_to_gemm_band_cpu"] = band.cpu / cpu;
}

BENCHMARK(BM_LibrarySearch)->Arg(0)->Arg(1)->Arg(2)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace

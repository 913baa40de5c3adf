// Per-pixel throughput of the frame-to-phase converters on gathered 8-bit samples, as the
// converter generator feeds them, against memcpy of the same sample bytes.
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <vector>

#include "Psi/Convert13.h"
#include "Psi/Convert20.h"
#include "Psi/Convert7.h"
#include "Psi/ConvertSliding13.h"
#include "Synthetic/SeededRandom.h"
#include "Testing/MemoryBandwidth.h"

namespace {

using namespace Quarn::Metrology::PhaseProcessing::Core::Psi;

template <typename ConverterT, int Frames>
void BM_Convert(benchmark::State& state) {
  constexpr int kPixels = 1 << 16;
  ConverterT converter;
  converter.Initialize(Frames);
  Quarn::Testing::SeededRandom random(3);
  std::vector<unsigned char> samples(static_cast<std::size_t>(kPixels) * Frames);
  for (auto& s : samples)
    s = static_cast<unsigned char>(random.UniformInt(0, 254));

  double sink = 0.0;
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    for (int p = 0; p < kPixels; ++p) {
      double n, d;
      converter.Convert(n, d, samples.data() + static_cast<std::size_t>(p) * Frames);
      sink += n - d;
    }
    benchmark::DoNotOptimize(sink);
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double bytes = static_cast<double>(samples.size()) * static_cast<double>(state.iterations());
  state.SetItemsProcessed(state.iterations() * kPixels);
  state.counters["sample_bytes_per_s"] = bytes / seconds;
  state.counters["ratio_to_memcpy"] =
      (bytes / seconds) / Quarn::Testing::MemcpyBytesPerSecond(samples.size());
}

BENCHMARK_TEMPLATE(BM_Convert, Convert7, 7);
BENCHMARK_TEMPLATE(BM_Convert, Convert13, 13);
BENCHMARK_TEMPLATE(BM_Convert, Convert20, 20);
BENCHMARK_TEMPLATE(BM_Convert, ConvertSliding13, 13);
BENCHMARK_TEMPLATE(BM_Convert, ConvertSliding13, 32);

}  // namespace

// The library generator on the example film library: SiO2 on Si, thickness 0.05 to 2.5 µm in
// 2 nm steps (1,226 signals), 128 frames of 80 nm, NA 0.2, one Gaussian source; one thread.
// Reported: signals per second, and in the same run the ratio to the machine's own limit for the
// dominant arithmetic: ratio_to_gemm is the time Eigen takes for a real matrix product of the
// sizes the generator's fast path multiplies (2 × valid bins × 2 × nodes × signals) divided by the
// generation's time (1 would mean the generation costs no more than that product alone).
#include <benchmark/benchmark.h>

#include <chrono>

#include <Eigen/Core>

#include "SwliMba/LibDef/LibraryJson.h"
#include "SwliMba/LibGen/LgIntegrationGrid.h"
#include "SwliMba/LibGen/LibraryGenerator.h"

namespace {

using namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba;

const char* const kExample =
    R"({"materials": {"SiO2": {"model": "Complex-Cauchy/um", "parameters": [1.4485, 0.00354, 0, 0, 0, 0]}},
 "ambient": "Air", "layers": [{"material": "SiO2", "thickness_um": 1.0}], "substrate": "Si",
 "source": [{"amplitude": 1.0, "centre_rad_per_um": 10.47, "width_rad_per_um": 1.2}], "source_cutoff": 0.02,
 "numerical_aperture": 0.2,
 "vary": [{"layer": 0, "kind": "Thickness", "from_um": 0.05, "to_um": 2.5, "step_um": 0.002}]})";

void BM_GenerateExampleLibrary(benchmark::State& state) {
  LibGen::LibraryGenerator generator;
  int signals = 0, nodes = 0, bins = 0;
  double seconds = 0.0;
  for (auto _ : state) {
    LibDef::Library library;
    LibDef::LibraryJson reader;
    reader.Read(kExample, library);
    library.GetSpecifications().SetNumberOfSamples(128);
    library.GetSpecifications().GetRampSlope().SetValue(80.0);
    const auto start = std::chrono::steady_clock::now();
    if (!generator.Generate(library)) state.SkipWithError(generator.GetStatus().GetMessage().c_str());
    const auto stop = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(stop - start).count());
    seconds += std::chrono::duration<double>(stop - start).count();
    signals = library.GetSpectra().GetNumberOfSpectra();
    nodes = generator.GetIntegrationGrid().NumberOfNodes();
    bins = library.GetSpectra().GetLastBinValid() - library.GetSpectra().GetFirstBinValid() + 1;
  }
  seconds /= static_cast<double>(state.iterations());

  // The same product on its own, Eigen, one thread.
  Eigen::MatrixXd a = Eigen::MatrixXd::Random(2 * bins, 2 * nodes);
  Eigen::MatrixXd b = Eigen::MatrixXd::Random(2 * nodes, signals);
  Eigen::MatrixXd c(2 * bins, signals);
  double gemm = 1e30;
  for (int repeat = 0; repeat < 5; ++repeat) {
    const auto start = std::chrono::steady_clock::now();
    c.noalias() = a * b;
    benchmark::DoNotOptimize(c.data());
    gemm = std::min(gemm, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  state.counters["signals"] = signals;
  state.counters["nodes"] = nodes;
  state.counters["signals_per_s"] = signals / seconds;
  state.counters["ratio_to_gemm"] = gemm / seconds;
}
BENCHMARK(BM_GenerateExampleLibrary)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

// The gain estimate on a 2048 x 2048, 8-bit stack: the 7-sample estimate on 7 frames and the
// sinusoidal one on 20 frames. Megapixels per second and the effective bandwidth (frame bytes read
// per second) as a ratio of memcpy's bandwidth over the same number of bytes with as many threads,
// measured in the same run. Arguments: frames (7 or 20), threads (0 = the calling thread only).
#include "Analysis/Core/Threading/CpuCounter.h"
#include "Psi/GainCorrectionCalculator.h"
#include "Psi/GainCorrectionPmi.h"
#include "Psi/GainCorrectionSinPsi.h"
#include "Psi/detail/PixelCheckBenchmark.h"

namespace {

using namespace Quarn::Metrology::Analysis::Core;
using namespace Quarn::Metrology::PhaseProcessing::Core::Psi;

std::vector<double> Shifts(int frames) {
  return frames == 7 ? Quarn::Testing::ShiftsFor7(0.03) : Quarn::Testing::ShiftsFor20(0.03);
}

void BM_GainCorrectionCalculator(benchmark::State& state) {
  const int frameCount = static_cast<int>(state.range(0));
  const int threads = static_cast<int>(state.range(1));
  FrameBuffer& frames = detail::CheckBenchmarkStack(frameCount, 12, Shifts);
  GainCorrectionPmi pmi;
  GainCorrectionSinPsi sinPsi;
  GainCorrectionCalculator calculator;
  calculator.SetAlgorithm(frameCount == 7 ? static_cast<GainCorrection*>(&pmi) : &sinPsi);
  calculator.SetAllowMultipleThreads(threads > 0);
  if (threads > 0) calculator.SetNumberOfThreads(threads);
  calculator.Calculate(frames);  // warm the pool

  const double bytes =
      static_cast<double>(detail::kCheckBenchmarkSize) * detail::kCheckBenchmarkSize * frameCount;
  detail::ReportCheckRate(state, bytes, threads > 0 ? calculator.GetNumberOfThreads() : 1, [&] {
    calculator.Calculate(frames);
    benchmark::DoNotOptimize(calculator.GetGainCorrection());
  });
}

const int kAllThreads = Threading::CpuCounter::Instance().GetNumberOfProcessors();
BENCHMARK(BM_GainCorrectionCalculator)
    ->ArgNames({"frames", "threads"})
    ->Args({7, 0})
    ->Args({7, kAllThreads})
    ->Args({20, 0})
    ->Args({20, kAllThreads})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

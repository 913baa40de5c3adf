// The Corvane check on a 2048 x 2048, 8-bit stack (7 or 13 frames): megapixels per second and the
// effective bandwidth (frame bytes read + map bytes written per second) as a ratio of memcpy's
// bandwidth over the same number of bytes with as many threads, measured in the same run.
// Arguments: frames (7 or 13), threads (0 = the calling thread only), scan period.
#include "Analysis/Core/Threading/CpuCounter.h"
#include "Psi/Corvane13.h"
#include "Psi/Corvane7.h"
#include "Psi/CorvaneCalculator.h"
#include "Psi/detail/PixelCheckBenchmark.h"

namespace {

using namespace Quarn::Metrology::Analysis::Core;
using namespace Quarn::Metrology::PhaseProcessing::Core::Psi;

std::vector<double> Shifts(int frames) {
  return frames == 7 ? Quarn::Testing::ShiftsFor7(0.03) : Quarn::Testing::ShiftsFor13(0.03);
}

void BM_CorvaneCalculator(benchmark::State& state) {
  const int frameCount = static_cast<int>(state.range(0));
  const int threads = static_cast<int>(state.range(1));
  const int period = static_cast<int>(state.range(2));
  FrameBuffer& frames = detail::CheckBenchmarkStack(frameCount, 11, Shifts);
  Corvane7 seven;
  Corvane13 thirteen;
  CorvaneCalculator calculator;
  calculator.SetAlgorithm(frameCount == 7 ? static_cast<CorvaneAlgorithm*>(&seven) : &thirteen);
  calculator.SetAllowMultipleThreads(threads > 0);
  if (threads > 0) calculator.SetNumberOfThreads(threads);
  calculator.SetScanPeriod(period);
  DoubleMatrix2D steps(detail::kCheckBenchmarkSize, detail::kCheckBenchmarkSize);
  calculator.Calculate(frames, steps);  // warm the map and the pool

  // Every frame byte is touched once (whole cache lines, whatever the stride); the map is written
  // at the visited pixels only. The calculator caps its thread count at the processors: report and
  // compare what really ran.
  const double pixels = static_cast<double>(detail::kCheckBenchmarkSize) * detail::kCheckBenchmarkSize;
  const double bytes = pixels * frameCount + pixels / period * sizeof(double);
  detail::ReportCheckRate(state, bytes, threads > 0 ? calculator.GetNumberOfThreads() : 1, [&] {
    calculator.Calculate(frames, steps);
    benchmark::DoNotOptimize(steps.Data());
  });
}

const int kAllThreads = Threading::CpuCounter::Instance().GetNumberOfProcessors();
BENCHMARK(BM_CorvaneCalculator)
    ->ArgNames({"frames", "threads", "period"})
    ->Args({7, 0, 1})
    ->Args({7, kAllThreads, 1})
    ->Args({13, 0, 1})
    ->Args({13, kAllThreads, 1})
    ->Args({7, kAllThreads, 4})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

#include "Psi/GainCorrectionSinPsi.h"

#include <cmath>
#include <new>

#include "Psi/detail/AlgorithmRun.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

using Analysis::Core::Array;
using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "Psi\\GainCorrectionSinPsi";
constexpr double kNoData = Analysis::Core::kNoDataDouble;
constexpr int kPairs = 10;
// Capacity of a pair-sum array: 512 bytes, so that the pairs of two threads, each at the start of
// its own allocation, never share a cache line.
constexpr int kPairSumCapacity = 64;
}  // namespace

GainCorrectionSinPsi::GainCorrectionSinPsi() : status_(__LINE__, kSource) {}

void GainCorrectionSinPsi::Intialize(int numberOfThreads) {
  if (!detail::AcceptFrameStack(status_, kSource, frameBuffer_,
                                [](int frames) { return frames >= kFramesUsed; }))
    return;
  framesUsed_ = kFramesUsed;
  if (!detail::PrepareThreadRecords(status_, accumulators_, numberOfThreads, "accumulators.Resize",
                                    [](SinPsiThreadAccumulator& accumulator) {
                                      accumulator.count = 0;
                                      accumulator.sum = 0.0;
                                    }))
    return;
  // Each record keeps its pair-sum array from run to run.
  for (SinPsiThreadAccumulator& accumulator : accumulators_) {
    if (!accumulator.pairSums) {
      accumulator.pairSums.reset(new (std::nothrow) Array<std::int64_t>());
      if (!accumulator.pairSums) {
        status_ =
            Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "Allocation of pair sums failed");
        return;
      }
    }
    Array<std::int64_t>& pairs = *accumulator.pairSums;
    if (!pairs.Reserve(kPairSumCapacity) || !pairs.Resize(kPairs)) {
      status_ = pairs.GetStatus();
      return;
    }
  }
  saturationLevel_ = frameBuffer_->GetMaxValue();
  modulationThreshold_ = converter_.GetModulationScale() * minimumModulation_ * saturationLevel_ / 100.0;
  phaseExcursion_ = converter_.GetPhaseExcursion();
}

template <typename Sample>
void GainCorrectionSinPsi::Process(int thread, const Sample* I) {
  for (int k = 0; k < kFramesUsed; ++k) {
    if (static_cast<int>(I[k]) >= saturationLevel_) return;
  }
  SinPsiThreadAccumulator& accumulator = accumulators_[thread];
  std::int64_t* S = accumulator.pairSums->Data();
  for (int k = 0; k < kPairs; ++k)
    S[k] = static_cast<std::int64_t>(I[k]) + I[kFramesUsed - 1 - k];

  double N = 0.0, D = 0.0;
  converter_.Convert(N, D, I);
  const double phi = std::atan2(N, D);
  const double M = std::sqrt(N * N + D * D);
  if (!(M > modulationThreshold_)) return;
  const auto d = [](std::int64_t v) { return static_cast<double>(v); };
  const double qc = 0.0247 * d(S[1] + S[8]) + 0.1779 * d(S[0] + S[9]) - 0.1054 * d(S[2] + S[7]) -
                    0.0898 * d(S[3] + S[6]) - 0.0074 * d(S[4] + S[5]);
  const double qs = 0.1475 * d(S[1] - S[8]) + 0.0596 * d(S[9] - S[0]) + 0.1885 * d(S[2] - S[7]) +
                    0.0185 * d(S[3] - S[6]) - 0.041 * d(S[4] - S[5]);
  accumulator.count += 1;
  // The + 1 keeps the weight finite for the weakest pixels that pass the threshold.
  accumulator.sum += (std::cos(phi) * qc + std::sin(phi) * qs) / (M + 1.0);
}

void GainCorrectionSinPsi::ProcessPixel(int thread, const int* samples) {
  Process(thread, samples);
}

void GainCorrectionSinPsi::ProcessPixel(int thread, const unsigned char* samples) {
  Process(thread, samples);
}

std::int64_t GainCorrectionSinPsi::GetContributingPixelCount() const {
  return detail::SumOverThreads(accumulators_, &SinPsiThreadAccumulator::count);
}

void GainCorrectionSinPsi::PostProcess() {
  const std::int64_t count = GetContributingPixelCount();
  const double sum = detail::SumOverThreads(accumulators_, &SinPsiThreadAccumulator::sum);
  if (count == 0) {
    gainCorrection_ = kNoData;
    status_ = Status(0, StatusCode::kNoValidResult, __LINE__, kSource, "");
    return;
  }
  gainCorrection_ = -((sum / static_cast<double>(count)) / phaseExcursion_);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

#include "Psi/GainCorrectionPmi.h"

#include "Psi/detail/AlgorithmRun.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "Psi\\GainCorrectionPmi";
constexpr double kNoData = Analysis::Core::kNoDataDouble;

std::int64_t Abs(std::int64_t v) {
  return v < 0 ? -v : v;
}
}  // namespace

GainCorrectionPmi::GainCorrectionPmi() : status_(__LINE__, kSource) {}

bool GainCorrectionPmi::PixelIntensityInRange(int max, int a, int b, int c, int d, int e, int f, int g) {
  return a < max && b < max && c < max && d < max && e < max && f < max && g < max;
}

void GainCorrectionPmi::Intialize(int numberOfThreads) {
  if (!detail::AcceptFrameStack(status_, kSource, frameBuffer_,
                                [](int frames) { return frames == 7 || frames == 13; }))
    return;
  if (!detail::PrepareThreadRecords(status_, accumulators_, numberOfThreads, "accumulators.Resize",
                                    [](PmiThreadAccumulator& accumulator) { accumulator = {}; }))
    return;
  numberOfFrames_ = frameBuffer_->GetNumberOfFrames();
  saturationLevel_ = frameBuffer_->GetMaxValue();
  modulationThreshold_ = saturationLevel_ * minimumModulation_ / 100.0;
}

template <typename Sample>
void GainCorrectionPmi::Process(int thread, const Sample* I) {
  // Seven samples a quarter period apart: a 13-frame stack steps by an eighth of a period.
  const int stride = numberOfFrames_ < 13 ? 1 : 2;
  int J[7];
  for (int k = 0; k < 7; ++k)
    J[k] = static_cast<int>(I[stride * k]);
  if (!PixelIntensityInRange(saturationLevel_, J[0], J[1], J[2], J[3], J[4], J[5], J[6])) return;
  if (static_cast<std::int64_t>(J[0]) + J[1] + J[2] + J[3] < MinimumAmplitude) return;
  const std::int64_t modulation = Abs(std::int64_t{J[0]} - J[2]) + Abs(std::int64_t{J[1]} - J[3]);
  if (!(static_cast<double>(modulation) > modulationThreshold_)) return;

  const std::int64_t a = std::int64_t{J[2]} - J[4];
  const std::int64_t c = std::int64_t{J[1]} - 2 * std::int64_t{J[3]} + J[5];
  std::int64_t numerator = 0, denominator = 0;
  if (Abs(2 * c) < Abs(4 * a)) {
    numerator = std::int64_t{J[1]} - J[5];
    denominator = 2 * a;
  } else {
    numerator = std::int64_t{J[0]} - J[2] - J[4] + J[6];
    denominator = 2 * c;
  }
  if (denominator == 0) return;
  const std::int64_t r = numerator * 256 / denominator;  // truncating, as the result is defined
  if (r < -256 || r > 256) return;
  PmiThreadAccumulator& accumulator = accumulators_[thread];
  accumulator.stepSum += r;
  accumulator.count += 1;
}

void GainCorrectionPmi::ProcessPixel(int thread, const int* samples) {
  Process(thread, samples);
}

void GainCorrectionPmi::ProcessPixel(int thread, const unsigned char* samples) {
  Process(thread, samples);
}

std::int64_t GainCorrectionPmi::GetContributingPixelCount() const {
  return detail::SumOverThreads(accumulators_, &PmiThreadAccumulator::count);
}

void GainCorrectionPmi::PostProcess() {
  const std::int64_t sum = detail::SumOverThreads(accumulators_, &PmiThreadAccumulator::stepSum);
  const std::int64_t count = GetContributingPixelCount();
  if (count == 0) {
    gainCorrection_ = kNoData;
    status_ = Status(0, StatusCode::kNoValidResult, __LINE__, kSource, "");
    return;
  }
  // The mean is an integer division on purpose: the result is defined on the truncated mean.
  gainCorrection_ = static_cast<double>(sum / count) / 316.0;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

#include "Psi/Corvane7.h"

#include <string>

#include "Psi/detail/CorvaneStep.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "Psi\\Corvane7";
constexpr double kNoData = Analysis::Core::kNoDataDouble;
}  // namespace

Corvane7::Corvane7() : status_(__LINE__, kSource) {}

void Corvane7::Intialize(int numberOfThreads) {
  // The status describes the current run; a failure of an earlier run must not stop this one.
  status_.ClearError();
  outData_ = nullptr;
  if (!frameBuffer_) {
    status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "");
    return;
  }
  if (frameBuffer_->GetNumberOfFrames() != kFrames) {
    status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "");
    return;
  }
  if (frameBuffer_->IsRing()) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                     "Phase-shifted frames must all be stored (not a ring)");
    return;
  }
  if (!out_) {
    status_ =
        Status(0, StatusCode::kNotSet, __LINE__, kSource, "No output map has been set (SetCorvaneMatrix)");
    return;
  }
  if (out_->GetCount() < frameBuffer_->GetPixelCount()) {
    status_ =
        Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
               "The output map holds " + std::to_string(out_->GetCount()) + " elements, the frame window " +
                   std::to_string(frameBuffer_->GetPixelCount()) + " pixels");
    return;
  }
  const int threads = numberOfThreads < 1 ? 1 : numberOfThreads;
  if (!counters_.Resize(threads)) {
    RecordCallFailure(status_, counters_.GetStatus(), "counters.Resize", __LINE__);
    return;
  }
  for (CorvaneThreadCounter& counter : counters_)
    counter.validPixels = 0;
  numberOfFrames_ = frameBuffer_->GetNumberOfFrames();
  saturationLevel_ = frameBuffer_->GetMaxValue();
  modulationThreshold_ = saturationLevel_ * minimumModulation_ / 100.0;
  outData_ = out_->GetInternalMat().Data();
}

template <typename Sample>
void Corvane7::Process(int thread, int pixel, const Sample* I) {
  for (int k = 0; k < kFrames; ++k) {
    if (static_cast<int>(I[k]) >= saturationLevel_) {
      outData_[pixel] = kNoData;
      return;
    }
  }
  double value = 0.0;
  if (!detail::CorvaneStepValue(I[0], I[1], I[2], I[3], I[4], modulationThreshold_, value)) {
    outData_[pixel] = kNoData;
    return;
  }
  outData_[pixel] = value;
  ++counters_[thread].validPixels;
}

void Corvane7::ProcessPixel(int thread, int pixel, const int* samples) {
  Process(thread, pixel, samples);
}

void Corvane7::ProcessPixel(int thread, int pixel, const unsigned char* samples) {
  Process(thread, pixel, samples);
}

std::int64_t Corvane7::GetValidPixelCount() const {
  std::int64_t total = 0;
  for (const CorvaneThreadCounter& counter : counters_)
    total += counter.validPixels;
  return total;
}

void Corvane7::PostProcess() {
  if (GetValidPixelCount() == 0) status_ = Status(0, StatusCode::kNoValidResult, __LINE__, kSource, "");
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

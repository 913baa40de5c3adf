#include <string>

#include "Psi/CorvaneAlgorithm.h"
#include "Psi/detail/AlgorithmRun.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

CorvaneRatioAlgorithm::CorvaneRatioAlgorithm(const char* source, int frames)
    : status_(__LINE__, source), source_(source), acceptedFrames_(frames) {}

void CorvaneRatioAlgorithm::Intialize(int numberOfThreads) {
  outData_ = nullptr;
  if (!AcceptFrameStack(status_, source_, frameBuffer_,
                        [this](int frames) { return frames == acceptedFrames_; }))
    return;
  if (!out_) {
    status_ =
        Status(0, StatusCode::kNotSet, __LINE__, source_, "No output map has been set (SetCorvaneMatrix)");
    return;
  }
  if (out_->GetCount() < frameBuffer_->GetPixelCount()) {
    status_ =
        Status(0, StatusCode::kArgumentOutOfRange, __LINE__, source_,
               "The output map holds " + std::to_string(out_->GetCount()) + " elements, the frame window " +
                   std::to_string(frameBuffer_->GetPixelCount()) + " pixels");
    return;
  }
  if (!PrepareThreadRecords(status_, counters_, numberOfThreads, "counters.Resize",
                            [](CorvaneThreadCounter& counter) { counter.validPixels = 0; }))
    return;
  numberOfFrames_ = frameBuffer_->GetNumberOfFrames();
  saturationLevel_ = frameBuffer_->GetMaxValue();
  modulationThreshold_ = saturationLevel_ * minimumModulation_ / 100.0;
  outData_ = out_->GetInternalMat().Data();
}

std::int64_t CorvaneRatioAlgorithm::GetValidPixelCount() const {
  return SumOverThreads(counters_, &CorvaneThreadCounter::validPixels);
}

void CorvaneRatioAlgorithm::PostProcess() {
  if (GetValidPixelCount() == 0) status_ = Status(0, StatusCode::kNoValidResult, __LINE__, source_, "");
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail

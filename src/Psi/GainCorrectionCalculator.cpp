#include "Psi/GainCorrectionCalculator.h"

#include "Analysis/Core/NoData.h"
#include "Psi/GainCorrectionPmi.h"
#include "Psi/GainCorrectionSinPsi.h"
#include "Psi/detail/PixelCheckRun.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

using Analysis::Core::FrameBuffer;
using Analysis::Core::RegionIdMatrix2D;

GainCorrectionCalculator::GainCorrectionCalculator() = default;
GainCorrectionCalculator::GainCorrectionCalculator(const GainCorrectionCalculator& other) = default;
GainCorrectionCalculator& GainCorrectionCalculator::operator=(const GainCorrectionCalculator& other) =
    default;
GainCorrectionCalculator::~GainCorrectionCalculator() = default;

void GainCorrectionCalculator::Calculate(FrameBuffer& frames) {
  Calculate(frames, nullptr);
}

void GainCorrectionCalculator::Calculate(FrameBuffer& frames, RegionIdMatrix2D* regions) {
  // A run that fails must not leave the number of an earlier run behind.
  gainCorrection_ = Analysis::Core::kNoDataDouble;
  const bool postProcessed = Run(frames, regions, &GainCorrectionCalculator::ProcessPixels, [&](int workers) {
    algorithm_->SetFrameBuffer(&frames);
    algorithm_->SetMinimumModulation(minimumModulation_);
    algorithm_->Intialize(workers);
  });
  if (postProcessed) gainCorrection_ = algorithm_->GetGainCorrection();
}

void GainCorrectionCalculator::ProcessPixels(void* walk, int thread, int first, int end) {
  detail::VisitPixels<GainCorrectionPmi, GainCorrectionSinPsi>(
      *algorithm_, *static_cast<const detail::PixelWalk*>(walk), *frameBuffer_, thread, first, end,
      [&](auto& algorithm, int, const auto* samples) { algorithm.ProcessPixel(thread, samples); });
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

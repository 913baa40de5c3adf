#include "Psi/CorvaneCalculator.h"

#include "Psi/Corvane13.h"
#include "Psi/Corvane7.h"
#include "Psi/detail/PixelCheckRun.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::FrameBuffer;
using Analysis::Core::RegionIdMatrix2D;

CorvaneCalculator::CorvaneCalculator() = default;
CorvaneCalculator::CorvaneCalculator(const CorvaneCalculator& other) = default;
CorvaneCalculator& CorvaneCalculator::operator=(const CorvaneCalculator& other) = default;
CorvaneCalculator::~CorvaneCalculator() = default;

void CorvaneCalculator::Calculate(FrameBuffer& frames, DoubleMatrix2D& out) {
  Calculate(frames, nullptr, out);
}

void CorvaneCalculator::Calculate(FrameBuffer& frames, RegionIdMatrix2D* regions, DoubleMatrix2D& out) {
  Run(frames, regions, &CorvaneCalculator::ProcessPixels, [&](int workers) {
    algorithm_->SetFrameBuffer(&frames);
    algorithm_->SetCorvaneMatrix(&out);
    algorithm_->SetMinimumModulation(minimumModulation_);
    algorithm_->Intialize(workers);
  });
}

void CorvaneCalculator::ProcessPixels(void* walk, int thread, int first, int end) {
  detail::VisitPixels<Corvane7, Corvane13>(
      *algorithm_, *static_cast<const detail::PixelWalk*>(walk), *frameBuffer_, thread, first, end,
      [&](auto& algorithm, int p, const auto* samples) { algorithm.ProcessPixel(thread, p, samples); });
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

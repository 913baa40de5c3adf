#include "Swli/PhaseAlgorithmNone.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

namespace {
constexpr const char* kSource = "Swli\\PhaseAlgorithmNone";
}

PhaseAlgorithmNone::PhaseAlgorithmNone() : PhaseAlgorithm(__LINE__, kSource) {}

PhaseAlgorithmNone::~PhaseAlgorithmNone() = default;

void PhaseAlgorithmNone::Initialize(int pass, int numberFrames, int qSize,
                                    const Analysis::Core::Window2D& window) {
  PhaseAlgorithm::Initialize(pass, numberFrames, qSize, window);
}

int PhaseAlgorithmNone::ProcessPixel(int thread, int pixel, int peakFrame, int) {
  surface_->At(pixel) = peakFrame * scanIncrementValue_;
  return RemoveFringes(thread, pixel, peakFrame);
}

void PhaseAlgorithmNone::PostProcess() {}

bool PhaseAlgorithmNone::NeedDiscriminator() const {
  return removeFringes_ != FringeRemovalMethod::kNone;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

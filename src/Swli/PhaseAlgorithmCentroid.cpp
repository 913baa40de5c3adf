#include "Swli/PhaseAlgorithmCentroid.h"

#include <cmath>

#include "Analysis/Core/DebugChannel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

namespace {
constexpr const char* kSource = "Swli\\PhaseAlgorithmCentroid";
}

PhaseAlgorithmCentroid::PhaseAlgorithmCentroid() : PhaseAlgorithm(__LINE__, kSource) {}

PhaseAlgorithmCentroid::~PhaseAlgorithmCentroid() = default;

void PhaseAlgorithmCentroid::Initialize(int pass, int numberFrames, int qSize,
                                        const Analysis::Core::Window2D& window) {
  PhaseAlgorithm::Initialize(pass, numberFrames, qSize, window);
  modulationThreshold_ = minimumModulation_ * 2.0 * maxScanValue_ / 100.0;
}

int PhaseAlgorithmCentroid::ProcessPixel(int thread, int pixel, int peakFrame, int) {
  const double* d = SignalOf(thread);
  const int q = signalSize_;
  const int h = halfSignalSize_;
  const int frames = numberFrames_;
  if (!d || q < 5 || peakFrame < h || peakFrame >= frames - h) return RemoveFringes(thread, pixel, peakFrame);

  // A window cut around the peak has the peak at its centre; a whole-scan signal has it where it is.
  const bool windowed = frames != q;
  const int c = windowed ? h : peakFrame;
  const double m = std::abs((d[c] - d[c - 2]) + (d[c] - d[c + 2])) + std::abs(2.0 * (d[c - 1] - d[c + 1]));
  if (modulationThreshold_ <= m) {
    double mean = 0.0;
    for (int k = 0; k < q; ++k)
      mean += d[k];
    mean /= q;
    double sum = 0.0, moment = 0.0;
    for (int k = 1; k <= q; ++k) {
      const double weight = std::abs(d[k - 1] - mean);
      sum += weight;
      moment += k * weight;
    }
    if (sum > 0.0) {
      double position = moment / sum + 1.0;
      if (windowed) position += peakFrame - h - 1;
      surface_->At(pixel) = position * scanIncrementValue_;
      if (IsDebuging(thread)) {
        Analysis::Core::debug_printf(
            "Centroid pixel %d: peak %d, modulation %g, position %g frames, height %g nm\n", pixel, peakFrame,
            m, position, position * scanIncrementValue_);
      }
    }
  } else if (IsDebuging(thread)) {
    Analysis::Core::debug_printf("Centroid pixel %d: peak %d, modulation %g below %g\n", pixel, peakFrame, m,
                                 modulationThreshold_);
  }
  return RemoveFringes(thread, pixel, peakFrame);
}

void PhaseAlgorithmCentroid::PostProcess() {}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

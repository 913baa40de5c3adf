#include "Swli/PhaseAlgorithmHigh2G.h"

#include <algorithm>
#include <cmath>

#include "Analysis/Core/NoData.h"
#include "Swli/detail/Rounding.h"
#include "Swli/detail/VectorSinCos.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::Window2D;

namespace {
constexpr const char* kSource = "Swli\\PhaseAlgorithmHigh2G";
// The vector sine and cosine of this processor, chosen once.
const detail::VectorSinCosFunction kVectorSinCos = detail::SelectVectorSinCos();
}  // namespace

PhaseAlgorithmHigh2G::PhaseAlgorithmHigh2G(unsigned line, const char* source)
    : PhaseAlgorithm(line, source) {}

PhaseAlgorithmHigh2G::~PhaseAlgorithmHigh2G() = default;

void PhaseAlgorithmHigh2G::Initialize(int pass, int numberFrames, int qSize, const Window2D& window) {
  PhaseAlgorithm::Initialize(pass, numberFrames, qSize, window);
  if (status_.IsError()) return;
  validCount_ = 0;
  if (!coherence_.Resize(window)) {
    Analysis::Core::RecordCallFailure(status_, coherence_.GetStatus(), "coherence.Resize", kSource, __LINE__);
    return;
  }
  if (!phase_.Resize(window)) {
    Analysis::Core::RecordCallFailure(status_, phase_.GetStatus(), "phase.Resize", kSource, __LINE__);
    return;
  }
  coherence_.SetAll(DoubleMatrix2D::NoData());
  phase_.SetAll(DoubleMatrix2D::NoData());
}

void PhaseAlgorithmHigh2G::InitializeThread(int numberThreads) {
  PhaseAlgorithm::InitializeThread(numberThreads);
  threadStates_.clear();
  threadStates_.resize(static_cast<std::size_t>(std::max(numberThreads, 0)));
  for (ThreadState& state : threadStates_) {
    if (!state.transform.Resize(signalSize_)) {
      Analysis::Core::RecordCallFailure(status_, state.transform.GetStatus(), "transform.Resize", kSource,
                                        __LINE__);
      return;
    }
  }
}

void PhaseAlgorithmHigh2G::FinalizeThread() {
  threadStates_.clear();
  PhaseAlgorithm::FinalizeThread();
}

double PhaseAlgorithmHigh2G::GetAverageK0() const {
  return 0.0;
}
double PhaseAlgorithmHigh2G::GetWaveLength() const {
  return 0.0;
}
int PhaseAlgorithmHigh2G::GetValidCount() const {
  return validCount_;
}
double PhaseAlgorithmHigh2G::GetAverageGap() const {
  return averageGap_;
}

double PhaseAlgorithmHigh2G::FringeOrderAnalysis(const FringeOrderParameters& parameters, double twoPi,
                                                 double pi, const DoubleMatrix2D& coherence,
                                                 const DoubleMatrix2D& phase, DoubleMatrix2D& surface,
                                                 double wavelength, bool fastPath) {
  const std::int64_t count = std::min({coherence.GetCount(), phase.GetCount(), surface.GetCount()});
  const auto both = [&](std::int64_t i) {
    return DoubleMatrix2D::IsDataValid(coherence.At(i)) && DoubleMatrix2D::IsDataValid(phase.At(i));
  };
  if (!(wavelength > 0.0) || !std::isfinite(wavelength)) {
    // Without a wavelength there are no orders to choose: the phase heights stand as they are.
    for (std::int64_t i = 0; i < count; ++i) {
      if (both(i)) surface.At(i) = phase.At(i);
    }
    return 0.0;
  }

  // The gap is a phase: averaged on the circle (in pixel order, so the result does not depend on
  // how the pixels were shared among threads).
  double gap = 0.0;
  if (parameters.removeAverageGap) {
    double sumSin = 0.0, sumCos = 0.0;
    std::int64_t pixels = 0;
    const auto angleAt = [&](std::int64_t i) { return twoPi * (phase.At(i) - coherence.At(i)) / wavelength; };
    if (fastPath) {
      // The angles of a run of pixels at once, then their sines and cosines summed in pixel order.
      constexpr int kRun = 256;
      double angles[kRun], sines[kRun], cosines[kRun];
      int filled = 0;
      const auto sumRun = [&] {
        const int padded = (filled + 3) / 4 * 4;
        for (int k = filled; k < padded; ++k)
          angles[k] = 0.0;
        kVectorSinCos(angles, sines, cosines, padded);
        for (int k = 0; k < filled; ++k) {
          sumSin += sines[k];
          sumCos += cosines[k];
        }
        filled = 0;
      };
      for (std::int64_t i = 0; i < count; ++i) {
        if (!both(i)) continue;
        angles[filled++] = angleAt(i);
        ++pixels;
        if (filled == kRun) sumRun();
      }
      sumRun();
    } else {
      for (std::int64_t i = 0; i < count; ++i) {
        if (!both(i)) continue;
        const double angle = angleAt(i);
        sumSin += std::sin(angle);
        sumCos += std::cos(angle);
        ++pixels;
      }
    }
    if (pixels >= std::max(parameters.minimumPixelsForGap, 1) && (sumSin != 0.0 || sumCos != 0.0)) {
      double angle = std::atan2(sumSin, sumCos);
      if (angle <= -pi) angle += twoPi;  // the half-open range (-lambda/2, lambda/2]
      gap = angle / twoPi * wavelength;
    }
  }

  const double limit = parameters.maximumResidualFraction * wavelength;
  for (std::int64_t i = 0; i < count; ++i) {
    if (!both(i)) continue;
    const double offset = phase.At(i) - coherence.At(i) - gap;
    const double order = detail::RoundHalfAway(offset / wavelength);
    const double residual = offset - order * wavelength;
    surface.At(i) = std::abs(residual) > limit ? DoubleMatrix2D::NoData() : phase.At(i) - order * wavelength;
  }
  return gap;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

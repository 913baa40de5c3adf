#include "Swli/PhaseAlgorithmHigh2G.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "Analysis/Core/NoData.h"
#include "Swli/detail/FringeOrders.h"
#include "Swli/detail/VectorSinCos.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::Window2D;

namespace {
constexpr const char* kSource = "Swli\\PhaseAlgorithmHigh2G";
// The vector sine and cosine of this processor, chosen once.
const detail::VectorSinCosFunction kVectorSinCos = detail::SelectVectorSinCos();
const detail::ChooseFringeOrdersFunction kChooseFringeOrders = detail::SelectChooseFringeOrders();

// Pixels per run of the gap's sums.
constexpr std::int64_t kGapRun = 4096;
// Within a run, pixel i adds to partial sum (i - first) % kGapLanes, and the partial sums are joined
// pairwise at the run's end: four short chains of additions instead of one long one, which a vector
// unit runs side by side and which round less than a single running sum.
constexpr int kGapLanes = 4;
struct GapSums {
  double sine = 0.0;
  double cosine = 0.0;
  std::int64_t pixels = 0;
};
struct GapPartials {
  double sine[kGapLanes] = {};
  double cosine[kGapLanes] = {};
  std::int64_t pixels = 0;
  GapSums Joined() const {
    return GapSums{(sine[0] + sine[1]) + (sine[2] + sine[3]),
                   (cosine[0] + cosine[1]) + (cosine[2] + cosine[3]), pixels};
  }
};

// The angle 2 pi (phase - coherence) / lambda of a pixel's two heights, where both are there.
struct GapAngles {
  const double* coherence;
  const double* phase;
  double twoPi;
  double wavelength;
  bool Both(std::int64_t i) const {
    return DoubleMatrix2D::IsDataValid(coherence[i]) && DoubleMatrix2D::IsDataValid(phase[i]);
  }
  double At(std::int64_t i) const { return twoPi * (phase[i] - coherence[i]) / wavelength; }
};

// One run's sums with libm, one pixel at a time (the reference).
GapSums SumGapRun(const GapAngles& angles, std::int64_t first, std::int64_t end) {
  GapPartials partials;
  for (std::int64_t i = first; i < end; ++i) {
    if (!angles.Both(i)) continue;
    const double angle = angles.At(i);
    const std::int64_t lane = (i - first) % kGapLanes;
    partials.sine[lane] += std::sin(angle);
    partials.cosine[lane] += std::cos(angle);
    ++partials.pixels;
  }
  return partials.Joined();
}

// The same sums with the angles of 256 pixels at once and their sines and cosines from the vector
// kernels, over the same pixels into the same partial sums. A pixel without both heights adds +0
// instead of nothing: a partial sum starts at +0 and additions never make it -0, so x + 0 is x
// exactly and the loops need no branch.
GapSums SumGapRunVectors(const GapAngles& angles, std::int64_t first, std::int64_t end) {
  constexpr int kBatch = 256;
  static_assert(kBatch % kGapLanes == 0);
  double angle[kBatch], sine[kBatch], cosine[kBatch];
  bool counted[kBatch];
  GapPartials partials;
  for (std::int64_t batch = first; batch < end; batch += kBatch) {
    const int n = static_cast<int>(std::min<std::int64_t>(kBatch, end - batch));
    for (int k = 0; k < n; ++k)
      angle[k] = angles.At(batch + k);
    for (int k = 0; k < n; ++k)
      counted[k] = angles.Both(batch + k);
    const int padded = (n + kGapLanes - 1) / kGapLanes * kGapLanes;
    for (int k = n; k < padded; ++k) {
      angle[k] = 0.0;
      counted[k] = false;
    }
    kVectorSinCos(angle, sine, cosine, padded);
    for (int k = 0; k < padded; k += kGapLanes) {
      for (int lane = 0; lane < kGapLanes; ++lane) {
        partials.sine[lane] += counted[k + lane] ? sine[k + lane] : 0.0;
        partials.cosine[lane] += counted[k + lane] ? cosine[k + lane] : 0.0;
      }
    }
    for (int k = 0; k < n; ++k)
      partials.pixels += counted[k];
  }
  return partials.Joined();
}
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
                                                 double wavelength, bool fastPath,
                                                 const RangeRunner& runner) {
  const std::int64_t count = std::min({coherence.GetCount(), phase.GetCount(), surface.GetCount()});
  const auto both = [&](std::int64_t i) {
    return DoubleMatrix2D::IsDataValid(coherence.At(i)) && DoubleMatrix2D::IsDataValid(phase.At(i));
  };
  if (!(wavelength > 0.0) || !std::isfinite(wavelength)) {
    // Without a wavelength there are no orders to choose: the phase heights stand as they are.
    RunRanges(runner, count, [&](std::int64_t first, std::int64_t end) {
      for (std::int64_t i = first; i < end; ++i) {
        if (both(i)) surface.At(i) = phase.At(i);
      }
    });
    return 0.0;
  }

  // The gap is a phase: averaged on the circle. Its sines and cosines are summed within fixed runs
  // of pixels (each run in the same partial sums on both paths) and the runs' sums added in order,
  // the same grouping however the runs were shared among threads, so the gap does not depend on the
  // threads.
  double gap = 0.0;
  if (parameters.removeAverageGap) {
    const GapAngles angles{coherence.Data(), phase.Data(), twoPi, wavelength};
    std::vector<GapSums> runs(static_cast<std::size_t>((count + kGapRun - 1) / kGapRun));
    RunRanges(runner, static_cast<std::int64_t>(runs.size()),
              [&](std::int64_t firstRun, std::int64_t endRun) {
                for (std::int64_t run = firstRun; run < endRun; ++run) {
                  const std::int64_t first = run * kGapRun;
                  const std::int64_t end = std::min(count, first + kGapRun);
                  runs[static_cast<std::size_t>(run)] =
                      fastPath ? SumGapRunVectors(angles, first, end) : SumGapRun(angles, first, end);
                }
              });
    GapSums total;
    for (const GapSums& sums : runs) {
      total.sine += sums.sine;
      total.cosine += sums.cosine;
      total.pixels += sums.pixels;
    }
    if (total.pixels >= std::max(parameters.minimumPixelsForGap, 1) &&
        (total.sine != 0.0 || total.cosine != 0.0)) {
      double angle = std::atan2(total.sine, total.cosine);
      if (angle <= -pi) angle += twoPi;  // the half-open range (-lambda/2, lambda/2]
      gap = angle / twoPi * wavelength;
    }
  }

  detail::FringeOrderStep step;
  step.coherence = coherence.Data();
  step.phase = phase.Data();
  step.surface = surface.Data();
  step.gap = gap;
  step.wavelength = wavelength;
  step.limit = parameters.maximumResidualFraction * wavelength;
  const detail::ChooseFringeOrdersFunction choose =
      fastPath ? kChooseFringeOrders : &detail::ChooseFringeOrders;
  RunRanges(runner, count, [&](std::int64_t first, std::int64_t end) { choose(step, first, end); });
  return gap;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

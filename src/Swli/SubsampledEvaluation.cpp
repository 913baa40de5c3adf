#include "Swli/SubsampledEvaluation.h"

#include <cmath>
#include <cstddef>
#include <memory>
#include <vector>

#include "Analysis/Core/IntMatrix2D.h"
#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/UnitNumber.h"
#include "Swli/CoherenceDiscriminator.h"
#include "Swli/PhaseAlgorithm.h"
#include "Swli/PhaseAlgorithmFda.h"
#include "Swli/PhaseGenerator.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::FrameBuffer;
using Analysis::Core::IntMatrix2D;
using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "Swli\\SubsampledEvaluation";
}

SubsampledEvaluation::SubsampledEvaluation() : status_(__LINE__, kSource) {}

Status& SubsampledEvaluation::Process(FrameBuffer& frames, int factor, double scanStepNm,
                                      PhaseAlgorithm& algorithm, const ScanSampling& sampling, int threads,
                                      DoubleMatrix2D& surface) {
  status_.ClearError();
  subsamplesWithResult_ = 0;
  const int scanned = frames.GetNumberOfFrames();
  if (factor < 1 || frames.IsRing() || !(scanStepNm > 0.0) || scanned < factor) {
    status_ =
        Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
               "Subsampling needs a whole scan, a factor of 1 to the frame count and a scan step above 0");
    return status_;
  }
  const Analysis::Core::Window2D window = frames.GetAllocatedWindow();
  if (!surface.Resize(window)) {
    Analysis::Core::RecordCallFailure(status_, surface.GetStatus(), "surface.Resize", kSource, __LINE__);
    return status_;
  }
  surface.SetAll(DoubleMatrix2D::NoData());
  const std::int64_t pixels = surface.GetCount();
  std::vector<double> sum(static_cast<std::size_t>(pixels), 0.0),
      reference(static_cast<std::size_t>(pixels), 0.0);
  std::vector<int> count(static_cast<std::size_t>(pixels), 0);

  ScanSampling subsampling;
  if (sampling.IsKnown()) subsampling.SetFromPeriod(sampling.GetFringePeriodFrames() / factor);
  auto* fda = dynamic_cast<PhaseAlgorithmFda*>(&algorithm);
  const bool reversed = frames.GetScanDirection() < 0;
  // The subsamples read the scan's frames in place; the scan outlives them.
  const std::shared_ptr<void> lender(static_cast<void*>(&frames), [](void*) {});
  for (int offset = 0; offset < factor; ++offset) {
    const int subFrames = (scanned - offset + factor - 1) / factor;
    std::vector<std::byte*> slots(static_cast<std::size_t>(subFrames));
    for (int k = 0; k < subFrames; ++k)
      slots[static_cast<std::size_t>(k)] = static_cast<std::byte*>(frames.GetFrameData(offset + k * factor));
    FrameBuffer sub;
    if (!sub.AdoptFrames(window, subFrames, frames.GetElementRes(), std::move(slots), lender,
                         frames.GetScanDirection())) {
      status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Call to subsample.AdoptFrames failed");
      return status_;
    }
    sub.SetMaxValue(frames.GetMaxValue());
    IntMatrix2D peaks, auxiliary(window.GetRows(), window.GetCols());
    auxiliary.SetAll(0);
    FindPeakFrames(sub, peaks, threads);
    algorithm.SetScanIncrement(Analysis::Core::UnitNumber(
        factor * scanStepNm, Analysis::Core::LinearConverter(Analysis::Core::Units::kNanometers)));
    if (fda) subsampling.ApplyTo(*fda);
    PhaseGenerator generator(&algorithm);
    generator.SetAllowMultiThreads(threads > 1);
    generator.SetMaxNumThreads(threads);
    DoubleMatrix2D heights(window.GetRows(), window.GetCols());
    heights.SetAll(0.0);
    const Status& run = generator.Process(sub, peaks, auxiliary, heights);
    if (run.GetCode() == StatusCode::kNoValidResult) continue;
    if (Analysis::Core::RecordCallFailure(status_, run, "generator.Process", kSource, __LINE__))
      return status_;
    ++subsamplesWithResult_;
    // Subsample frame k is the scan's frame offset + factor k: at (offset + factor k) x step forward;
    // reversed, at (F - offset - factor k) x step where the subsample puts it at factor (F' - k) x step.
    const double shift = (reversed ? scanned - offset - factor * subFrames : offset) * scanStepNm;
    const double wavelength = fda ? fda->GetWaveLength() : 0.0;
    for (std::int64_t i = 0; i < pixels; ++i) {
      if (!DoubleMatrix2D::IsDataValid(heights.At(i))) continue;
      double h = heights.At(i) + shift;
      const auto p = static_cast<std::size_t>(i);
      if (count[p] == 0) {
        reference[p] = h;
      } else if (wavelength > 0.0) {
        h -= wavelength * std::round((h - reference[p]) / wavelength);
      }
      sum[p] += h;
      ++count[p];
    }
  }
  if (subsamplesWithResult_ == 0) {
    status_ = Status(0, StatusCode::kNoValidResult, __LINE__, kSource, "");
    return status_;
  }
  for (std::int64_t i = 0; i < pixels; ++i) {
    const auto p = static_cast<std::size_t>(i);
    if (count[p] > 0) surface.At(i) = sum[p] / count[p];
  }
  return status_;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

#include "Jobs/CarrierJob.h"

#include <chrono>
#include <cstdio>
#include <limits>

#include "Analysis/Core/Fft2D.h"
#include "Psi/Kinephase/KinephaseAlgorithm.h"

namespace Quarn::Jobs {

namespace {

namespace Kinephase = ::Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase;

bool CheckOptions(const CarrierOptions& options, JobRecord& record) {
  if (options.quadrant < 1 || options.quadrant > 4) {
    return Fail(record, JobOutcome::kBadInput,
                "--quadrant: " + std::to_string(options.quadrant) + " not in {1,2,3,4}");
  }
  return CheckWholeNumberFrom(record, "--pixels-per-fringe", options.pixelsPerFringe, 3, 1 << 20) &&
         CheckNumberFrom(record, "--threshold", options.threshold, 0.0, 100.0) &&
         CheckWholeNumberFrom(record, "--min-region", options.minRegion, 0,
                              std::numeric_limits<int>::max()) &&
         CheckCommonOptions(record, options.maxValue, options.threads);
}

}  // namespace

CarrierRecord CarrierJob::Run(Core::FrameBuffer& frames, const CarrierOptions& options,
                              const std::string& name, bool wantModulation) {
  CarrierRecord record;
  if (!CheckOptions(options, record)) return record;
  if (frames.GetNumberOfFrames() != 1) {
    Fail(record, JobOutcome::kBadInput,
         name + " has " + std::to_string(frames.GetNumberOfFrames()) +
             " pages; carrier fringes are one frame (a single-page TIFF)");
    return record;
  }
  if (options.maxValue > 0) frames.SetMaxValue(options.maxValue);

  Kinephase::KinephaseAlgorithm kinephase;
  kinephase.SelectKernel(Kinephase::KpKernelSelector(options.pixelsPerFringe, options.quadrant));
  kinephase.SetModulationThreshold(options.threshold);
  kinephase.SetMinRegionSizeToTrim(options.minRegion);
  kinephase.SetSubtractCarrier(!options.keepCarrier);
  // One frame whose maps are kept: the filter is computed in the transform's column pass rather than
  // stored, and the transform's memory is given back while the maps fill up.
  kinephase.SetLowMemory(true);
  if (options.threads == 0) {
    kinephase.SetAllowMultiThreads(false);
  } else if (options.threads > 0) {
    kinephase.SetNumberOfThreads(options.threads);
  }
  // One frame, one transform size: FFTW's measuring planner would spend far longer choosing the plans
  // (about 0.7 s at 2048 x 2048) than the whole pipeline takes with the estimated ones.
  Core::Fft2D::SetPlanningEffort(Core::Fft2D::PlanningEffort::kEstimate);
  const auto start = std::chrono::steady_clock::now();
  kinephase.SetIntensity(frames, 0);
  frames.Release();
  modulation_.Reset();
  if (wantModulation) {
    kinephase.Process(phase_, modulation_);
  } else {
    kinephase.Process(phase_);
  }
  record.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  record.thresholdCounts = kinephase.GetModulationThresholdInCounts();
  const Core::Status& status = kinephase.GetStatus();
  if (status.GetCode() == Core::StatusCode::kNoValidResult) {
    char counts[32];
    std::snprintf(counts, sizeof counts, "%.4g", record.thresholdCounts);
    Fail(record, JobOutcome::kNoResult,
         "no valid pixel in " + name + ": no pixel is modulated by " + counts +
             " counts or more with the carrier of quadrant " + std::to_string(options.quadrant) + " at " +
             std::to_string(options.pixelsPerFringe) + " pixels per fringe");
    return record;
  }
  if (status.IsError()) {
    Fail(record, JobOutcome::kBadInput, name + ": " + status.GetPrintString());
    return record;
  }
  record.validFraction = static_cast<double>(phase_.CountValid()) / static_cast<double>(phase_.GetCount());
  return record;
}

CarrierRecord RunCarrier(const ArrayView& frame, const CarrierOptions& options, const MapView& phase,
                         const MapView& modulation) {
  return RunPhaseAndModulation<CarrierJob>(frame, options, phase, modulation);
}

}  // namespace Quarn::Jobs

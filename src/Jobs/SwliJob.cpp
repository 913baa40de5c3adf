#include "Jobs/SwliJob.h"

#include <algorithm>
#include <chrono>

#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/Threading/CpuCounter.h"
#include "Analysis/Core/UnitNumber.h"
#include "Swli/CoherenceDiscriminator.h"
#include "Swli/PhaseAlgorithmCentroid.h"
#include "Swli/PhaseAlgorithmFda.h"
#include "Swli/PhaseGenerator.h"

namespace Quarn::Jobs {

namespace {

namespace Swli = ::Quarn::Metrology::PhaseProcessing::Core::Swli;

// The signal window the algorithms cut around each pixel's peak.
constexpr int kSignalFrames = 64;

Swli::FringeRemovalMethod MethodFor(const std::string& name) {
  if (name == "none") return Swli::FringeRemovalMethod::kNone;
  if (name == "64full") return Swli::FringeRemovalMethod::k64Bucket;
  return Swli::FringeRemovalMethod::kStandard;
}

bool CheckOptions(const SwliOptions& options, JobRecord& record) {
  if (options.algorithm != "centroid" && options.algorithm != "fda") {
    return Fail(record, JobOutcome::kBadInput,
                "--algorithm: " + options.algorithm + " not in {centroid,fda}");
  }
  if (!(options.scanStepNm > 0.0 && std::isfinite(options.scanStepNm))) {
    return Fail(
        record, JobOutcome::kBadInput,
        "--scan-step: must be a positive number of nanometres, not " + FormatNumber(options.scanStepNm));
  }
  if (options.fringeRemoval != "none" && options.fringeRemoval != "standard" &&
      options.fringeRemoval != "64full") {
    return Fail(record, JobOutcome::kBadInput,
                "--fringe-removal: " + options.fringeRemoval + " not in {none,standard,64full}");
  }
  return CheckNumberFrom(record, "--min-modulation", options.minModulation, 0.0, 100.0) &&
         CheckCommonOptions(record, options.maxValue, options.threads);
}

// Why no pixel got a height, in the terms of the chosen algorithm.
std::string NoValidPixelReason(const SwliOptions& options, int maxValue) {
  std::string reason = "no pixel has fringes modulated by at least " + FormatNumber(options.minModulation) +
                       " % of the saturation level " + std::to_string(maxValue) +
                       " within its 64-frame window, at least 32 frames from either end of the scan";
  if (options.algorithm == "fda") {
    reason +=
        ", with its fringe frequency in bins 13 .. 21 of 64 (a scan step of about a tenth to a sixth of the "
        "centre wavelength, e.g. 60 to 100 nm for 600 nm light)";
  }
  return reason;
}

}  // namespace

SwliRecord SwliJob::Run(Core::FrameBuffer& frames, const SwliOptions& options, const std::string& name,
                        Core::IntMatrix2D* peaks) {
  SwliRecord record;
  if (!CheckOptions(options, record)) return record;
  if (frames.GetNumberOfFrames() <= kSignalFrames) {
    Fail(record, JobOutcome::kBadInput,
         name + " has " + std::to_string(frames.GetNumberOfFrames()) +
             " frames; a white-light evaluation cuts a 64-frame window around each pixel's peak and needs "
             "more than 64");
    return record;
  }
  if (options.wantIntensity && options.fringeRemoval == "none") {
    Fail(record, JobOutcome::kBadInput,
         "--intensity needs a fringe-removal method; --fringe-removal none makes no intensity map");
    return record;
  }
  if (options.maxValue > 0) frames.SetMaxValue(options.maxValue);
  record.maxValue = frames.GetMaxValue();
  const int rows = frames.GetRows(), cols = frames.GetColumns();

  const auto start = std::chrono::steady_clock::now();
  const int threads = options.threads < 0 ? Core::Threading::CpuCounter::Instance().GetNumberOfProcessors()
                                          : std::max(options.threads, 1);
  if (peaks == nullptr) {
    Swli::FindPeakFrames(frames, peaks_, threads);
    peaks = &peaks_;
  }
  if (peaks->GetRows() != rows || peaks->GetColumns() != cols) {
    Fail(record, JobOutcome::kBadInput,
         "the peak-frame map is " + std::to_string(peaks->GetColumns()) + " x " +
             std::to_string(peaks->GetRows()) + ", " + name + " is " + std::to_string(cols) + " x " +
             std::to_string(rows));
    return record;
  }
  Core::IntMatrix2D auxiliary(rows, cols);
  auxiliary.SetAll(0);

  Swli::PhaseAlgorithmCentroid centroid;
  Swli::PhaseAlgorithmFda fda;
  Swli::PhaseAlgorithm& algorithm = options.algorithm == "fda" ? static_cast<Swli::PhaseAlgorithm&>(fda)
                                                               : static_cast<Swli::PhaseAlgorithm&>(centroid);
  centroid.SetMinimumModulation(options.minModulation);
  fda.SetMinimumModulation(options.minModulation);
  algorithm.SetScanIncrement(
      Core::UnitNumber(options.scanStepNm, Core::LinearConverter(Core::Units::kNanometers)));
  algorithm.SetRemoveFringes(MethodFor(options.fringeRemoval));
  intensity_.Reset();
  algorithm.SetIntensityMatrix(intensity_);

  Swli::PhaseGenerator generator(&algorithm);
  generator.SetAllowMultiThreads(threads > 1);
  generator.SetMaxNumThreads(threads);
  if (!height_.Resize(0, 0, rows, cols)) {
    Fail(record, JobOutcome::kBadInput, name + ": no memory for the height map");
    return record;
  }
  height_.SetAll(0.0);  // every pixel is evaluated
  generator.Process(frames, *peaks, auxiliary, height_);
  record.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  const Core::Status& status = generator.GetStatus();
  if (status.GetCode() == Core::StatusCode::kNoValidResult) {
    Fail(record, JobOutcome::kNoResult,
         "no valid pixel in " + name + ": " + NoValidPixelReason(options, frames.GetMaxValue()));
    return record;
  }
  if (status.IsError()) {
    Fail(record, JobOutcome::kBadInput, name + ": " + status.GetPrintString());
    return record;
  }
  record.validFraction = static_cast<double>(height_.CountValid()) / static_cast<double>(height_.GetCount());
  if (options.algorithm == "fda") {
    record.wavelengthNm = fda.GetWaveLength();
    record.averageGapNm = fda.GetAverageGap();
  }
  return record;
}

SwliRecord RunSwli(const ArrayView& scan, const SwliOptions& options, const MapView& height,
                   const MapView& intensity) {
  SwliRecord record;
  Core::FrameBuffer frames;
  if (!MakeFrameBuffer(scan, frames, record)) return record;
  frames.SetScanDirection(options.reverse ? -1 : 1);
  SwliOptions run = options;
  run.wantIntensity = !intensity.Empty();
  SwliJob job;
  record = job.Run(frames, run, scan.name);
  if (record.outcome == JobOutcome::kBadInput) return record;
  if (record.outcome == JobOutcome::kNoResult) {
    FillNan(height);
    FillNan(intensity);
    return record;
  }
  CopyMap(job.GetHeight(), height, record, "height") &&
      CopyMap(job.GetIntensity(), intensity, record, "intensity");
  return record;
}

}  // namespace Quarn::Jobs

#include "Jobs/PsiCheckJob.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <memory>
#include <numbers>
#include <vector>

#include "Psi/Corvane13.h"
#include "Psi/Corvane7.h"
#include "Psi/CorvaneCalculator.h"
#include "Psi/GainCorrectionCalculator.h"
#include "Psi/GainCorrectionPmi.h"
#include "Psi/GainCorrectionSinPsi.h"

namespace Quarn::Jobs {

namespace {

namespace Psi = ::Quarn::Metrology::PhaseProcessing::Core::Psi;
namespace StatusCode = Core::StatusCode;

bool CheckOptions(const PsiCheckOptions& options, JobRecord& record) {
  if (!options.method.empty() && options.method != "corvane" && options.method != "gain") {
    return Fail(record, JobOutcome::kBadInput, "--method: " + options.method + " not in {corvane,gain}");
  }
  const double maxInt = std::numeric_limits<int>::max();
  return CheckWholeNumberFrom(record, "--scan-period", options.scanPeriod, 1, maxInt) &&
         CheckNumberFrom(record, "--min-modulation", options.minModulation, 0.0, 100.0) &&
         CheckWholeNumberFrom(record, "--first-frame", options.firstFrame, 0, maxInt) &&
         (options.frameCount == 0 ||
          CheckWholeNumberFrom(record, "--frame-count", options.frameCount, 1, maxInt)) &&
         CheckCommonOptions(record, options.maxValue, options.threads);
}

// The frames the check looks at: all of the stack, or the run picked by the options, lent to a second
// frame buffer without a copy. Null when the run does not fit (the record says why).
Core::FrameBuffer* SelectFrames(const PsiCheckOptions& options, Core::FrameBuffer& all,
                                const std::string& name, Core::FrameBuffer& part, PsiCheckRecord& record) {
  const int pages = all.GetNumberOfFrames();
  const int first = options.firstFrame;
  if (first >= pages) {
    Fail(record, JobOutcome::kBadInput,
         "--first-frame " + std::to_string(first) + ": " + name + " has " + std::to_string(pages) +
             " frames, numbered from 0");
    return nullptr;
  }
  const int count = options.frameCount > 0 ? options.frameCount : pages - first;
  // In 64 bits: the first frame and the count are each up to the largest int.
  const std::int64_t end = std::int64_t{first} + std::int64_t{count};
  if (end > pages) {
    Fail(record, JobOutcome::kBadInput,
         "frames " + std::to_string(first) + "-" + std::to_string(end - 1) + " were asked for, " + name +
             " has " + std::to_string(pages) + " frames, numbered from 0");
    return nullptr;
  }
  record.frameCount = count;
  if (first == 0 && count == pages) {
    record.description = name;
    return &all;
  }
  std::vector<std::byte*> slots;
  for (int k = 0; k < count; ++k)
    slots.push_back(static_cast<std::byte*>(all.GetFrameData(first + k)));
  // The whole stack outlives the part, which only borrows its frames.
  const std::shared_ptr<void> borrowed(&all, [](void*) {});
  if (!part.AdoptFrames(all.GetAllocatedWindow(), count, all.GetElementRes(), slots, borrowed)) {
    Fail(record, JobOutcome::kBadInput, name + ": " + part.GetStatus().GetPrintString());
    return nullptr;
  }
  part.SetMaxValue(all.GetMaxValue());
  record.description =
      "frames " + std::to_string(first) + "-" + std::to_string(first + count - 1) + " of " + name;
  return &part;
}

double Median(std::vector<double> values) {
  const std::size_t half = values.size() / 2;
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(half), values.end());
  const double upper = values[half];
  if (values.size() % 2 == 1) return upper;
  const double lower = *std::max_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(half));
  return 0.5 * (lower + upper);
}

double StepDegrees(double stepValue) {
  return std::acos(std::clamp(stepValue / 256.0, -1.0, 1.0)) * 180.0 / std::numbers::pi;
}

std::string NoResultReason(const PsiCheckOptions& options, bool masked, int maxValue) {
  return "every pixel " + std::string(masked ? "of the mask " : "") + "is saturated (a sample reaches " +
         std::to_string(maxValue) + ") or modulated less than " + FormatNumber(options.minModulation) +
         " % of it";
}

// The settings both checks share: minimum modulation, scan period and threads.
template <typename Calculator>
void ConfigureCalculator(Calculator& calculator, const PsiCheckOptions& options) {
  calculator.SetMinimumModulation(options.minModulation);
  calculator.SetScanPeriod(options.scanPeriod);
  if (options.threads == 0) calculator.SetAllowMultipleThreads(false);
  if (options.threads > 0) calculator.SetNumberOfThreads(options.threads);
}

// Each check returns its failure (empty when it produced its result), so that the other check's
// result still stands; false when the input is unusable (the record says why).
bool RunCorvane(const PsiCheckOptions& options, Core::FrameBuffer& frames, Core::RegionIdMatrix2D* mask,
                Core::DoubleMatrix2D& steps, PsiCheckRecord& record, std::string& failure) {
  Psi::Corvane7 seven;
  Psi::Corvane13 thirteen;
  Psi::CorvaneCalculator calculator;
  calculator.SetAlgorithm(record.frameCount == 7 ? static_cast<Psi::CorvaneAlgorithm*>(&seven) : &thirteen);
  ConfigureCalculator(calculator, options);
  // Pixels left out by the stride or the mask are not written: they must read as no data.
  steps.SetAll(Core::DoubleMatrix2D::NoData());
  calculator.Calculate(frames, mask, steps);
  record.corvaneRan = true;
  const Core::Status& status = calculator.GetStatus();
  if (status.GetCode() == StatusCode::kNoValidResult) {
    failure = "corvane check: no valid pixel in " + record.description + ": " +
              NoResultReason(options, mask != nullptr, frames.GetMaxValue());
    steps.SetAll(Core::DoubleMatrix2D::NoData());
    return true;
  }
  if (status.IsError())
    return Fail(record, JobOutcome::kBadInput, record.description + ": " + status.GetPrintString());

  std::vector<double> values;
  values.reserve(static_cast<std::size_t>(steps.GetCount()));
  double sum = 0.0;
  for (std::int64_t i = 0; i < steps.GetCount(); ++i) {
    if (Core::IsNoDataValue(steps.At(i))) continue;
    values.push_back(steps.At(i));
    sum += steps.At(i);
  }
  record.corvaneResult = true;
  record.validFraction = static_cast<double>(values.size()) / static_cast<double>(steps.GetCount());
  record.stepValueMean = sum / static_cast<double>(values.size());
  record.stepValueMedian = Median(std::move(values));
  record.stepDegreesMean = StepDegrees(record.stepValueMean);
  record.stepDegreesMedian = StepDegrees(record.stepValueMedian);
  record.stepBetweenPairs = record.frameCount != 7;
  return true;
}

bool RunGain(const PsiCheckOptions& options, Core::FrameBuffer& frames, Core::RegionIdMatrix2D* mask,
             PsiCheckRecord& record, std::string& failure) {
  Psi::GainCorrectionPmi pmi;
  Psi::GainCorrectionSinPsi sinPsi;
  const bool sinusoidal = record.frameCount >= 20;
  Psi::GainCorrectionCalculator calculator;
  calculator.SetAlgorithm(sinusoidal ? static_cast<Psi::GainCorrection*>(&sinPsi) : &pmi);
  ConfigureCalculator(calculator, options);
  calculator.Calculate(frames, mask);
  record.gainRan = true;
  record.gainSinusoidal = sinusoidal;
  const Core::Status& status = calculator.GetStatus();
  if (status.GetCode() == StatusCode::kNoValidResult) {
    failure = "gain check: no pixel of " + record.description + " contributes to the gain correction: " +
              NoResultReason(options, mask != nullptr, frames.GetMaxValue()) +
              (sinusoidal                ? " (frames 0-19 are read)"
               : record.frameCount == 13 ? " (every second frame is read)"
                                         : "");
    return true;
  }
  if (status.IsError())
    return Fail(record, JobOutcome::kBadInput, record.description + ": " + status.GetPrintString());
  const std::int64_t contributing =
      sinusoidal ? sinPsi.GetContributingPixelCount() : pmi.GetContributingPixelCount();
  record.gainResult = true;
  record.gainCorrection = calculator.GetGainCorrection();
  record.gainFraction = static_cast<double>(contributing) / static_cast<double>(frames.GetPixelCount());
  return true;
}

}  // namespace

PsiCheckRecord PsiCheckJob::Plan(Core::FrameBuffer& frames, const PsiCheckOptions& options,
                                 const std::string& name) {
  PsiCheckRecord record;
  run_ = nullptr;
  if (!CheckOptions(options, record)) return record;
  if (options.maxValue > 0) frames.SetMaxValue(options.maxValue);
  Core::FrameBuffer* run = SelectFrames(options, frames, name, part_, record);
  if (run == nullptr) return record;

  // Which checks run: corvane needs 7 or 13 frames, gain 7, 13 or at least 20.
  const bool corvaneFits = record.frameCount == 7 || record.frameCount == 13;
  const bool gainFits = corvaneFits || record.frameCount >= 20;
  const std::string has = record.description + " has " + std::to_string(record.frameCount) + " frames";
  if (!gainFits) {
    Fail(record, JobOutcome::kBadInput,
         has + "; the phase-step check needs 7 or 13 frames (corvane and gain) or at least 20 (gain)." +
             " Pick a run of frames with --first-frame and --frame-count");
    return record;
  }
  if (options.method == "corvane" && !corvaneFits) {
    Fail(record, JobOutcome::kBadInput, "the corvane check needs 7 or 13 frames, " + has);
    return record;
  }
  corvane_ = corvaneFits && options.method != "gain";
  gain_ = options.method != "corvane";
  if (!corvane_ && options.mapWanted) {
    Fail(record, JobOutcome::kBadInput,
         "-o and --png write the step map of the corvane check, which needs 7 or 13 frames; " +
             record.description + " has " + std::to_string(record.frameCount) + " frames" +
             (options.method == "gain" ? " and --method gain was asked for" : ""));
    return record;
  }
  run_ = run;
  return record;
}

PsiCheckRecord PsiCheckJob::Run(Core::FrameBuffer& frames, const PsiCheckOptions& options,
                                const std::string& name, Core::RegionIdMatrix2D* mask,
                                const std::string& maskName) {
  PsiCheckRecord record = Plan(frames, options, name);
  if (run_ == nullptr) return record;
  Core::FrameBuffer* run = run_;
  const bool corvane = corvane_, gain = gain_;
  if (mask != nullptr && (mask->GetRows() != frames.GetRows() || mask->GetColumns() != frames.GetColumns())) {
    Fail(record, JobOutcome::kBadInput,
         maskName + " is " + std::to_string(mask->GetColumns()) + " x " + std::to_string(mask->GetRows()) +
             ", " + name + " is " + std::to_string(frames.GetColumns()) + " x " +
             std::to_string(frames.GetRows()));
    return record;
  }

  if (!steps_.Resize(0, 0, frames.GetRows(), frames.GetColumns())) {
    Fail(record, JobOutcome::kBadInput, name + ": no memory for the step map");
    return record;
  }
  steps_.SetAll(Core::DoubleMatrix2D::NoData());
  const auto start = std::chrono::steady_clock::now();
  std::string corvaneFailure, gainFailure;
  if (corvane && !RunCorvane(options, *run, mask, steps_, record, corvaneFailure)) return record;
  if (gain && !RunGain(options, *run, mask, record, gainFailure)) return record;
  record.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  // What could not be had: no result when nothing came of the run or the wanted map is missing,
  // otherwise a warning beside the result.
  const bool failed =
      (!record.corvaneResult && !record.gainResult) || (options.mapWanted && !record.corvaneResult);
  std::string failures = corvaneFailure;
  if (!gainFailure.empty()) failures += (failures.empty() ? "" : "; ") + gainFailure;
  if (failed) {
    Fail(record, JobOutcome::kNoResult, failures);
  } else if (!failures.empty()) {
    record.warnings.push_back(failures);
  }
  return record;
}

PsiCheckRecord RunPsiCheck(const ArrayView& stack, const PsiCheckOptions& options, const MapView& steps,
                           const ArrayView& mask) {
  PsiCheckRecord record;
  Core::FrameBuffer frames;
  if (!MakeFrameBuffer(stack, frames, record)) return record;
  std::unique_ptr<Core::RegionIdMatrix2D> region;
  if (mask.data != nullptr) {
    region = std::make_unique<Core::RegionIdMatrix2D>();
    if (!MakeMask(mask, *region, record)) return record;
  }
  PsiCheckJob job;
  record = job.Run(frames, options, stack.name, region.get(), mask.name);
  if (record.outcome == JobOutcome::kBadInput) return record;
  if (!record.corvaneResult) {
    FillNan(steps);
    return record;
  }
  CopyMap(job.GetStepValues(), steps, record, "step-value");
  return record;
}

}  // namespace Quarn::Jobs

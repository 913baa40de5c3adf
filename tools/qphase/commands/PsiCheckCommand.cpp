// qphase psi-check: is the phase shifter calibrated? Per-pixel phase-step values (Corvane) and the
// scanner gain correction of a phase-shifted frame stack (multi-page TIFF).
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "MapPreview.h"
#include "OutputFiles.h"
#include "Psi/Corvane13.h"
#include "Psi/Corvane7.h"
#include "Psi/CorvaneCalculator.h"
#include "Psi/GainCorrectionCalculator.h"
#include "Psi/GainCorrectionPmi.h"
#include "Psi/GainCorrectionSinPsi.h"
#include "TiffIO.h"
#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

namespace Psi = ::Quarn::Metrology::PhaseProcessing::Core::Psi;
namespace StatusCode = Core::StatusCode;

struct PsiCheckOptions {
  std::string stack;
  std::string method;
  std::string mask;
  int scanPeriod = 1;
  double minModulation = 15.0;
  int firstFrame = 0;
  int frameCount = 0;  // 0: every frame from the first one on
  int maxValue = 0;
  int threads = -1;
  std::string stepOut;
  std::string pngOut;
};

std::string Format(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

// The frames the check looks at: all of the stack, or the run picked with --first-frame and
// --frame-count, lent to a second frame buffer without a copy.
struct FrameRun {
  Core::FrameBuffer* frames = nullptr;
  int first = 0;
  int count = 0;
  std::string description;  // "mirror.tif" or "frames 2-8 of mirror.tif"
};

FrameRun SelectFrames(const PsiCheckOptions& options, Core::FrameBuffer& all, int pages,
                      Core::FrameBuffer& part) {
  FrameRun run;
  run.first = options.firstFrame;
  if (run.first >= pages) {
    throw UsageError("--first-frame " + std::to_string(run.first) + ": " + options.stack + " has " +
                     std::to_string(pages) + " frames, numbered from 0");
  }
  run.count = options.frameCount > 0 ? options.frameCount : pages - run.first;
  if (run.first + run.count > pages) {
    throw UsageError("frames " + std::to_string(run.first) + "-" + std::to_string(run.first + run.count - 1) +
                     " were asked for, " + options.stack + " has " + std::to_string(pages) +
                     " frames, numbered from 0");
  }
  if (run.first == 0 && run.count == pages) {
    run.frames = &all;
    run.description = options.stack;
    return run;
  }
  std::vector<std::byte*> slots;
  for (int k = 0; k < run.count; ++k)
    slots.push_back(static_cast<std::byte*>(all.GetFrameData(run.first + k)));
  // The whole stack outlives the part, which only borrows its frames.
  const std::shared_ptr<void> borrowed(&all, [](void*) {});
  if (!part.AdoptFrames(all.GetAllocatedWindow(), run.count, all.GetElementRes(), slots, borrowed)) {
    throw UsageError(options.stack + ": " + part.GetStatus().GetPrintString());
  }
  part.SetMaxValue(all.GetMaxValue());
  run.frames = &part;
  run.description = "frames " + std::to_string(run.first) + "-" + std::to_string(run.first + run.count - 1) +
                    " of " + options.stack;
  return run;
}

// Which checks run: corvane needs 7 or 13 frames, gain 7, 13 or at least 20. Without --method both
// run where both can.
struct Methods {
  bool corvane = false;
  bool gain = false;
};

Methods ChooseMethods(const std::string& requested, const FrameRun& run) {
  const bool corvaneFits = run.count == 7 || run.count == 13;
  const bool gainFits = corvaneFits || run.count >= 20;
  const std::string has = run.description + " has " + std::to_string(run.count) + " frames";
  if (!gainFits) {
    throw UsageError(has +
                     "; the phase-step check needs 7 or 13 frames (corvane and gain) or at least 20 (gain)." +
                     " Pick a run of frames with --first-frame and --frame-count");
  }
  if (requested == "corvane" && !corvaneFits) {
    throw UsageError("the corvane check needs 7 or 13 frames, " + has);
  }
  Methods methods;
  methods.corvane = corvaneFits && requested != "gain";
  methods.gain = requested != "corvane";
  return methods;
}

// A mask image of the stack's size: non-zero pixels are the region, zero pixels are left out.
void ReadMask(const std::string& path, const TiffStackInfo& stack, const std::string& stackPath,
              Core::RegionIdMatrix2D& mask) {
  const TiffStackInfo info = ReadTiffImage(path, mask);
  if (info.rows != stack.rows || info.cols != stack.cols) {
    throw UsageError(path + " is " + std::to_string(info.cols) + " x " + std::to_string(info.rows) + ", " +
                     stackPath + " is " + std::to_string(stack.cols) + " x " + std::to_string(stack.rows));
  }
  for (std::int64_t i = 0; i < mask.GetCount(); ++i) {
    mask.At(i) = mask.At(i) != 0 ? 0 : Core::RegionIdMatrix2D::NoData();
  }
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

std::string NoResultReason(const PsiCheckOptions& options, int maxValue) {
  return "every pixel " + std::string(options.mask.empty() ? "" : "of the mask ") +
         "is saturated (a sample reaches " + std::to_string(maxValue) + ") or modulated less than " +
         Format("%g", options.minModulation) + " % of it";
}

// The settings both checks share: minimum modulation, scan period and threads (--threads 0: the
// calling thread only; -1: the default).
template <typename Calculator>
void ConfigureCalculator(Calculator& calculator, const PsiCheckOptions& options) {
  calculator.SetMinimumModulation(options.minModulation);
  calculator.SetScanPeriod(options.scanPeriod);
  if (options.threads == 0) calculator.SetAllowMultipleThreads(false);
  if (options.threads > 0) calculator.SetNumberOfThreads(options.threads);
}

// Each check returns its failure (empty when it produced its result), so that the other check's
// result still reaches the user. A status other than "no valid pixel" is an unusable input.

std::string RunCorvaneCheck(const PsiCheckOptions& options, const FrameRun& run, Core::RegionIdMatrix2D* mask,
                            Core::DoubleMatrix2D& steps) {
  Psi::Corvane7 seven;
  Psi::Corvane13 thirteen;
  Psi::CorvaneCalculator calculator;
  calculator.SetAlgorithm(run.count == 7 ? static_cast<Psi::CorvaneAlgorithm*>(&seven) : &thirteen);
  ConfigureCalculator(calculator, options);
  // Pixels left out by the stride or the mask are not written: they must read as no data.
  steps.SetAll(Core::DoubleMatrix2D::NoData());
  calculator.Calculate(*run.frames, mask, steps);
  const Core::Status& status = calculator.GetStatus();
  if (status.GetCode() == StatusCode::kNoValidResult) {
    return "corvane check: no valid pixel in " + run.description + ": " +
           NoResultReason(options, run.frames->GetMaxValue());
  }
  if (status.IsError()) throw UsageError(run.description + ": " + status.GetPrintString());

  std::vector<double> values;
  values.reserve(static_cast<std::size_t>(steps.GetCount()));
  double sum = 0.0;
  for (std::int64_t i = 0; i < steps.GetCount(); ++i) {
    if (Core::IsNoDataValue(steps.At(i))) continue;
    values.push_back(steps.At(i));
    sum += steps.At(i);
  }
  const double valid = static_cast<double>(values.size()) / static_cast<double>(steps.GetCount());
  const double mean = sum / static_cast<double>(values.size());
  const double median = Median(std::move(values));
  // 256 cos(alpha): alpha between frames for 7 frames, between frame pairs for 13.
  const std::string between = run.count == 7 ? "between frames" : "between frame pairs";
  std::printf(
      "corvane: step value 256 cos(step) mean %.2f, median %.2f over %.1f %% of the pixels: phase step "
      "%.1f deg (from the mean), %.1f deg (from the median) %s, nominal 90\n",
      mean, median, 100.0 * valid, StepDegrees(mean), StepDegrees(median), between.c_str());
  return "";
}

std::string RunGainCheck(const PsiCheckOptions& options, const FrameRun& run, Core::RegionIdMatrix2D* mask) {
  Psi::GainCorrectionPmi pmi;
  Psi::GainCorrectionSinPsi sinPsi;
  const bool sinusoidal = run.count >= 20;
  Psi::GainCorrectionCalculator calculator;
  calculator.SetAlgorithm(sinusoidal ? static_cast<Psi::GainCorrection*>(&sinPsi) : &pmi);
  ConfigureCalculator(calculator, options);
  calculator.Calculate(*run.frames, mask);
  const Core::Status& status = calculator.GetStatus();
  if (status.GetCode() == StatusCode::kNoValidResult) {
    return "gain check: no pixel of " + run.description +
           " contributes to the gain correction: " + NoResultReason(options, run.frames->GetMaxValue()) +
           (sinusoidal        ? " (frames 0-19 are read)"
            : run.count == 13 ? " (every second frame is read)"
                              : "");
  }
  if (status.IsError()) throw UsageError(run.description + ": " + status.GetPrintString());
  const std::int64_t contributing =
      sinusoidal ? sinPsi.GetContributingPixelCount() : pmi.GetContributingPixelCount();
  std::printf(
      "gain: gain correction %+.5f (%s, %s) from %.1f %% of the pixels\n", calculator.GetGainCorrection(),
      sinusoidal ? "sinusoidal 20-frame estimate" : "7-sample estimate",
      sinusoidal ? "frames 0-19 of the run" : (run.count == 7 ? "all 7 frames" : "every second frame"),
      100.0 * static_cast<double>(contributing) / static_cast<double>(run.frames->GetPixelCount()));
  return "";
}

int RunPsiCheck(const PsiCheckOptions& options) {
  // Outputs are named before any work, so a clash between them is refused at once.
  OutputFiles outputs;
  const std::string stepPath = options.stepOut.empty() ? std::string() : outputs.Stage(options.stepOut, "-o");
  const std::string pngPath = options.pngOut.empty() ? std::string() : outputs.Stage(options.pngOut, "--png");

  Core::FrameBuffer all;
  const TiffStackInfo info = ReadTiffStack(options.stack, all);
  if (options.maxValue > 0) all.SetMaxValue(options.maxValue);
  Core::FrameBuffer part;
  const FrameRun run = SelectFrames(options, all, info.pages, part);
  const Methods methods = ChooseMethods(options.method, run);
  const bool mapWanted = !options.stepOut.empty() || !options.pngOut.empty();
  if (!methods.corvane && mapWanted) {
    throw UsageError("-o and --png write the step map of the corvane check, which needs 7 or 13 frames; " +
                     run.description + " has " + std::to_string(run.count) + " frames" +
                     (options.method == "gain" ? " and --method gain was asked for" : ""));
  }
  std::unique_ptr<Core::RegionIdMatrix2D> mask;
  if (!options.mask.empty()) {
    mask = std::make_unique<Core::RegionIdMatrix2D>();
    ReadMask(options.mask, info, options.stack, *mask);
  }

  std::printf("%s: %d x %d, %d frames of %d bits\n", run.description.c_str(), info.cols, info.rows, run.count,
              info.bitsPerSample);
  Core::DoubleMatrix2D steps(info.rows, info.cols);
  const std::string corvaneFailure = methods.corvane ? RunCorvaneCheck(options, run, mask.get(), steps) : "";
  const std::string gainFailure = methods.gain ? RunGainCheck(options, run, mask.get()) : "";
  const bool corvaneResult = methods.corvane && corvaneFailure.empty();
  const bool gainResult = methods.gain && gainFailure.empty();

  if (corvaneResult && mapWanted) {
    if (!stepPath.empty()) WriteFloatTiff(stepPath, steps);
    if (!pngPath.empty()) WritePreviewPng(pngPath, steps, PreviewStyle{"step value 256 cos(step)", ""});
    outputs.Commit();
  }
  // What could not be had: an error when nothing came of the run or the step map asked for is
  // missing, otherwise a warning beside the result that was printed.
  const bool failed = (!corvaneResult && !gainResult) || (mapWanted && !corvaneResult);
  std::string failures = corvaneFailure;
  if (!gainFailure.empty()) failures += (failures.empty() ? "" : "; ") + gainFailure;
  if (failed) throw NoResultError(failures + (mapWanted ? "; no step map written" : ""));
  if (!failures.empty()) std::fprintf(stderr, "qphase psi-check: warning: %s\n", failures.c_str());
  return kExitSuccess;
}

std::function<int()> SetupPsiCheck(CLI::App& app) {
  auto options = std::make_shared<PsiCheckOptions>();
  app.footer(
      "Checks the phase shifter. corvane: per-pixel step values 256 cos(step), 0 at the nominal "
      "quarter-period\n"
      "step (between frames of a 7-frame stack, between frame pairs of a 13-frame stack); printed with the "
      "mean\n"
      "phase step they imply. gain: one gain correction, 0 for a calibrated shifter, negative when the "
      "shifter\n"
      "moves too far, positive when it moves too little. 7 or 13 frames: both checks by default; 20 or "
      "more:\n"
      "the gain check of a sinusoidal shifter on frames 0-19. A check that finds no usable pixel is named\n"
      "on stderr with the reason, and the other check's result still stands. Exit status: 0 when a check\n"
      "produced its result (and the step map, if -o or --png asked for it); 1 when no check produced a\n"
      "result, or the step map asked for could not be made (then nothing is written); 2 bad usage or\n"
      "unusable input.");
  app.add_option("stack", options->stack, "Multi-page TIFF, one 8- or 16-bit grayscale page per frame")
      ->required()
      ->check(CLI::ExistingFile);
  app.add_option("--method", options->method,
                 "corvane or gain; by default every check the frame count allows")
      ->check(CLI::IsMember({"corvane", "gain"}));
  app.add_option("--mask", options->mask,
                 "8- or 16-bit TIFF of the stack's size; its non-zero pixels are checked")
      ->check(CLI::ExistingFile);
  app.add_option("--scan-period", options->scanPeriod,
                 "Check every N-th pixel (row-major order). With several threads each worker's grid starts "
                 "at its first pixel, so which pixels are sampled depends on the thread count")
      ->check(WholeNumberFrom(1, std::numeric_limits<int>::max()))
      ->capture_default_str();
  app.add_option("--min-modulation", options->minModulation,
                 "Pixels modulated less than this percentage of the saturation level are left out")
      ->check(NumberFrom(0.0, 100.0))
      ->capture_default_str();
  app.add_option("--first-frame", options->firstFrame, "Check the frames from this one on (numbered from 0)")
      ->check(WholeNumberFrom(0, std::numeric_limits<int>::max()))
      ->capture_default_str();
  app.add_option("--frame-count", options->frameCount,
                 "Check this many consecutive frames (default: all from --first-frame on), e.g. 7 of a "
                 "12-frame stack")
      ->check(WholeNumberFrom(1, std::numeric_limits<int>::max()));
  AddMaxValueOption(app, options->maxValue);
  AddThreadsOption(app, options->threads);
  app.add_option("-o,--output", options->stepOut,
                 "Step-value map to write (corvane): 32-bit float TIFF, NaN = no data");
  app.add_option("--png", options->pngOut, "Colour preview of the step-value map with a colour bar");
  return [options] { return RunPsiCheck(*options); };
}

[[maybe_unused]] const bool registered = RegisterCommand(
    {"psi-check", "Phase-step values and gain correction of a phase-shifted frame stack", SetupPsiCheck});

}  // namespace

}  // namespace Quarn::Qphase

// qphase psi-check: is the phase shifter calibrated? Per-pixel phase-step values (Corvane) and the
// scanner gain correction of a phase-shifted frame stack (multi-page TIFF).
#include <CLI/CLI.hpp>

#include <cstdio>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "JobFailure.h"
#include "Jobs/PsiCheckJob.h"
#include "MapPreview.h"
#include "OutputFiles.h"
#include "TiffIO.h"
#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

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

// A mask image of the stack's size: non-zero pixels are the region, zero pixels are left out.
void ReadMask(const std::string& path, Core::RegionIdMatrix2D& mask) {
  ReadTiffImage(path, mask);
  for (std::int64_t i = 0; i < mask.GetCount(); ++i) {
    mask.At(i) = mask.At(i) != 0 ? 0 : Core::RegionIdMatrix2D::NoData();
  }
}

int RunPsiCheck(const PsiCheckOptions& options) {
  // Outputs are named before any work, so a clash between them is refused at once.
  OutputFiles outputs;
  outputs.ProtectInput(options.stack);
  if (!options.mask.empty()) outputs.ProtectInput(options.mask, "--mask");
  WriteTarget stepFile = options.stepOut.empty() ? WriteTarget() : outputs.Stage(options.stepOut, "-o");
  WriteTarget pngFile = options.pngOut.empty() ? WriteTarget() : outputs.Stage(options.pngOut, "--png");

  Core::FrameBuffer frames;
  const TiffStackInfo info = ReadTiffStack(options.stack, frames);
  Jobs::PsiCheckOptions settings;
  settings.method = options.method;
  settings.scanPeriod = options.scanPeriod;
  settings.minModulation = options.minModulation;
  settings.firstFrame = options.firstFrame;
  settings.frameCount = options.frameCount;
  settings.maxValue = options.maxValue;
  settings.threads = options.threads;
  settings.mapWanted = !options.stepOut.empty() || !options.pngOut.empty();
  Jobs::PsiCheckJob job;
  // The run is planned before the mask is read, so that a stack no check fits is named first.
  const Jobs::PsiCheckRecord plan = job.Plan(frames, settings, options.stack);
  ThrowIfFailed(plan);
  std::unique_ptr<Core::RegionIdMatrix2D> mask;
  if (!options.mask.empty()) {
    mask = std::make_unique<Core::RegionIdMatrix2D>();
    ReadMask(options.mask, *mask);
  }

  std::printf("%s: %d x %d, %d frames of %d bits\n", plan.description.c_str(), info.cols, info.rows,
              plan.frameCount, info.bitsPerSample);
  const Jobs::PsiCheckRecord record = job.Run(frames, settings, options.stack, mask.get(), options.mask);
  if (record.corvaneResult) {
    // 256 cos(alpha): alpha between frames for 7 frames, between frame pairs for 13.
    std::printf(
        "corvane: step value 256 cos(step) mean %.2f, median %.2f over %.1f %% of the pixels: phase step "
        "%.1f deg (from the mean), %.1f deg (from the median) %s, nominal 90\n",
        record.stepValueMean, record.stepValueMedian, 100.0 * record.validFraction, record.stepDegreesMean,
        record.stepDegreesMedian, record.stepBetweenPairs ? "between frame pairs" : "between frames");
  }
  if (record.gainResult) {
    std::printf("gain: gain correction %+.5f (%s, %s) from %.1f %% of the pixels\n", record.gainCorrection,
                record.gainSinusoidal ? "sinusoidal 20-frame estimate" : "7-sample estimate",
                record.gainSinusoidal ? "frames 0-19 of the run"
                                      : (record.frameCount == 7 ? "all 7 frames" : "every second frame"),
                100.0 * record.gainFraction);
  }
  ThrowIfFailed(record, settings.mapWanted ? "; no step map written" : "");

  if (record.corvaneResult && settings.mapWanted) {
    const Core::DoubleMatrix2D& steps = job.GetStepValues();
    if (stepFile) WriteFloatTiff(std::move(stepFile), steps);
    if (pngFile) WritePreviewPng(std::move(pngFile), steps, PreviewStyle{"step value 256 cos(step)", ""});
    outputs.Commit();
  }
  for (const std::string& warning : record.warnings)
    std::fprintf(stderr, "qphase psi-check: warning: %s\n", warning.c_str());
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
      ->required();
  app.add_option("--method", options->method,
                 "corvane or gain; by default every check the frame count allows")
      ->check(OneOf({"corvane", "gain"}, "corvane or gain"));
  app.add_option("--mask", options->mask,
                 "8- or 16-bit TIFF of the stack's size; its non-zero pixels are checked");
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

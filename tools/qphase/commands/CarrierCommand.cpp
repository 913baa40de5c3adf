// qphase carrier: phase and modulation from a single frame of carrier fringes (one-page TIFF).
#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <limits>
#include <memory>
#include <numbers>
#include <string>
#include <utility>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/Fft2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "MapPreview.h"
#include "OutputFiles.h"
#include "Psi/Kinephase/KinephaseAlgorithm.h"
#include "TiffIO.h"
#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

namespace Kinephase = ::Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase;
namespace StatusCode = Core::StatusCode;

struct CarrierOptions {
  std::string frame;
  std::string phaseOut;
  std::string modulationOut;
  std::string pngOut;
  int quadrant = 2;
  int pixelsPerFringe = 4;
  double threshold = 10.0;
  int minRegion = 10;
  bool keepCarrier = false;
  int maxValue = 0;
  int threads = -1;
};

// Runs the pipeline on the frame into the phase (and, when given, the modulation) and returns the
// seconds it took; a run without a valid pixel or with a failure is thrown. The algorithm lives
// only here, so that its board (frame copy, filter, transform, trim maps) is gone before the maps
// are written, and the tool's frame goes as soon as the board has its copy. Without a modulation
// output no modulation map is made at all.
double RunPipeline(const CarrierOptions& options, Core::FrameBuffer& frames, Core::DoubleMatrix2D& phase,
                   Core::DoubleMatrix2D* modulation) {
  Kinephase::KinephaseAlgorithm kinephase;
  kinephase.SelectKernel(Kinephase::KpKernelSelector(options.pixelsPerFringe, options.quadrant));
  kinephase.SetModulationThreshold(options.threshold);
  kinephase.SetMinRegionSizeToTrim(options.minRegion);
  kinephase.SetSubtractCarrier(!options.keepCarrier);
  if (options.threads == 0) {
    kinephase.SetAllowMultiThreads(false);
  } else if (options.threads > 0) {
    kinephase.SetNumberOfThreads(options.threads);
  }

  // One frame, one transform size: FFTW's measuring planner would spend far longer choosing the
  // plans (about 0.7 s at 2048 x 2048) than the whole pipeline takes with the estimated ones.
  Core::Fft2D::SetPlanningEffort(Core::Fft2D::PlanningEffort::kEstimate);
  const auto start = std::chrono::steady_clock::now();
  kinephase.SetIntensity(frames, 0);
  frames.Release();
  if (modulation) {
    kinephase.Process(phase, *modulation);
  } else {
    kinephase.Process(phase);
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const Core::Status& status = kinephase.GetStatus();
  if (status.GetCode() == StatusCode::kNoValidResult) {
    char counts[32];
    std::snprintf(counts, sizeof counts, "%.4g", kinephase.GetModulationThresholdInCounts());
    throw NoResultError("no valid pixel in " + options.frame + ": no pixel is modulated by " + counts +
                        " counts or more with the carrier of quadrant " + std::to_string(options.quadrant) +
                        " at " + std::to_string(options.pixelsPerFringe) +
                        " pixels per fringe; nothing written");
  }
  if (status.IsError()) throw UsageError(options.frame + ": " + status.GetPrintString());
  return seconds;
}

int RunCarrier(const CarrierOptions& options) {
  // Outputs are named before any work, so a clash between them is refused at once.
  OutputFiles outputs;
  outputs.ProtectInput(options.frame);
  WriteTarget phaseFile = outputs.Stage(options.phaseOut, "-o");
  WriteTarget modulationFile =
      options.modulationOut.empty() ? WriteTarget() : outputs.Stage(options.modulationOut, "--modulation");
  WriteTarget pngFile = options.pngOut.empty() ? WriteTarget() : outputs.Stage(options.pngOut, "--png");

  Core::FrameBuffer frames;
  const TiffStackInfo info = ReadTiffStack(options.frame, frames);
  if (info.pages != 1) {
    throw UsageError(options.frame + " has " + std::to_string(info.pages) +
                     " pages; carrier fringes are one frame (a single-page TIFF)");
  }
  if (options.maxValue > 0) frames.SetMaxValue(options.maxValue);

  Core::DoubleMatrix2D phase, modulation;
  const double seconds =
      RunPipeline(options, frames, phase, options.modulationOut.empty() ? nullptr : &modulation);

  std::int64_t validPixels = 0;
  // The modulation map and the preview are written on a second thread while this one writes the phase.
  std::future<void> others = std::async(std::launch::async, [&] {
    validPixels = phase.CountValid();
    if (modulationFile) WriteFloatTiff(std::move(modulationFile), modulation);
    if (pngFile) {
      WritePreviewPng(std::move(pngFile), phase,
                      PreviewStyle{"carrier phase", "rad", true, -std::numbers::pi, std::numbers::pi});
    }
  });
  std::exception_ptr failure;
  try {
    WriteFloatTiff(std::move(phaseFile), phase);
  } catch (...) {
    failure = std::current_exception();
  }
  others.get();
  if (failure) std::rethrow_exception(failure);
  outputs.Commit();

  const double valid = static_cast<double>(validPixels) / static_cast<double>(phase.GetCount());
  std::printf(
      "%s: %d x %d, %d bits, quadrant %d, %d pixels per fringe%s: %.1f %% valid, processed in %.1f ms\n",
      options.frame.c_str(), info.cols, info.rows, info.bitsPerSample, options.quadrant,
      options.pixelsPerFringe, options.keepCarrier ? ", carrier kept" : "", 100.0 * valid, 1e3 * seconds);
  return kExitSuccess;
}

std::function<int()> SetupCarrier(CLI::App& app) {
  auto options = std::make_shared<CarrierOptions>();
  app.add_option("frame", options->frame, "One-page TIFF (8- or 16-bit grayscale) of carrier fringes")
      ->required();
  app.add_option("-o,--output", options->phaseOut,
                 "Phase map to write: 32-bit float TIFF, radians, NaN = no data")
      ->required();
  app.add_option("--modulation", options->modulationOut,
                 "Modulation map to write (32-bit float TIFF, counts: a fringe a + b cos reads about b)");
  app.add_option("--quadrant", options->quadrant,
                 "Quadrant of the frequency plane holding the carrier lobe to keep: 1 right-up, 2 left-up, "
                 "3 left-down, 4 right-down")
      ->check(WholeNumberFrom(1, 4))
      ->capture_default_str();
  app.add_option("--pixels-per-fringe", options->pixelsPerFringe, "Carrier period in pixels (3 or more)")
      ->check(WholeNumberFrom(3, 1 << 20))
      ->capture_default_str();
  app.add_option("--threshold", options->threshold,
                 "Pixels modulated less than this percentage of half the saturation level get no data")
      ->check(NumberFrom(0.0, 100.0))
      ->capture_default_str();
  app.add_option("--min-region", options->minRegion,
                 "No-data areas of at least this many pixels lose a one-pixel rim of valid phase")
      ->check(WholeNumberFrom(0, std::numeric_limits<int>::max()))
      ->capture_default_str();
  app.add_flag("--keep-carrier", options->keepCarrier,
               "Do not remove the carrier: the phase of the fringes themselves");
  AddMaxValueOption(app, options->maxValue);
  AddThreadsOption(app, options->threads);
  app.add_option("--png", options->pngOut, "Colour preview of the phase with a colour bar");
  return [options] { return RunCarrier(*options); };
}

[[maybe_unused]] const bool registered =
    RegisterCommand({"carrier", "Phase and modulation from one frame of carrier fringes", SetupCarrier});

}  // namespace

}  // namespace Quarn::Qphase

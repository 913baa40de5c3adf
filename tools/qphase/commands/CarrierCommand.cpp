// qphase carrier: phase and modulation from a single frame of carrier fringes (one-page TIFF).
#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <future>
#include <limits>
#include <memory>
#include <numbers>
#include <string>
#include <utility>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "JobFailure.h"
#include "Jobs/CarrierJob.h"
#include "MapPreview.h"
#include "OutputFiles.h"
#include "TiffIO.h"
#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

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

  Jobs::CarrierOptions settings;
  settings.quadrant = options.quadrant;
  settings.pixelsPerFringe = options.pixelsPerFringe;
  settings.threshold = options.threshold;
  settings.minRegion = options.minRegion;
  settings.keepCarrier = options.keepCarrier;
  settings.maxValue = options.maxValue;
  settings.threads = options.threads;
  // The job releases the frame as soon as its pipeline has a copy, and makes a modulation map only
  // when one is to be written.
  Jobs::CarrierJob job;
  const Jobs::CarrierRecord record = job.Run(frames, settings, options.frame, !options.modulationOut.empty());
  ThrowIfFailed(record);
  const Core::DoubleMatrix2D& phase = job.GetPhase();
  const Core::DoubleMatrix2D& modulation = job.GetModulation();

  // The modulation map and the preview are written on a second thread while this one writes the phase.
  std::future<void> others = std::async(std::launch::async, [&] {
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

  std::printf(
      "%s: %d x %d, %d bits, quadrant %d, %d pixels per fringe%s: %.1f %% valid, processed in %.1f ms\n",
      options.frame.c_str(), info.cols, info.rows, info.bitsPerSample, options.quadrant,
      options.pixelsPerFringe, options.keepCarrier ? ", carrier kept" : "", 100.0 * record.validFraction,
      1e3 * record.seconds);
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

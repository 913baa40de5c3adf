// qphase swli: a white-light (coherence) scan, one TIFF page per scan frame, into a height map.
#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include "Analysis/Core/CTimer.h"
#include "Analysis/Core/DebugChannel.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "JobFailure.h"
#include "Jobs/SwliJob.h"
#include "MapPreview.h"
#include "OutputFiles.h"
#include "TiffIO.h"
#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

struct SwliOptions {
  std::string scan;
  std::string heightOut;
  std::string intensityOut;
  std::string pngOut;
  std::string algorithm = "centroid";
  double scanStepNm = 0.0;
  double minModulation = 15.0;
  bool minModulationGiven = false;
  double wavelengthNm = 0.0;
  std::string fringeRemoval = "standard";
  bool reverse = false;
  int maxValue = 0;
  int threads = -1;
};

// The longest scan step taken: a millimetre. Far beyond any coherence scan, and small enough that
// heights (frame number times step) stay finite floats.
constexpr double kMaxScanStepNm = 1e6;

// A finite length above zero, up to kMaxScanStepNm. CLI11's own PositiveNumber names its range with
// the largest double written out in full, some 300 digits.
const CLI::Validator kPositiveLength(
    [](std::string& text) {
      char* end = nullptr;
      const double value = std::strtod(text.c_str(), &end);
      const bool ok = end != text.c_str() && *end == '\0' && value > 0.0 && std::isfinite(value);
      if (!ok) return "must be a positive number of nanometres, not " + text;
      if (value > kMaxScanStepNm)
        return text + " nm is more than a millimetre; a scan step of at most 1000000 nanometres is needed";
      return std::string();
    },
    "NM>0");

// How the scan's sampling was found, for the summary line.
std::string SamplingText(const Jobs::SwliRecord& record) {
  if (record.framesPerFringe <= 0.0) return "fringe period unknown";
  char text[96];
  std::snprintf(text, sizeof text, "%.1f frames per fringe (%s)", record.framesPerFringe,
                record.periodFromWavelength ? "from --wavelength" : "measured");
  return text;
}

int RunSwli(const SwliOptions& options) {
  // Outputs are named before any work, so a clash between them is refused at once.
  OutputFiles outputs;
  outputs.ProtectInput(options.scan);
  WriteTarget heightFile = outputs.Stage(options.heightOut, "-o");
  WriteTarget intensityFile =
      options.intensityOut.empty() ? WriteTarget() : outputs.Stage(options.intensityOut, "--intensity");
  WriteTarget pngFile = options.pngOut.empty() ? WriteTarget() : outputs.Stage(options.pngOut, "--png");

  Core::CTimer stage;
  Core::FrameBuffer frames;
  const TiffStackInfo info = ReadTiffStack(options.scan, frames, 0, options.reverse ? -1 : 1);
  Core::debug_printf("qphase swli: read %s: %g ms\n", options.scan.c_str(), stage.Restart() / 1000.0);

  Jobs::SwliOptions settings;
  settings.algorithm = options.algorithm;
  settings.scanStepNm = options.scanStepNm;
  settings.minModulation = options.minModulation;
  settings.minModulationGiven = options.minModulationGiven;
  settings.wavelengthNm = options.wavelengthNm;
  settings.fringeRemoval = options.fringeRemoval;
  settings.reverse = options.reverse;
  settings.maxValue = options.maxValue;
  settings.threads = options.threads;
  settings.wantIntensity = !options.intensityOut.empty();
  Jobs::SwliJob job;
  const Jobs::SwliRecord record = job.Run(frames, settings, options.scan);
  Core::debug_printf("qphase swli: evaluated: %g ms\n", stage.Restart() / 1000.0);
  ThrowIfFailed(record);
  const Core::DoubleMatrix2D& height = job.GetHeight();

  std::future<void> others = std::async(std::launch::async, [&] {
    if (intensityFile) WriteFloatTiff(std::move(intensityFile), job.GetIntensity());
    if (pngFile) WritePreviewPng(std::move(pngFile), height, PreviewStyle{"height", "nm"});
  });
  std::exception_ptr failure;
  try {
    WriteFloatTiff(std::move(heightFile), height);
  } catch (...) {
    failure = std::current_exception();
  }
  others.get();
  if (failure) std::rethrow_exception(failure);
  outputs.Commit();
  Core::debug_printf("qphase swli: files written: %g ms\n", stage.Restart() / 1000.0);

  std::printf("%s: %d x %d, %d frames of %d bits, algorithm %s: %.1f %% valid", options.scan.c_str(),
              info.cols, info.rows, info.pages, info.bitsPerSample, options.algorithm.c_str(),
              100.0 * record.validFraction);
  std::printf(", %s", SamplingText(record).c_str());
  if (options.algorithm == "fda") {
    if (record.subsamples > 1) {
      std::printf(", %d interleaved subsamples of bins %d .. %d", record.subsamples, record.firstBandBin,
                  record.lastBandBin);
    } else {
      std::printf(", bins %d .. %d", record.firstBandBin, record.lastBandBin);
    }
    std::printf(", equivalent wavelength %.2f nm, average gap %.2f nm", record.equivalentWavelengthNm,
                record.averageGapNm);
  } else if (!record.minModulationScaled) {
    std::printf(", minimum modulation %s %%", Jobs::FormatNumber(record.minModulation).c_str());
  } else {
    std::printf(", minimum modulation %s %% (%s %% scaled to the sampling)",
                Jobs::FormatNumber(record.minModulation).c_str(),
                Jobs::FormatNumber(options.minModulation).c_str());
  }
  std::printf(", evaluated in %.1f ms\n", 1e3 * record.seconds);
  return kExitSuccess;
}

std::function<int()> SetupSwli(CLI::App& app) {
  auto options = std::make_shared<SwliOptions>();
  app.footer(
      "Heights are positions along the scan in nanometres: frame k of a forward scan is at k x the scan "
      "step. "
      "Each pixel's peak frame is where its fringe energy, the sum of (s[j+1] - s[j-1])^2 over the nine "
      "frames "
      "around it, is largest; a 64-frame window is cut around it. The fringe period (frames per fringe, half "
      "the centre wavelength over the step) is measured from the scan, or taken from --wavelength. The "
      "centroid places the surface at the centre of mass of the fringe envelope (robust, any scan step; its "
      "heights count positions from one, one step above the FDA's); its default threshold is scaled to the "
      "fringe period so that a surface keeps its valid pixels at any step. The frequency-domain analysis "
      "(fda) fits the phase of the fringe spectrum (nanometre precision) in a band of bins chosen from the "
      "fringe period; a scan of more than 5.6 frames per fringe (a step finer than about a tenth of the "
      "wavelength) is evaluated as interleaved subsamples of about four frames per fringe whose heights are "
      "averaged. Steps from about a fortieth to a fifth of the centre wavelength are evaluated.");
  app.add_option("scan", options->scan, "Multi-page TIFF, one 8- or 16-bit grayscale page per scan frame")
      ->required();
  app.add_option("-o,--output", options->heightOut,
                 "Height map to write: 32-bit float TIFF, nanometres, NaN = no data")
      ->required();
  app.add_option("--scan-step", options->scanStepNm, "Distance the scan moves between frames, nanometres")
      ->required()
      ->check(kPositiveLength);
  app.add_option("--algorithm", options->algorithm, "centroid or fda")
      ->check(OneOf({"centroid", "fda"}, "centroid or fda"))
      ->capture_default_str();
  app.add_option("--intensity", options->intensityOut,
                 "Fringe-free intensity map to write (32-bit float TIFF, counts)");
  CLI::Option* minModulation =
      app.add_option(
             "--min-modulation", options->minModulation,
             "Pixels whose fringes are modulated less than this percentage of the saturation level get "
             "no height (default for the centroid: 15 % at four frames per fringe, scaled to the scan's "
             "sampling; a value given here is used as it stands)")
          ->check(NumberFrom(0.0, 100.0))
          ->capture_default_str();
  app.add_option("--wavelength", options->wavelengthNm,
                 "Centre wavelength of the light, nanometres: sets the fringe period (wavelength / 2 / scan "
                 "step); without it the period is measured from the scan")
      ->check(kPositiveLength);
  app.add_option(
         "--fringe-removal", options->fringeRemoval,
         "How the intensity is freed of fringes: standard (8 frames weighted 1 1 3 3 3 3 1 1 at the peak), "
         "64full (the mean of the 64-frame window) or none (no intensity map)")
      ->check(OneOf({"none", "standard", "64full"}, "none, standard or 64full"))
      ->capture_default_str();
  app.add_flag("--reverse", options->reverse,
               "The scan ran the other way: frame k was taken at (frames - k) x the scan step");
  AddMaxValueOption(app, options->maxValue);
  AddThreadsOption(app, options->threads, "Worker threads (0 or 1: the calling thread only; default: all)");
  app.add_option("--png", options->pngOut, "Colour preview of the heights with a colour bar");
  return [options, minModulation] {
    options->minModulationGiven = minModulation->count() > 0;
    return RunSwli(*options);
  };
}

[[maybe_unused]] const bool registered =
    RegisterCommand({"swli", "Surface heights from a white-light (coherence) scan", SetupSwli});

}  // namespace

}  // namespace Quarn::Qphase

// qphase swli: a white-light (coherence) scan, one TIFF page per scan frame, into a height map.
#include <CLI/CLI.hpp>

#include <chrono>
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
#include "Analysis/Core/IntMatrix2D.h"
#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/Threading/CpuCounter.h"
#include "Analysis/Core/UnitNumber.h"
#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "MapPreview.h"
#include "OutputFiles.h"
#include "Swli/CoherenceDiscriminator.h"
#include "Swli/PhaseAlgorithmCentroid.h"
#include "Swli/PhaseAlgorithmFda.h"
#include "Swli/PhaseGenerator.h"
#include "Swli/ScanSampling.h"
#include "Swli/SubsampledEvaluation.h"
#include "TiffIO.h"
#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

namespace Swli = ::Quarn::Metrology::PhaseProcessing::Core::Swli;
namespace StatusCode = Core::StatusCode;

// The signal window the algorithms cut around each pixel's peak.
constexpr int kSignalFrames = 64;

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

std::string FormatNumber(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

Swli::FringeRemovalMethod MethodFor(const std::string& name) {
  if (name == "none") return Swli::FringeRemovalMethod::kNone;
  if (name == "64full") return Swli::FringeRemovalMethod::k64Bucket;
  return Swli::FringeRemovalMethod::kStandard;
}

// Why no pixel got a height, in the terms of the chosen algorithm.
std::string NoValidPixelReason(const SwliOptions& options, int maxValue, double minModulation, int firstBin,
                               int lastBin) {
  std::string reason = "no pixel has fringes modulated by at least " + FormatNumber(minModulation) +
                       " % of the saturation level " + std::to_string(maxValue) +
                       " within its 64-frame window, at least 32 frames from either end of the scan";
  if (options.algorithm == "fda") {
    reason += ", with its fringe frequency in bins " + std::to_string(firstBin) + " .. " +
              std::to_string(lastBin) + " of 64";
  }
  return reason;
}

// How the scan's sampling was found, for the summary line.
std::string SamplingText(const Swli::ScanSampling& sampling, const SwliOptions& options) {
  if (!sampling.IsKnown()) return "fringe period unknown";
  char text[96];
  std::snprintf(text, sizeof text, "%.1f frames per fringe (%s)", sampling.GetFringePeriodFrames(),
                options.wavelengthNm > 0.0 ? "from --wavelength" : "measured");
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
  if (info.pages <= kSignalFrames) {
    throw UsageError(
        options.scan + " has " + std::to_string(info.pages) +
        " frames; a white-light evaluation cuts a 64-frame window around each pixel's peak and needs "
        "more than 64");
  }
  if (!options.intensityOut.empty() && options.fringeRemoval == "none") {
    throw UsageError(
        "--intensity needs a fringe-removal method; --fringe-removal none makes no intensity map");
  }
  if (options.maxValue > 0) frames.SetMaxValue(options.maxValue);

  const auto start = std::chrono::steady_clock::now();
  const int threads = options.threads < 0 ? Core::Threading::CpuCounter::Instance().GetNumberOfProcessors()
                                          : std::max(options.threads, 1);
  Core::IntMatrix2D peaks;
  Swli::FindPeakFrames(frames, peaks, threads);
  Core::IntMatrix2D auxiliary(info.rows, info.cols);
  auxiliary.SetAll(0);
  Core::debug_printf("qphase swli: peak frames found: %g ms\n", stage.Restart() / 1000.0);

  // The sampling of the fringes sets the FDA's band (or its subsamples) and the centroid's default
  // threshold; a scan whose period cannot be measured keeps the algorithms' defaults.
  Swli::ScanSampling sampling;
  if (options.wavelengthNm > 0.0) {
    sampling.SetFromWavelength(options.wavelengthNm, options.scanStepNm);
  } else {
    sampling.Measure(frames, peaks);
  }
  const double minModulation = options.minModulationGiven
                                   ? options.minModulation
                                   : sampling.ScaledMinimumModulation(options.minModulation);
  const bool fdaRun = options.algorithm == "fda";
  const int factor = fdaRun ? sampling.SubsampleFactor(info.pages) : 1;
  Core::debug_printf("qphase swli: sampling: %g ms\n", stage.Restart() / 1000.0);

  Swli::PhaseAlgorithmCentroid centroid;
  Swli::PhaseAlgorithmFda fda;
  Swli::PhaseAlgorithm& algorithm = options.algorithm == "fda" ? static_cast<Swli::PhaseAlgorithm&>(fda)
                                                               : static_cast<Swli::PhaseAlgorithm&>(centroid);
  centroid.SetMinimumModulation(minModulation);
  fda.SetMinimumModulation(options.minModulation);
  sampling.ApplyTo(fda);
  algorithm.SetScanIncrement(
      Core::UnitNumber(options.scanStepNm, Core::LinearConverter(Core::Units::kNanometers)));
  algorithm.SetRemoveFringes(MethodFor(options.fringeRemoval));
  Core::IntMatrix2D intensity;
  algorithm.SetIntensityMatrix(intensity);

  Core::DoubleMatrix2D height(info.rows, info.cols);
  height.SetAll(0.0);  // every pixel is evaluated
  Swli::PhaseGenerator generator(&algorithm);
  Swli::SubsampledEvaluation subsampled;
  if (factor > 1) {
    subsampled.Process(frames, factor, options.scanStepNm, algorithm, sampling, threads, height);
  } else {
    generator.SetAllowMultiThreads(threads > 1);
    generator.SetMaxNumThreads(threads);
    generator.Process(frames, peaks, auxiliary, height);
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  Core::debug_printf("qphase swli: evaluated: %g ms\n", stage.Restart() / 1000.0);

  const Core::Status& status = factor > 1 ? subsampled.GetStatus() : generator.GetStatus();
  if (status.GetCode() == StatusCode::kNoValidResult) {
    throw NoResultError("no valid pixel in " + options.scan + ": " +
                        NoValidPixelReason(options, frames.GetMaxValue(), minModulation,
                                           fda.GetFirstBandBin(), fda.GetLastBandBin()) +
                        "; nothing written");
  }
  if (status.IsError()) throw UsageError(options.scan + ": " + status.GetPrintString());

  std::int64_t validPixels = 0;
  std::future<void> others = std::async(std::launch::async, [&] {
    validPixels = height.CountValid();
    if (intensityFile) WriteFloatTiff(std::move(intensityFile), intensity);
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

  const double valid = static_cast<double>(validPixels) / static_cast<double>(height.GetCount());
  std::printf("%s: %d x %d, %d frames of %d bits, algorithm %s: %.1f %% valid", options.scan.c_str(),
              info.cols, info.rows, info.pages, info.bitsPerSample, options.algorithm.c_str(), 100.0 * valid);
  std::printf(", %s", SamplingText(sampling, options).c_str());
  if (fdaRun) {
    if (factor > 1) {
      std::printf(", %d interleaved subsamples of bins %d .. %d", factor, fda.GetFirstBandBin(),
                  fda.GetLastBandBin());
    } else {
      std::printf(", bins %d .. %d", fda.GetFirstBandBin(), fda.GetLastBandBin());
    }
    std::printf(", equivalent wavelength %.2f nm, average gap %.2f nm", fda.GetWaveLength(),
                fda.GetAverageGap());
  } else if (options.minModulationGiven || !sampling.IsKnown()) {
    std::printf(", minimum modulation %s %%", FormatNumber(minModulation).c_str());
  } else {
    std::printf(", minimum modulation %s %% (%s %% scaled to the sampling)",
                FormatNumber(minModulation).c_str(), FormatNumber(options.minModulation).c_str());
  }
  std::printf(", evaluated in %.1f ms\n", 1e3 * seconds);
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

// qphase psi: a phase-shifted frame stack (multi-page TIFF) into phase and modulation maps.
#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "Analysis/Core/CTimer.h"
#include "Analysis/Core/DebugChannel.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "MapPreview.h"
#include "OutputFiles.h"
#include "Psi/Convert13.h"
#include "Psi/Convert20.h"
#include "Psi/Convert7.h"
#include "Psi/ConvertSliding13.h"
#include "Psi/ConverterGenerator.h"
#include "TiffIO.h"
#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

namespace Psi = ::Quarn::Metrology::PhaseProcessing::Core::Psi;
namespace StatusCode = Core::StatusCode;

struct PsiOptions {
  std::string stack;
  std::string phaseOut;
  std::string modulationOut;
  std::string pngOut;
  std::string algorithm;
  double minModulation = 15.0;
  bool estimateMagnitude = false;
  int phaseSign = 1;
  std::vector<double> frameWeights;
  int maxValue = 0;
  int threads = -1;
};

std::string FormatNumber(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

// The algorithm for a stack of `frames` frames: the one asked for, checked against the count, or
// the one the count selects (7, 13, 20; more than 13 and not 20: the sliding 13-frame kernel).
std::string ChooseAlgorithm(const std::string& requested, int frames, const std::string& stack) {
  const std::string count = stack + " has " + std::to_string(frames) + " frames";
  if (requested.empty()) {
    if (frames == 7 || frames == 13 || frames == 20) return std::to_string(frames);
    if (frames > 13) return "sliding13";
    throw UsageError(count + "; no algorithm fits (7, 13 or 20 frames, or more than 13 for sliding13)");
  }
  if (requested == "sliding13") {
    if (frames < 13) throw UsageError("the sliding 13-frame algorithm needs at least 13 frames, " + count);
    return requested;
  }
  if (std::to_string(frames) != requested) {
    throw UsageError("the " + requested + "-frame algorithm needs " + requested + " frames, " + count);
  }
  return requested;
}

int RunPsi(const PsiOptions& options) {
  // Outputs are named first, so that a clash between them is refused before any work is done.
  OutputFiles outputs;
  const std::string phasePath = outputs.Stage(options.phaseOut, "-o");
  const std::string modulationPath =
      options.modulationOut.empty() ? std::string() : outputs.Stage(options.modulationOut, "--modulation");
  const std::string pngPath = options.pngOut.empty() ? std::string() : outputs.Stage(options.pngOut, "--png");

  Core::CTimer stage;
  Core::FrameBuffer frames;
  const TiffStackInfo info = ReadTiffStack(options.stack, frames);
  Core::debug_printf("qphase psi: read %s: %g ms\n", options.stack.c_str(), stage.Restart() / 1000.0);
  const std::string algorithm = ChooseAlgorithm(options.algorithm, info.pages, options.stack);
  if (options.maxValue > 0) frames.SetMaxValue(options.maxValue);
  if (!options.frameWeights.empty() && static_cast<int>(options.frameWeights.size()) != info.pages) {
    throw UsageError("--frame-weights gives " + std::to_string(options.frameWeights.size()) + " weights, " +
                     options.stack + " has " + std::to_string(info.pages) + " frames");
  }

  Psi::Convert7 seven;
  Psi::Convert13 thirteen;
  Psi::Convert20 twenty;
  Psi::ConvertSliding13 sliding;
  Psi::Converter* converter = algorithm == "7"    ? static_cast<Psi::Converter*>(&seven)
                              : algorithm == "13" ? static_cast<Psi::Converter*>(&thirteen)
                              : algorithm == "20" ? static_cast<Psi::Converter*>(&twenty)
                                                  : static_cast<Psi::Converter*>(&sliding);
  Psi::ConverterGenerator generator;
  generator.SetAlgorithm(converter);
  generator.SetMinimumModulation(options.minModulation);
  generator.SetEstimateMagnitude(options.estimateMagnitude);
  generator.SetPhaseSign(options.phaseSign);
  if (options.threads == 0) {
    generator.SetAllowMultiThreads(false);
  } else if (options.threads > 0) {
    generator.SetNumberOfThreads(options.threads);
  }
  Core::Array<double> weights;
  for (const double w : options.frameWeights)
    weights.Add(w);

  Core::DoubleMatrix2D phase(info.rows, info.cols);
  std::unique_ptr<Core::DoubleMatrix2D> modulation;
  if (!options.modulationOut.empty())
    modulation = std::make_unique<Core::DoubleMatrix2D>(info.rows, info.cols);
  Core::debug_printf("qphase psi: maps allocated: %g ms\n", stage.Restart() / 1000.0);
  const auto start = std::chrono::steady_clock::now();
  generator.Process(frames, phase, modulation.get(), options.frameWeights.empty() ? nullptr : &weights);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  Core::debug_printf("qphase psi: converted: %g ms\n", stage.Restart() / 1000.0);
  const Core::Status& status = generator.GetStatus();
  if (status.GetCode() == StatusCode::kNoValidResult) {
    throw NoResultError("no valid pixel in " + options.stack +
                        ": every pixel is saturated (a sample reaches " +
                        std::to_string(frames.GetMaxValue()) + ") or modulated less than " +
                        FormatNumber(options.minModulation) + " % of it; nothing written");
  }
  if (status.IsError()) throw UsageError(options.stack + ": " + status.GetPrintString());

  // The files are independent: the modulation map and the preview are written on a second thread
  // while this one writes the phase.
  std::int64_t validPixels = 0;
  std::future<void> others = std::async(std::launch::async, [&] {
    validPixels = phase.CountValid();
    if (modulation) WriteFloatTiff(modulationPath, *modulation);
    if (!pngPath.empty()) {
      const double bound = std::numbers::pi;
      WritePreviewPng(pngPath, phase, PreviewStyle{"phase", "rad", true, -bound, bound});
    }
  });
  std::exception_ptr failure;
  try {
    WriteFloatTiff(phasePath, phase);
  } catch (...) {
    failure = std::current_exception();
  }
  others.get();  // rethrows a failure of the second thread
  if (failure) std::rethrow_exception(failure);
  Core::debug_printf("qphase psi: files written: %g ms\n", stage.Restart() / 1000.0);
  outputs.Commit();
  Core::debug_printf("qphase psi: files in place: %g ms\n", stage.Restart() / 1000.0);

  const double valid = static_cast<double>(validPixels) / static_cast<double>(phase.GetCount());
  std::printf("%s: %d x %d, %d frames of %d bits, algorithm %s: %.1f %% valid, converted in %.1f ms\n",
              options.stack.c_str(), info.cols, info.rows, info.pages, info.bitsPerSample, algorithm.c_str(),
              100.0 * valid, 1e3 * seconds);
  return kExitSuccess;
}

std::function<int()> SetupPsi(CLI::App& app) {
  auto options = std::make_shared<PsiOptions>();
  app.add_option("stack", options->stack, "Multi-page TIFF, one 8- or 16-bit grayscale page per frame")
      ->required()
      ->check(CLI::ExistingFile);
  app.add_option("-o,--output", options->phaseOut,
                 "Phase map to write: 32-bit float TIFF, radians, NaN = no data")
      ->required();
  app.add_option("--modulation", options->modulationOut,
                 "Modulation map to write (32-bit float TIFF, counts)");
  app.add_option("--algorithm", options->algorithm,
                 "7, 13, 20 or sliding13; by default chosen from the frame count")
      ->check(CLI::IsMember({"7", "13", "20", "sliding13"}));
  app.add_option("--min-modulation", options->minModulation,
                 "Pixels modulated less than this percentage of the saturation level get no data")
      ->check(NumberFrom(0.0, 100.0))
      ->capture_default_str();
  app.add_flag("--estimate-magnitude", options->estimateMagnitude,
               "Use |N| + |D| instead of sqrt(N^2 + D^2)");
  app.add_option("--phase-sign", options->phaseSign, "Sign applied to the phase (1 or -1)")
      ->check(CLI::IsMember({1, -1}))
      ->capture_default_str();
  app.add_option("--frame-weights", options->frameWeights,
                 "Relative brightness of each frame, comma separated")
      ->delimiter(',')
      ->check(NumberAbove(0.0));
  AddMaxValueOption(app, options->maxValue);
  AddThreadsOption(app, options->threads);
  app.add_option("--png", options->pngOut, "Colour preview of the phase with a colour bar");
  return [options] { return RunPsi(*options); };
}

[[maybe_unused]] const bool registered =
    RegisterCommand({"psi", "Phase and modulation from a phase-shifted frame stack", SetupPsi});

}  // namespace

}  // namespace Quarn::Qphase

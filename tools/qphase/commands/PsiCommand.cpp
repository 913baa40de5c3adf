// qphase psi: a phase-shifted frame stack (multi-page TIFF) into phase and modulation maps.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <future>
#include <memory>
#include <numbers>
#include <string>
#include <utility>
#include <vector>

#include "Analysis/Core/CTimer.h"
#include "Analysis/Core/DebugChannel.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "JobFailure.h"
#include "Jobs/PsiJob.h"
#include "MapPreview.h"
#include "OutputFiles.h"
#include "TiffIO.h"
#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

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

int RunPsi(const PsiOptions& options) {
  // Outputs are named first, so that a clash between them is refused before any work is done.
  OutputFiles outputs;
  outputs.ProtectInput(options.stack);
  WriteTarget phaseFile = outputs.Stage(options.phaseOut, "-o");
  WriteTarget modulationFile =
      options.modulationOut.empty() ? WriteTarget() : outputs.Stage(options.modulationOut, "--modulation");
  WriteTarget pngFile = options.pngOut.empty() ? WriteTarget() : outputs.Stage(options.pngOut, "--png");

  Core::CTimer stage;
  Core::FrameBuffer frames;
  const TiffStackInfo info = ReadTiffStack(options.stack, frames);
  Core::debug_printf("qphase psi: read %s: %g ms\n", options.stack.c_str(), stage.Restart() / 1000.0);

  Jobs::PsiOptions settings;
  settings.algorithm = options.algorithm;
  settings.minModulation = options.minModulation;
  settings.estimateMagnitude = options.estimateMagnitude;
  settings.phaseSign = options.phaseSign;
  settings.frameWeights = options.frameWeights;
  settings.maxValue = options.maxValue;
  settings.threads = options.threads;
  Jobs::PsiJob job;
  Jobs::PsiRecord record;
  if (!pngFile) {
    // Without a preview no map is needed whole: the stack is converted a strip of rows at a time and
    // each strip written as it comes, so that no map of doubles is ever made (a 2048 x 2048 pair
    // would be 64 MB of fresh memory for the system to clear) and the strips are written from the
    // cache.
    FloatTiffWriter phaseWriter(std::move(phaseFile), frames.GetRows(), frames.GetColumns());
    std::unique_ptr<FloatTiffWriter> modulationWriter;
    if (modulationFile)
      modulationWriter =
          std::make_unique<FloatTiffWriter>(std::move(modulationFile), frames.GetRows(), frames.GetColumns());
    record = job.RunInBands(
        frames, settings, options.stack, modulationWriter != nullptr, phaseWriter.RowsPerStrip(),
        [&](int, const Core::DoubleMatrix2D& phase, const Core::DoubleMatrix2D* modulation) {
          phaseWriter.Append(phase);
          if (modulation) modulationWriter->Append(*modulation);
        });
    Core::debug_printf("qphase psi: converted and written: %g ms\n", stage.Restart() / 1000.0);
    ThrowIfFailed(record);
    phaseWriter.Finish();
    if (modulationWriter) modulationWriter->Finish();
  } else {
    record = job.Run(frames, settings, options.stack, !options.modulationOut.empty());
    Core::debug_printf("qphase psi: converted: %g ms\n", stage.Restart() / 1000.0);
    ThrowIfFailed(record);
    const Core::DoubleMatrix2D& phase = job.GetPhase();

    // The files are independent: the modulation map and the preview are written on a second thread
    // while this one writes the phase.
    std::future<void> others = std::async(std::launch::async, [&] {
      if (modulationFile) WriteFloatTiff(std::move(modulationFile), job.GetModulation());
      const double bound = std::numbers::pi;
      WritePreviewPng(std::move(pngFile), phase, PreviewStyle{"phase", "rad", true, -bound, bound});
    });
    std::exception_ptr failure;
    try {
      WriteFloatTiff(std::move(phaseFile), phase);
    } catch (...) {
      failure = std::current_exception();
    }
    others.get();  // rethrows a failure of the second thread
    if (failure) std::rethrow_exception(failure);
  }
  Core::debug_printf("qphase psi: files written: %g ms\n", stage.Restart() / 1000.0);
  outputs.Commit();
  Core::debug_printf("qphase psi: files in place: %g ms\n", stage.Restart() / 1000.0);

  std::printf("%s: %d x %d, %d frames of %d bits, algorithm %s: %.1f %% valid, converted in %.1f ms\n",
              options.stack.c_str(), info.cols, info.rows, info.pages, info.bitsPerSample,
              record.algorithm.c_str(), 100.0 * record.validFraction, 1e3 * record.seconds);
  return kExitSuccess;
}

std::function<int()> SetupPsi(CLI::App& app) {
  auto options = std::make_shared<PsiOptions>();
  app.add_option("stack", options->stack, "Multi-page TIFF, one 8- or 16-bit grayscale page per frame")
      ->required();
  app.add_option("-o,--output", options->phaseOut,
                 "Phase map to write: 32-bit float TIFF, radians, NaN = no data")
      ->required();
  app.add_option("--modulation", options->modulationOut,
                 "Modulation map to write (32-bit float TIFF, counts)");
  app.add_option("--algorithm", options->algorithm,
                 "7, 13, 20 or sliding13; by default chosen from the frame count")
      ->check(OneOf({"7", "13", "20", "sliding13"}, "7, 13, 20 or sliding13"));
  app.add_option("--min-modulation", options->minModulation,
                 "Pixels modulated less than this percentage of the saturation level get no data")
      ->check(NumberFrom(0.0, 100.0))
      ->capture_default_str();
  app.add_flag("--estimate-magnitude", options->estimateMagnitude,
               "Use |N| + |D| instead of sqrt(N^2 + D^2)");
  app.add_option("--phase-sign", options->phaseSign, "Sign applied to the phase (1 or -1)")
      ->check(OneOf({"1", "-1"}, "1 or -1"))
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

// qphase film-library: the model library of a film stack for a scan sampling, written to a file
// that `qphase film --library` reuses.
#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "Analysis/Core/CTimer.h"
#include "Analysis/Core/DebugChannel.h"
#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "OutputFiles.h"
#include "ToolError.h"
#include "commands/FilmLibrary.h"
#include "io/LibraryTiff.h"

namespace Quarn::Qphase {

namespace {

struct FilmLibraryOptions {
  std::string stack;
  std::string out;
  int frames = 0;
  double scanStepNm = 0.0;
};

int RunFilmLibrary(const FilmLibraryOptions& options) {
  OutputFiles outputs;
  WriteTarget libraryFile = outputs.Stage(options.out, "-o");
  Core::CTimer stage;
  const auto start = std::chrono::steady_clock::now();
  Core::DoubleMatrix2D matrix;
  LibraryFileInfo info;
  BuildFilmLibrary(options.stack, options.frames, options.scanStepNm, matrix, info);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  Core::debug_printf("qphase film-library: generated: %g ms\n", stage.Restart() / 1000.0);
  WriteLibraryTiff(std::move(libraryFile), matrix, info);
  outputs.Commit();
  Core::debug_printf("qphase film-library: written: %g ms\n", stage.Restart() / 1000.0);
  std::printf("%s: %d signals (%s %d values", options.out.c_str(), matrix.GetRows(),
              info.variable1.kind.c_str(), info.variable1.count);
  if (info.variable2.kind != "Undefined")
    std::printf(" x %s %d values", info.variable2.kind.c_str(), info.variable2.count);
  std::printf("), %d frames of %g nm, valid bins %d .. %d of %d, generated in %.1f ms\n", info.samples,
              info.scanStepNm, info.firstValidBin, info.lastValidBin, info.samples / 2, 1e3 * seconds);
  return kExitSuccess;
}

std::function<int()> SetupFilmLibrary(CLI::App& app) {
  auto options = std::make_shared<FilmLibraryOptions>();
  app.footer(
      "The library holds one modelled scan spectrum per value of the STACK.json's varied parameters "
      "(rows), real and imaginary parts of each bin side by side (columns), as a 64-bit float TIFF that "
      "records the scan sampling, the valid bins and the varied values.");
  app.add_option("--stack", options->stack, "Film-stack description (JSON)")
      ->required()
      ->check(CLI::ExistingFile);
  app.add_option("--frames", options->frames, "Scan frames the library is computed for (a multiple of 4)")
      ->required()
      ->check(WholeNumberFrom(8, 1 << 16) & CLI::Validator(
                                                [](std::string& text) {
                                                  return std::stol(text) % 4 == 0
                                                             ? std::string()
                                                             : "must be a multiple of 4, not " + text;
                                                },
                                                "N%4==0"));
  app.add_option("--scan-step", options->scanStepNm, "Distance the scan moves between frames, nanometres")
      ->required()
      ->check(NumberAbove(0.0));
  app.add_option("-o,--output", options->out, "Library file to write (64-bit float TIFF)")->required();
  return [options] { return RunFilmLibrary(*options); };
}

[[maybe_unused]] const bool registered =
    RegisterCommand({"film-library", "Model library of a film stack for a scan sampling", SetupFilmLibrary});

}  // namespace

}  // namespace Quarn::Qphase

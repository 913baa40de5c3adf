// qphase film: a white-light scan of a transparent film matched against the model library of its
// film stack: the height of the zero-height layer's top, the varied parameters and the merit.
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <atomic>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "Analysis/Core/CTimer.h"
#include "Analysis/Core/DebugChannel.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "JobFailure.h"
#include "Jobs/FilmJob.h"
#include "JsonText.h"
#include "MapPreview.h"
#include "OutputFiles.h"
#include "TiffIO.h"
#include "ToolError.h"
#include "commands/FilmLibrary.h"
#include "io/LibraryTiff.h"

namespace Quarn::Qphase {

namespace {

struct FilmOptions {
  std::string scan, stack, heightOut, thicknessOut, variable2Out, meritOut, library, pngOut, jsonOut;
  Jobs::FilmOptions job;
};

// The library for this scan: generated from the stack, or read from a file and resampled to the
// scan's frame count and step where they differ.
void PrepareLibrary(const FilmOptions& options, int samples, Core::DoubleMatrix2D& matrix,
                    LibraryFileInfo& info) {
  if (options.library.empty()) {
    BuildFilmLibrary(options.stack, samples, options.job.scanStepNm, matrix, info);
    return;
  }
  ReadLibraryTiff(options.library, matrix, info);
  Jobs::JobRecord record;
  if (!Jobs::ResampleFilmLibrary(matrix, info, options.library, samples, options.job.scanStepNm, record))
    throw UsageError(record.message);
}

// The search's progress on a terminal: one line rewritten as rows finish, at most once per percent.
class ProgressLine {
 public:
  explicit ProgressLine(std::string head) : head_(std::move(head)) {}
  void Row(int done, int rows) {
    const int percent = static_cast<int>(100LL * done / rows);
    int shown = shown_.load(std::memory_order_relaxed);
    // One worker wins each new percent; the others skip the line.
    while (percent > shown)
      if (shown_.compare_exchange_weak(shown, percent)) {
        std::fprintf(stderr, "\r%s: row %d of %d", head_.c_str(), done, rows);
        break;
      }
  }
  void End() const {
    if (shown_.load() >= 0) std::fputc('\n', stderr);
  }

 private:
  std::string head_;
  std::atomic<int> shown_{-1};
};

int RunFilm(FilmOptions& options) {
  if (options.stack.empty() == options.library.empty())
    throw UsageError(options.stack.empty() ? "--stack or --library is required"
                                           : "--stack and --library exclude each other");
  OutputFiles outputs;
  outputs.ProtectInput(options.scan);
  if (!options.library.empty()) outputs.ProtectInput(options.library, "--library");
  if (!options.stack.empty()) outputs.ProtectInput(options.stack, "--stack");
  WriteTarget heightFile = outputs.Stage(options.heightOut, "-o");
  auto stage = [&](const std::string& path, const char* what) {
    return path.empty() ? WriteTarget() : outputs.Stage(path, what);
  };
  WriteTarget thicknessFile = stage(options.thicknessOut, "--thickness");
  WriteTarget variable2File = stage(options.variable2Out, "--variable2");
  WriteTarget meritFile = stage(options.meritOut, "--merit");
  WriteTarget pngFile = stage(options.pngOut, "--png");
  WriteTarget jsonFile = stage(options.jsonOut, "--json");

  Core::CTimer timer;
  Core::FrameBuffer frames;
  const TiffStackInfo scan = ReadTiffStack(options.scan, frames, 0, 1);
  Core::debug_printf("qphase film: read %s: %g ms\n", options.scan.c_str(), timer.Restart() / 1000.0);
  Jobs::JobRecord checked;
  if (!Jobs::FilmJob::CheckScan(frames, options.job, options.scan, checked)) ThrowIfFailed(checked);
  const int samples = Jobs::FilmLibrarySamples(scan.pages);

  Core::DoubleMatrix2D library;
  LibraryFileInfo info;
  PrepareLibrary(options, samples, library, info);
  Core::debug_printf("qphase film: library of %d signals ready: %g ms\n", library.GetRows(),
                     timer.Restart() / 1000.0);

  std::unique_ptr<ProgressLine> progress;
  if (isatty(fileno(stderr)) != 0 && static_cast<double>(scan.rows) * scan.cols * library.GetRows() > 5e7) {
    progress = std::make_unique<ProgressLine>("qphase film: matching " + std::to_string(scan.cols) + " x " +
                                              std::to_string(scan.rows) + " pixels against " +
                                              std::to_string(library.GetRows()) + " signals");
    options.job.progress = [line = progress.get()](int done, int rows) { line->Row(done, rows); };
  }
  Jobs::FilmJob job;
  const Jobs::FilmRecord record = job.Run(frames, library, info, options.job, options.scan);
  if (progress) progress->End();
  Core::debug_printf("qphase film: searched: %g ms\n", timer.Restart() / 1000.0);
  ThrowIfFailed(record);

  WriteFloatTiff(std::move(heightFile), job.GetHeight());
  if (thicknessFile) WriteFloatTiff(std::move(thicknessFile), job.GetThickness());
  if (variable2File) WriteFloatTiff(std::move(variable2File), job.GetVariable2());
  if (meritFile) WriteFloatTiff(std::move(meritFile), job.GetMerit());
  if (pngFile)
    WritePreviewPng(std::move(pngFile), job.GetThickness(),
                    PreviewStyle{info.variable1.kind, record.variable1InNm ? "nm" : ""});
  if (jsonFile) {
    nlohmann::json summary = {{"scan", options.scan},
                              {"rows", scan.rows},
                              {"columns", scan.cols},
                              {"frames", scan.pages},
                              {"scan_step_nm", options.job.scanStepNm},
                              {"search", options.job.search},
                              {"signals", library.GetRows()},
                              {"variable1", info.variable1.kind},
                              {"valid_fraction", record.validFraction},
                              {"mean_variable1", record.meanVariable1},
                              {"search_seconds", record.seconds}};
    WriteBytes(std::move(jsonFile), JsonText(summary));
  }
  outputs.Commit();
  Core::debug_printf("qphase film: files written: %g ms\n", timer.Restart() / 1000.0);
  std::printf(
      "%s: %d x %d, %d frames, %d library signals, search %s: %.1f %% valid, mean %s %.2f%s, searched in "
      "%.1f ms\n",
      options.scan.c_str(), scan.cols, scan.rows, scan.pages, library.GetRows(), options.job.search.c_str(),
      100.0 * record.validFraction, info.variable1.kind.c_str(), record.meanVariable1,
      record.variable1InNm ? " nm" : "", 1e3 * record.seconds);
  return kExitSuccess;
}

std::function<int()> SetupFilm(CLI::App& app) {
  auto options = std::make_shared<FilmOptions>();
  app.footer(
      "Each pixel's scan is matched against the model library of the film stack (generated from --stack, "
      "or read from --library and resampled when its sampling differs). HEIGHT is the top of the "
      "zero-height layer in nanometres along the scan, frame k at k x the scan step as for qphase swli; "
      "T and V are the values of the varied parameters (nanometres for a thickness); NaN = no result.");
  app.add_option("scan", options->scan, "Multi-page TIFF, one 8- or 16-bit grayscale page per scan frame")
      ->required()
      ->check(CLI::ExistingFile);
  app.add_option("--stack", options->stack, "Film-stack description (JSON)")->check(CLI::ExistingFile);
  app.add_option("--library", options->library, "Library file written by qphase film-library")
      ->check(CLI::ExistingFile);
  app.add_option("--scan-step", options->job.scanStepNm, "Distance the scan moves between frames, nanometres")
      ->required()
      ->check(NumberAbove(0.0));
  app.add_option("-o,--output", options->heightOut, "Height map: 32-bit float TIFF, nanometres")->required();
  app.add_option("--thickness", options->thicknessOut, "Variable 1 map (nm for a thickness)");
  app.add_option("--variable2", options->variable2Out, "Variable 2 map");
  app.add_option("--merit", options->meritOut,
                 "Merit map: normalised correlation with the matched signal, 0 .. 1");
  app.add_option("--search", options->job.search, "linear (every signal), fast (coarse to fine) or magonly")
      ->check(CLI::IsMember({"linear", "fast", "magonly"}))
      ->capture_default_str();
  app.add_option("--min-modulation", options->job.minModulation,
                 "Pixels whose fringe contrast is below this percentage of their mean level get no result")
      ->check(NumberFrom(0.0, 100.0))
      ->capture_default_str();
  app.add_option("--correlation-threshold", options->job.correlationThreshold,
                 "Pixels whose merit is below this get no result")
      ->check(NumberFrom(-1.0, 1.0))
      ->capture_default_str();
  app.add_flag("--reverse", options->job.reverse, "The scan ran the other way");
  AddMaxValueOption(app, options->job.maxValue);
  AddThreadsOption(app, options->job.threads);
  app.add_option("--png", options->pngOut, "Colour preview of variable 1 with a colour bar");
  app.add_option("--json", options->jsonOut, "Summary of the run (JSON)");
  return [options] { return RunFilm(*options); };
}

[[maybe_unused]] const bool registered = RegisterCommand(
    {"film", "Film thickness and height from a white-light scan and a film-stack model", SetupFilm});

}  // namespace

}  // namespace Quarn::Qphase

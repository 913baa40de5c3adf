// qphase film: a white-light scan of a transparent film matched against the model library of its
// film stack: the height of the zero-height layer's top, the varied parameters and the merit.
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "Analysis/Core/CTimer.h"
#include "Analysis/Core/DebugChannel.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/Threading/CpuCounter.h"
#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "JsonText.h"
#include "MapPreview.h"
#include "OutputFiles.h"
#include "SwliMba/Search/LibraryResampler.h"
#include "SwliMba/Search/LibrarySearch.h"
#include "TiffIO.h"
#include "ToolError.h"
#include "commands/FilmLibrary.h"
#include "io/LibraryTiff.h"

namespace Quarn::Qphase {

namespace {

namespace Search = ::Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search;

struct FilmOptions {
  std::string scan, stack, heightOut, thicknessOut, variable2Out, meritOut, library, pngOut, jsonOut;
  std::string search = "fast";
  double scanStepNm = 0.0;
  double minModulation = 5.0;
  double correlationThreshold = 0.0;
  bool reverse = false;
  int maxValue = 0;
  int threads = -1;
};

// Converts a variable's value to the unit of the maps: nanometres for a thickness.
double MapUnit(const LibraryVariable& v) {
  return v.kind == "Thickness" ? 1000.0 : 1.0;
}

// The library for this scan: generated from the stack, or read from a file and resampled to the
// scan's frame count and step where they differ.
void PrepareLibrary(const FilmOptions& options, int samples, Core::DoubleMatrix2D& matrix,
                    LibraryFileInfo& info) {
  if (options.library.empty()) {
    BuildFilmLibrary(options.stack, samples, options.scanStepNm, matrix, info);
    return;
  }
  ReadLibraryTiff(options.library, matrix, info);
  if (info.samples == samples && info.scanStepNm == options.scanStepNm) return;
  Search::LibraryResampler resampler;
  resampler.SetInputRampSlope(info.scanStepNm);
  resampler.SetOutputRampSlope(options.scanStepNm);
  resampler.SetNumberOfOutputSamples(samples);
  Core::DoubleMatrix2D mirror(1, static_cast<int>(2 * info.perfectMirror.size()));
  for (std::size_t j = 0; j < info.perfectMirror.size(); ++j) {
    mirror(0, static_cast<int>(2 * j)) = info.perfectMirror[j].real();
    mirror(0, static_cast<int>(2 * j + 1)) = info.perfectMirror[j].imag();
  }
  Core::DoubleMatrix2D resampled, resampledMirror;
  ToggleSpectrumOrigin(matrix);
  ToggleSpectrumOrigin(mirror);
  resampler.Execute(mirror, resampledMirror);
  if (resampler.GetStatus().IsOk()) resampler.Execute(matrix, resampled);
  if (resampler.GetStatus().IsError())
    throw UsageError(options.library + ": cannot be resampled to " + std::to_string(samples) + " frames of " +
                     std::to_string(options.scanStepNm) + " nm: " + resampler.GetStatus().GetMessage());
  ToggleSpectrumOrigin(resampled);
  ToggleSpectrumOrigin(resampledMirror);
  matrix = resampled;
  info.perfectMirror.assign(static_cast<std::size_t>(resampledMirror.GetColumns() / 2), {});
  for (std::size_t j = 0; j < info.perfectMirror.size(); ++j)
    info.perfectMirror[j] = {resampledMirror(0, static_cast<int>(2 * j)),
                             resampledMirror(0, static_cast<int>(2 * j + 1))};
  info.samples = samples;
  info.scanStepNm = options.scanStepNm;
}

int RunFilm(const FilmOptions& options) {
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
  if (options.maxValue > 0) frames.SetMaxValue(options.maxValue);
  Core::debug_printf("qphase film: read %s: %g ms\n", options.scan.c_str(), timer.Restart() / 1000.0);
  if (scan.pages < 8)
    throw UsageError(options.scan + " has " + std::to_string(scan.pages) +
                     " frames; a film scan needs at least 8");
  // A library of 4m samples covers the scan (its spectra have an odd number of bins); frames
  // beyond the scan's end count as zero fringe signal.
  const int samples = (scan.pages + 3) / 4 * 4;

  Core::DoubleMatrix2D library;
  LibraryFileInfo info;
  PrepareLibrary(options, samples, library, info);
  Core::debug_printf("qphase film: library of %d signals ready: %g ms\n", library.GetRows(),
                     timer.Restart() / 1000.0);

  const bool terminal = isatty(fileno(stderr)) != 0;
  if (terminal && static_cast<double>(scan.rows) * scan.cols * library.GetRows() > 5e7)
    std::fprintf(stderr, "qphase film: matching %d x %d pixels against %d signals ...\n", scan.cols,
                 scan.rows, library.GetRows());

  const auto start = std::chrono::steady_clock::now();
  Search::LibrarySearch search;
  search.SetSearchMode(options.search == "linear"    ? "Linear"
                       : options.search == "magonly" ? "MagOnly"
                                                     : "Fast");
  const int threads = options.threads < 0 ? Core::Threading::CpuCounter::Instance().GetNumberOfProcessors()
                                          : std::max(options.threads, 1);
  search.SetAllowMultiThreads(threads > 1);
  search.SetNumberOfThreads(threads);
  search.SetScanDirection(options.reverse ? -1 : 1);
  search.SetModulationThreshold(options.minModulation);
  search.SetCorrelationThreshold(options.correlationThreshold);
  Core::Array<std::complex<double>> mirror;
  mirror.Resize(static_cast<int>(info.perfectMirror.size()));
  for (int j = 0; j < mirror.Size(); ++j)
    mirror[j] = info.perfectMirror[static_cast<std::size_t>(j)];
  search.SetPerfectMirrorSignal(mirror);
  const bool twoDimensional = info.variable2.kind != "Undefined";
  search.SetLibrary(library, info.variable1.from, info.variable1.step,
                    twoDimensional ? info.variable2.count : 0);
  search.SetFrameBuffer(frames);
  Core::DoubleMatrix2D height, thickness, merit, signal;
  search.SetHeightMap(&height);
  search.SetThicknessMap(&thickness);
  search.SetMetricMap(&merit);
  search.SetBestSignalIdMap(&signal);
  search.Execute();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  Core::debug_printf("qphase film: searched: %g ms\n", timer.Restart() / 1000.0);
  if (search.GetStatus().IsError())
    throw UsageError(options.scan + ": " + search.GetStatus().GetPrintString());

  const double forwardOffset = options.reverse ? 1.0 : 0.0;
  Core::DoubleMatrix2D variable2(scan.rows, scan.cols);
  const double noData = Core::DoubleMatrix2D::NoData();
  const double unit1 = MapUnit(info.variable1), unit2 = MapUnit(info.variable2);
  std::int64_t valid = 0;
  double sumThickness = 0.0;
  for (int r = 0; r < scan.rows; ++r) {
    for (int c = 0; c < scan.cols; ++c) {
      // The search gives no result for pixels below the modulation or merit threshold and for
      // saturated ones (a sample at the frame buffer's maximum value, --max-value).
      if (Core::DoubleMatrix2D::IsNoData(height(r, c))) {
        height(r, c) = thickness(r, c) = merit(r, c) = variable2(r, c) = noData;
        continue;
      }
      // The library's height zero sits at its middle sample; heights count from frame 0 like qphase swli.
      height(r, c) = (samples / 2 + height(r, c) + forwardOffset) * options.scanStepNm;
      thickness(r, c) *= unit1;
      const int id = static_cast<int>(signal(r, c));
      variable2(r, c) =
          twoDimensional ? (info.variable2.from + info.variable2.step * (id % info.variable2.count)) * unit2
                         : noData;
      ++valid;
      sumThickness += thickness(r, c);
    }
  }
  if (valid == 0)
    throw NoResultError("no valid pixel in " + options.scan +
                        ": no pixel has fringes modulated by at least " +
                        std::to_string(options.minModulation) +
                        " % of its mean level, unsaturated, with a merit of at least " +
                        std::to_string(options.correlationThreshold) + "; nothing written");

  WriteFloatTiff(std::move(heightFile), height);
  if (thicknessFile) WriteFloatTiff(std::move(thicknessFile), thickness);
  if (variable2File) WriteFloatTiff(std::move(variable2File), variable2);
  if (meritFile) WriteFloatTiff(std::move(meritFile), merit);
  if (pngFile)
    WritePreviewPng(std::move(pngFile), thickness,
                    PreviewStyle{info.variable1.kind, unit1 > 1.0 ? "nm" : ""});
  const double fraction = static_cast<double>(valid) / (static_cast<double>(scan.rows) * scan.cols);
  if (jsonFile) {
    nlohmann::json summary = {{"scan", options.scan},
                              {"rows", scan.rows},
                              {"columns", scan.cols},
                              {"frames", scan.pages},
                              {"scan_step_nm", options.scanStepNm},
                              {"search", options.search},
                              {"signals", library.GetRows()},
                              {"variable1", info.variable1.kind},
                              {"valid_fraction", fraction},
                              {"mean_variable1", sumThickness / static_cast<double>(valid)},
                              {"search_seconds", seconds}};
    WriteBytes(std::move(jsonFile), JsonText(summary));
  }
  outputs.Commit();
  Core::debug_printf("qphase film: files written: %g ms\n", timer.Restart() / 1000.0);
  std::printf(
      "%s: %d x %d, %d frames, %d library signals, search %s: %.1f %% valid, mean %s %.2f%s, searched in "
      "%.1f ms\n",
      options.scan.c_str(), scan.cols, scan.rows, scan.pages, library.GetRows(), options.search.c_str(),
      100.0 * fraction, info.variable1.kind.c_str(), sumThickness / static_cast<double>(valid),
      unit1 > 1.0 ? " nm" : "", 1e3 * seconds);
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
  app.add_option("--scan-step", options->scanStepNm, "Distance the scan moves between frames, nanometres")
      ->required()
      ->check(NumberAbove(0.0));
  app.add_option("-o,--output", options->heightOut, "Height map: 32-bit float TIFF, nanometres")->required();
  app.add_option("--thickness", options->thicknessOut, "Variable 1 map (nm for a thickness)");
  app.add_option("--variable2", options->variable2Out, "Variable 2 map");
  app.add_option("--merit", options->meritOut,
                 "Merit map: normalised correlation with the matched signal, 0 .. 1");
  app.add_option("--search", options->search, "linear (every signal), fast (coarse to fine) or magonly")
      ->check(CLI::IsMember({"linear", "fast", "magonly"}))
      ->capture_default_str();
  app.add_option("--min-modulation", options->minModulation,
                 "Pixels whose fringe contrast is below this percentage of their mean level get no result")
      ->check(NumberFrom(0.0, 100.0))
      ->capture_default_str();
  app.add_option("--correlation-threshold", options->correlationThreshold,
                 "Pixels whose merit is below this get no result")
      ->check(NumberFrom(-1.0, 1.0))
      ->capture_default_str();
  app.add_flag("--reverse", options->reverse, "The scan ran the other way");
  AddMaxValueOption(app, options->maxValue);
  AddThreadsOption(app, options->threads);
  app.add_option("--png", options->pngOut, "Colour preview of variable 1 with a colour bar");
  app.add_option("--json", options->jsonOut, "Summary of the run (JSON)");
  return [options] { return RunFilm(*options); };
}

[[maybe_unused]] const bool registered = RegisterCommand(
    {"film", "Film thickness and height from a white-light scan and a film-stack model", SetupFilm});

}  // namespace

}  // namespace Quarn::Qphase

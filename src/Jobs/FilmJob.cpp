#include "Jobs/FilmJob.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/Threading/CpuCounter.h"
#include "SwliMba/LibDef/Library.h"
#include "SwliMba/LibDef/LibraryJson.h"
#include "SwliMba/LibGen/LibraryGenerator.h"
#include "SwliMba/Search/LibraryResampler.h"
#include "SwliMba/Search/LibrarySearch.h"

namespace Quarn::Jobs {

namespace {

namespace Search = ::Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search;
namespace LibGen = ::Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen;

// A film scan shorter than this has too few bins inside the source's band to tell films apart.
constexpr int kMinimumFrames = 8;

FilmVariable Describe(const LibDef::VariableSpecification& v, bool used) {
  FilmVariable out;
  if (!used) return out;
  out.kind = v.GetKind().ToString();
  out.layer = v.GetLayerIndex();
  out.from = v.GetRangeFrom();
  out.step = v.GetRangeIncrement();
  out.count = v.GetNumberOfValues();
  return out;
}

// The maps give a thickness in nanometres; the library counts it in micrometres.
double MapUnit(const FilmVariable& v) {
  return v.kind == "Thickness" ? 1000.0 : 1.0;
}

bool CheckOptions(const FilmOptions& options, JobRecord& record) {
  if (!(options.scanStepNm > 0.0 && std::isfinite(options.scanStepNm))) {
    return Fail(
        record, JobOutcome::kBadInput,
        "--scan-step: must be a positive number of nanometres, not " + FormatNumber(options.scanStepNm));
  }
  if (options.search != "linear" && options.search != "fast" && options.search != "magonly") {
    return Fail(record, JobOutcome::kBadInput,
                "--search: " + options.search + " not in {linear,fast,magonly}");
  }
  return CheckNumberFrom(record, "--min-modulation", options.minModulation, 0.0, 100.0) &&
         CheckNumberFrom(record, "--correlation-threshold", options.correlationThreshold, -1.0, 1.0) &&
         CheckCommonOptions(record, options.maxValue, options.threads);
}

}  // namespace

int FilmLibrarySamples(int frames) {
  return (frames + 3) / 4 * 4;
}

bool GenerateFilmLibrary(LibDef::Library& definition, const std::string& name, int samples, double scanStepNm,
                         Core::DoubleMatrix2D& matrix, FilmLibraryInfo& info, JobRecord& record) {
  definition.GetSpecifications().SetNumberOfSamples(samples);
  definition.GetSpecifications().GetRampSlope().SetValue(scanStepNm);
  LibGen::LibraryGenerator generator;
  if (!generator.Generate(definition)) {
    return Fail(record, JobOutcome::kBadInput,
                name + ": the library cannot be generated: " + generator.GetStatus().GetMessage());
  }
  definition.GetSpectra().GetAsDoubleMatrix2D(matrix);
  if (matrix.GetStatus().IsError()) {
    return Fail(record, JobOutcome::kBadInput, name + ": the library does not fit in memory");
  }
  info.samples = samples;
  info.scanStepNm = scanStepNm;
  info.firstValidBin = definition.GetSpectra().GetFirstBinValid();
  info.lastValidBin = definition.GetSpectra().GetLastBinValid();
  const auto& mirror = definition.GetSpectra().GetPerfectMirrorSpectrum();
  info.perfectMirror.assign(mirror.begin(), mirror.end());
  const LibDef::Skew& skew = definition.GetSkew();
  const bool first = skew.GetVariable1().GetKind() != LibDef::VariableKind::Undefined;
  info.variable1 = Describe(skew.GetVariable1(), first);
  info.variable2 = Describe(skew.GetVariable2(), first && skew.IsTwoDimensional());
  return true;
}

bool GenerateFilmLibrary(const std::string& stackJson, const std::string& name, int samples,
                         double scanStepNm, Core::DoubleMatrix2D& matrix, FilmLibraryInfo& info,
                         JobRecord& record) {
  LibDef::Library definition;
  LibDef::LibraryJson reader;
  if (!reader.Read(stackJson, definition)) {
    return Fail(record, JobOutcome::kBadInput, name + ": " + reader.GetStatus().GetMessage());
  }
  return GenerateFilmLibrary(definition, name, samples, scanStepNm, matrix, info, record);
}

bool ResampleFilmLibrary(Core::DoubleMatrix2D& matrix, FilmLibraryInfo& info, const std::string& name,
                         int samples, double scanStepNm, JobRecord& record) {
  if (info.samples == samples && info.scanStepNm == scanStepNm) return true;
  Search::LibraryResampler resampler;
  resampler.SetInputRampSlope(info.scanStepNm);
  resampler.SetOutputRampSlope(scanStepNm);
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
  if (resampler.GetStatus().IsError()) {
    ToggleSpectrumOrigin(matrix);  // the host's library as it was given
    return Fail(record, JobOutcome::kBadInput,
                name + ": cannot be resampled to " + std::to_string(samples) + " frames of " +
                    std::to_string(scanStepNm) + " nm: " + resampler.GetStatus().GetMessage());
  }
  ToggleSpectrumOrigin(resampled);
  ToggleSpectrumOrigin(resampledMirror);
  matrix = std::move(resampled);
  info.perfectMirror.assign(static_cast<std::size_t>(resampledMirror.GetColumns() / 2), {});
  for (std::size_t j = 0; j < info.perfectMirror.size(); ++j)
    info.perfectMirror[j] = {resampledMirror(0, static_cast<int>(2 * j)),
                             resampledMirror(0, static_cast<int>(2 * j + 1))};
  info.samples = samples;
  info.scanStepNm = scanStepNm;
  return true;
}

void ToggleSpectrumOrigin(Core::DoubleMatrix2D& matrix) {
  for (int r = 0; r < matrix.GetRows(); ++r) {
    double* row = matrix.Row(r);
    for (int c = 2; c + 1 < matrix.GetColumns(); c += 4) {
      row[c] = -row[c];
      row[c + 1] = -row[c + 1];
    }
  }
}

bool FilmJob::CheckScan(const Core::FrameBuffer& frames, const FilmOptions& options, const std::string& name,
                        JobRecord& record) {
  if (!CheckOptions(options, record)) return false;
  if (frames.GetNumberOfFrames() < kMinimumFrames) {
    return Fail(record, JobOutcome::kBadInput,
                name + " has " + std::to_string(frames.GetNumberOfFrames()) +
                    " frames; a film scan needs at least " + std::to_string(kMinimumFrames));
  }
  return true;
}

FilmRecord FilmJob::Run(Core::FrameBuffer& frames, LibDef::Library& definition, const std::string& stackName,
                        const FilmOptions& options, const std::string& name) {
  FilmRecord record;
  if (!CheckScan(frames, options, name, record)) return record;
  FilmLibraryInfo info;
  if (!GenerateFilmLibrary(definition, stackName, FilmLibrarySamples(frames.GetNumberOfFrames()),
                           options.scanStepNm, library_, info, record))
    return record;
  return Run(frames, library_, info, options, name);
}

FilmRecord FilmJob::Run(Core::FrameBuffer& frames, const std::string& stackJson, const std::string& stackName,
                        const FilmOptions& options, const std::string& name) {
  FilmRecord record;
  if (!CheckScan(frames, options, name, record)) return record;
  FilmLibraryInfo info;
  if (!GenerateFilmLibrary(stackJson, stackName, FilmLibrarySamples(frames.GetNumberOfFrames()),
                           options.scanStepNm, library_, info, record))
    return record;
  return Run(frames, library_, info, options, name);
}

FilmRecord FilmJob::Run(Core::FrameBuffer& frames, const Core::DoubleMatrix2D& library,
                        const FilmLibraryInfo& info, const FilmOptions& options, const std::string& name) {
  FilmRecord record;
  if (!CheckScan(frames, options, name, record)) return record;
  const int rows = frames.GetRows(), cols = frames.GetColumns();
  const int samples = FilmLibrarySamples(frames.GetNumberOfFrames());
  if (info.samples != samples || info.scanStepNm != options.scanStepNm) {
    Fail(record, JobOutcome::kBadInput,
         "the library is for " + std::to_string(info.samples) + " frames of " +
             FormatNumber(info.scanStepNm) + " nm; " + name + " needs " + std::to_string(samples) + " of " +
             FormatNumber(options.scanStepNm) + " nm (resample it first)");
    return record;
  }
  // The saturation level the search rejects clipped pixels at.
  if (options.maxValue > 0) frames.SetMaxValue(options.maxValue);
  record.maxValue = frames.GetMaxValue();
  record.frames = frames.GetNumberOfFrames();
  record.signals = library.GetRows();
  record.variable1Kind = info.variable1.kind;
  record.variable1InNm = MapUnit(info.variable1) > 1.0;
  record.variable2Kind = info.variable2.kind;

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
  // The search only reads the library; its interface takes the matrix it shares with the host.
  search.SetLibrary(const_cast<Core::DoubleMatrix2D&>(library), info.variable1.from, info.variable1.step,
                    twoDimensional ? info.variable2.count : 0);
  search.SetFrameBuffer(frames);
  search.SetHeightMap(&height_);
  search.SetThicknessMap(&thickness_);
  search.SetMetricMap(&merit_);
  search.SetBestSignalIdMap(&signal_);
  rowsDone_.store(0, std::memory_order_relaxed);
  search.SetRowDoneCallback([this, &options, rows](int) {
    const int done = rowsDone_.fetch_add(1, std::memory_order_relaxed) + 1;
    if (options.progress) options.progress(done, rows);
  });
  search.Execute();
  record.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (search.GetStatus().IsError()) {
    Fail(record, JobOutcome::kBadInput, name + ": " + search.GetStatus().GetPrintString());
    return record;
  }

  // Heights count from frame 0 like the white-light heights (the library's height zero sits at its
  // middle sample); the varied values in the maps' units; no result in every map alike.
  const double forwardOffset = options.reverse ? 1.0 : 0.0;
  const double noData = Core::DoubleMatrix2D::NoData();
  const double unit1 = MapUnit(info.variable1), unit2 = MapUnit(info.variable2);
  if (!variable2_.Resize(0, 0, rows, cols)) {
    Fail(record, JobOutcome::kBadInput, name + ": no memory for the variable 2 map");
    return record;
  }
  std::int64_t valid = 0;
  double sumVariable1 = 0.0;
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      if (Core::DoubleMatrix2D::IsNoData(height_(r, c))) {
        height_(r, c) = thickness_(r, c) = merit_(r, c) = variable2_(r, c) = noData;
        continue;
      }
      height_(r, c) = (samples / 2 + height_(r, c) + forwardOffset) * options.scanStepNm;
      thickness_(r, c) *= unit1;
      const int id = static_cast<int>(signal_(r, c));
      variable2_(r, c) =
          twoDimensional ? (info.variable2.from + info.variable2.step * (id % info.variable2.count)) * unit2
                         : noData;
      ++valid;
      sumVariable1 += thickness_(r, c);
    }
  }
  if (valid == 0) {
    Fail(record, JobOutcome::kNoResult,
         "no valid pixel in " + name + ": no pixel has fringes modulated by at least " +
             std::to_string(options.minModulation) +
             " % of its mean level, unsaturated, with a merit of at least " +
             std::to_string(options.correlationThreshold));
    return record;
  }
  record.validFraction = static_cast<double>(valid) / (static_cast<double>(rows) * cols);
  record.meanVariable1 = sumVariable1 / static_cast<double>(valid);
  return record;
}

FilmRecord RunFilm(const ArrayView& scan, const std::string& stackJson, const std::string& stackName,
                   const FilmOptions& options, const MapView& height, const MapView& thickness,
                   const MapView& variable2, const MapView& merit) {
  FilmRecord record;
  Core::FrameBuffer frames;
  if (!MakeFrameBuffer(scan, frames, record)) return record;
  FilmJob job;
  record = job.Run(frames, stackJson, stackName, options, scan.name);
  if (record.outcome == JobOutcome::kBadInput) return record;
  if (record.outcome == JobOutcome::kNoResult) {
    for (const MapView* map : {&height, &thickness, &variable2, &merit})
      FillNan(*map);
    return record;
  }
  CopyMap(job.GetHeight(), height, record, "height") &&
      CopyMap(job.GetThickness(), thickness, record, "thickness") &&
      CopyMap(job.GetVariable2(), variable2, record, "variable 2") &&
      CopyMap(job.GetMerit(), merit, record, "merit");
  return record;
}

}  // namespace Quarn::Jobs

#include "Jobs/PsiJob.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Analysis/Core/Array.h"
#include "Psi/Convert13.h"
#include "Psi/Convert20.h"
#include "Psi/Convert7.h"
#include "Psi/ConvertSliding13.h"
#include "Psi/ConverterGenerator.h"

namespace Quarn::Jobs {

namespace {

namespace Psi = ::Quarn::Metrology::PhaseProcessing::Core::Psi;

// The algorithm for a stack of `frames` frames: the one asked for, checked against the count, or the
// one the count selects. Empty (with the record filled) when none fits.
std::string ChooseAlgorithm(const std::string& requested, int frames, const std::string& name,
                            JobRecord& record) {
  const std::string count = name + " has " + std::to_string(frames) + " frames";
  if (requested.empty()) {
    if (frames == 7 || frames == 13 || frames == 20) return std::to_string(frames);
    if (frames > 13) return "sliding13";
    Fail(record, JobOutcome::kBadInput,
         count + "; no algorithm fits (7, 13 or 20 frames, or more than 13 for sliding13)");
    return "";
  }
  if (requested != "7" && requested != "13" && requested != "20" && requested != "sliding13") {
    Fail(record, JobOutcome::kBadInput, "--algorithm: " + requested + " not in {7,13,20,sliding13}");
    return "";
  }
  if (requested == "sliding13") {
    if (frames >= 13) return requested;
    Fail(record, JobOutcome::kBadInput, "the sliding 13-frame algorithm needs at least 13 frames, " + count);
    return "";
  }
  if (std::to_string(frames) != requested) {
    Fail(record, JobOutcome::kBadInput,
         "the " + requested + "-frame algorithm needs " + requested + " frames, " + count);
    return "";
  }
  return requested;
}

bool CheckOptions(const PsiOptions& options, PsiRecord& record) {
  if (!CheckNumberFrom(record, "--min-modulation", options.minModulation, 0.0, 100.0)) return false;
  if (options.phaseSign != 1 && options.phaseSign != -1) {
    return Fail(record, JobOutcome::kBadInput,
                "--phase-sign: " + std::to_string(options.phaseSign) + " not in {1,-1}");
  }
  for (const double w : options.frameWeights)
    if (!CheckNumberAbove(record, "--frame-weights", w, 0.0)) return false;
  return CheckCommonOptions(record, options.maxValue, options.threads);
}

// The converters and the generator of a run, set up from the options for the chosen algorithm.
struct Conversion {
  Psi::Convert7 seven;
  Psi::Convert13 thirteen;
  Psi::Convert20 twenty;
  Psi::ConvertSliding13 sliding;
  Psi::ConverterGenerator generator;
  Core::Array<double> weights;

  Conversion(const PsiOptions& options, const std::string& algorithm) {
    Psi::Converter* converter = algorithm == "7"    ? static_cast<Psi::Converter*>(&seven)
                                : algorithm == "13" ? static_cast<Psi::Converter*>(&thirteen)
                                : algorithm == "20" ? static_cast<Psi::Converter*>(&twenty)
                                                    : static_cast<Psi::Converter*>(&sliding);
    generator.SetAlgorithm(converter);
    generator.SetMinimumModulation(options.minModulation);
    generator.SetEstimateMagnitude(options.estimateMagnitude);
    generator.SetPhaseSign(options.phaseSign);
    if (options.threads == 0) {
      generator.SetAllowMultiThreads(false);
    } else if (options.threads > 0) {
      generator.SetNumberOfThreads(options.threads);
    }
    for (const double w : options.frameWeights)
      weights.Add(w);
  }

  // Converts every pixel of `frames` into the maps (sized to them); the seconds it took.
  double Process(Core::FrameBuffer& frames, Core::DoubleMatrix2D& phase, Core::DoubleMatrix2D* modulation) {
    const auto start = std::chrono::steady_clock::now();
    generator.Process(frames, phase, modulation, weights.Size() > 0 ? &weights : nullptr);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
};

// The checks of a run before any conversion: options, algorithm, frame weights; sets the frame
// buffer's saturation level. False with the record filled when the run cannot go ahead.
bool Prepare(Core::FrameBuffer& frames, const PsiOptions& options, const std::string& name,
             PsiRecord& record) {
  if (!CheckOptions(options, record)) return false;
  const int count = frames.GetNumberOfFrames();
  record.algorithm = ChooseAlgorithm(options.algorithm, count, name, record);
  if (!record.Ok()) return false;
  if (options.maxValue > 0) frames.SetMaxValue(options.maxValue);
  record.maxValue = frames.GetMaxValue();
  if (!options.frameWeights.empty() && static_cast<int>(options.frameWeights.size()) != count) {
    return Fail(record, JobOutcome::kBadInput,
                "--frame-weights gives " + std::to_string(options.frameWeights.size()) + " weights, " + name +
                    " has " + std::to_string(count) + " frames");
  }
  return true;
}

bool FailNoValidPixel(PsiRecord& record, const std::string& name, const Core::FrameBuffer& frames,
                      const PsiOptions& options) {
  return Fail(record, JobOutcome::kNoResult,
              "no valid pixel in " + name + ": every pixel is saturated (a sample reaches " +
                  std::to_string(frames.GetMaxValue()) + ") or modulated less than " +
                  FormatNumber(options.minModulation) + " % of it");
}

}  // namespace

PsiRecord PsiJob::Run(Core::FrameBuffer& frames, const PsiOptions& options, const std::string& name,
                      bool wantModulation) {
  PsiRecord record;
  if (!Prepare(frames, options, name, record)) return record;
  Conversion conversion(options, record.algorithm);
  // The converter writes every pixel of the maps: they are not cleared first.
  const Core::Window2D window(0, 0, frames.GetRows(), frames.GetColumns());
  if (!phase_.ResizeForOverwrite(window) || (wantModulation && !modulation_.ResizeForOverwrite(window))) {
    Fail(record, JobOutcome::kBadInput, name + ": no memory for the result maps");
    return record;
  }
  if (!wantModulation) modulation_.Reset();
  record.seconds = conversion.Process(frames, phase_, wantModulation ? &modulation_ : nullptr);

  const Core::Status& status = conversion.generator.GetStatus();
  if (status.GetCode() == Core::StatusCode::kNoValidResult) {
    FailNoValidPixel(record, name, frames, options);
    return record;
  }
  if (status.IsError()) {
    Fail(record, JobOutcome::kBadInput, name + ": " + status.GetPrintString());
    return record;
  }
  record.validFraction = static_cast<double>(phase_.CountValid()) / static_cast<double>(phase_.GetCount());
  return record;
}

PsiRecord PsiJob::RunInBands(Core::FrameBuffer& frames, const PsiOptions& options, const std::string& name,
                             bool wantModulation, int bandRows, const BandSink& band) {
  PsiRecord record;
  if (!Prepare(frames, options, name, record)) return record;
  Conversion conversion(options, record.algorithm);
  phase_.Reset();
  modulation_.Reset();
  const Core::Window2D window = frames.GetAllocatedWindow();
  const int rows = window.GetRows(), cols = window.GetCols();
  bandRows = std::clamp(bandRows, 1, std::max(rows, 1));
  const std::size_t rowBytes =
      static_cast<std::size_t>(cols) * static_cast<std::size_t>(frames.GetBytesPerSample());
  // The frames of a band are borrowed in place from the whole stack, which outlives them.
  const std::shared_ptr<void> borrowed(&frames, [](void*) {});
  Core::DoubleMatrix2D phase, modulation;
  std::int64_t valid = 0;
  for (int first = 0; first < rows; first += bandRows) {
    const int count = std::min(bandRows, rows - first);
    std::vector<std::byte*> slots;
    for (int k = 0; k < frames.GetFramesStored(); ++k)
      slots.push_back(static_cast<std::byte*>(frames.GetFrameData(k)) +
                      static_cast<std::size_t>(first) * rowBytes);
    Core::FrameBuffer part;
    const Core::Window2D bandWindow(window.GetStartRow() + first, window.GetStartCol(), count, cols);
    if (!part.AdoptFrames(bandWindow, frames.GetNumberOfFrames(), frames.GetElementRes(), std::move(slots),
                          borrowed, frames.GetScanDirection())) {
      Fail(record, JobOutcome::kBadInput, name + ": " + part.GetStatus().GetPrintString());
      return record;
    }
    part.SetMaxValue(frames.GetMaxValue());
    if (!phase.ResizeForOverwrite(bandWindow) ||
        (wantModulation && !modulation.ResizeForOverwrite(bandWindow))) {
      Fail(record, JobOutcome::kBadInput, name + ": no memory for the result maps");
      return record;
    }
    // A band without a valid pixel is no failure of the run: the status of each band stands alone.
    conversion.generator.GetStatus().ClearError();
    record.seconds += conversion.Process(part, phase, wantModulation ? &modulation : nullptr);
    const Core::Status& status = conversion.generator.GetStatus();
    if (status.IsError() && status.GetCode() != Core::StatusCode::kNoValidResult) {
      Fail(record, JobOutcome::kBadInput, name + ": " + status.GetPrintString());
      return record;
    }
    valid += phase.CountValid();
    band(first, phase, wantModulation ? &modulation : nullptr);
  }
  if (valid == 0) {
    FailNoValidPixel(record, name, frames, options);
    return record;
  }
  record.validFraction = static_cast<double>(valid) / (static_cast<double>(rows) * static_cast<double>(cols));
  return record;
}

PsiRecord RunPsi(const ArrayView& stack, const PsiOptions& options, const MapView& phase,
                 const MapView& modulation) {
  return RunPhaseAndModulation<PsiJob>(stack, options, phase, modulation);
}

}  // namespace Quarn::Jobs

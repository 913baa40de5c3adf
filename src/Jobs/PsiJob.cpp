#include "Jobs/PsiJob.h"

#include <chrono>
#include <cmath>
#include <memory>

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

}  // namespace

PsiRecord PsiJob::Run(Core::FrameBuffer& frames, const PsiOptions& options, const std::string& name,
                      bool wantModulation) {
  PsiRecord record;
  if (!CheckOptions(options, record)) return record;
  const int count = frames.GetNumberOfFrames();
  record.algorithm = ChooseAlgorithm(options.algorithm, count, name, record);
  if (!record.Ok()) return record;
  if (options.maxValue > 0) frames.SetMaxValue(options.maxValue);
  record.maxValue = frames.GetMaxValue();
  if (!options.frameWeights.empty() && static_cast<int>(options.frameWeights.size()) != count) {
    Fail(record, JobOutcome::kBadInput,
         "--frame-weights gives " + std::to_string(options.frameWeights.size()) + " weights, " + name +
             " has " + std::to_string(count) + " frames");
    return record;
  }

  Psi::Convert7 seven;
  Psi::Convert13 thirteen;
  Psi::Convert20 twenty;
  Psi::ConvertSliding13 sliding;
  Psi::Converter* converter = record.algorithm == "7"    ? static_cast<Psi::Converter*>(&seven)
                              : record.algorithm == "13" ? static_cast<Psi::Converter*>(&thirteen)
                              : record.algorithm == "20" ? static_cast<Psi::Converter*>(&twenty)
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

  // The converter writes every pixel of the maps: they are not cleared first.
  const Core::Window2D window(0, 0, frames.GetRows(), frames.GetColumns());
  if (!phase_.ResizeForOverwrite(window) || (wantModulation && !modulation_.ResizeForOverwrite(window))) {
    Fail(record, JobOutcome::kBadInput, name + ": no memory for the result maps");
    return record;
  }
  if (!wantModulation) modulation_.Reset();
  const auto start = std::chrono::steady_clock::now();
  generator.Process(frames, phase_, wantModulation ? &modulation_ : nullptr,
                    options.frameWeights.empty() ? nullptr : &weights);
  record.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  const Core::Status& status = generator.GetStatus();
  if (status.GetCode() == Core::StatusCode::kNoValidResult) {
    Fail(record, JobOutcome::kNoResult,
         "no valid pixel in " + name + ": every pixel is saturated (a sample reaches " +
             std::to_string(frames.GetMaxValue()) + ") or modulated less than " +
             FormatNumber(options.minModulation) + " % of it");
    return record;
  }
  if (status.IsError()) {
    Fail(record, JobOutcome::kBadInput, name + ": " + status.GetPrintString());
    return record;
  }
  record.validFraction = static_cast<double>(phase_.CountValid()) / static_cast<double>(phase_.GetCount());
  return record;
}

PsiRecord RunPsi(const ArrayView& stack, const PsiOptions& options, const MapView& phase,
                 const MapView& modulation) {
  return RunPhaseAndModulation<PsiJob>(stack, options, phase, modulation);
}

}  // namespace Quarn::Jobs

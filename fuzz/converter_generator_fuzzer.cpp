// ConverterGenerator::Process on arbitrary frames and settings. Promises held to: the status code
// is one of the table; a run without error has a valid pixel and code 1 means none; a pixel is
// no data in both maps or valid in both, with the phase in [-pi, pi] and a finite modulation of at
// least zero; the vector path agrees with the per-pixel reference (validity and modulation to the
// bit, the phase within 2 ulp) and the thread count changes none of the maps, to the bit.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <vector>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "FuzzCheck.h"
#include "Psi/Convert13.h"
#include "Psi/Convert20.h"
#include "Psi/Convert7.h"
#include "Psi/ConvertSliding13.h"
#include "Psi/ConverterGenerator.h"

namespace Core = ::Quarn::Metrology::Analysis::Core;
namespace Fuzz = ::Quarn::Fuzz;
using Fuzz::Require;

namespace {

namespace Psi = ::Quarn::Metrology::PhaseProcessing::Core::Psi;

struct Settings {
  int converter = 0;  // 0: 7, 1: 13, 2: 20, 3: sliding 13
  double minModulation = 15.0;
  bool estimate = false;
  int sign = 1;
  std::vector<double> weights;
};

struct Result {
  unsigned code = 0;
  bool error = false;
  Core::DoubleMatrix2D phase, modulation;
};

Result Run(Core::FrameBuffer& frames, const Settings& settings, bool fast, int threads) {
  Psi::Convert7 seven;
  Psi::Convert13 thirteen;
  Psi::Convert20 twenty;
  Psi::ConvertSliding13 sliding;
  Psi::Converter* converters[] = {&seven, &thirteen, &twenty, &sliding};
  Psi::ConverterGenerator generator;
  generator.SetAlgorithm(converters[settings.converter]);
  generator.SetMinimumModulation(settings.minModulation);
  generator.SetEstimateMagnitude(settings.estimate);
  generator.SetPhaseSign(settings.sign);
  generator.SetUseFastPath(fast);
  generator.SetAllowMultiThreads(threads > 1);
  if (threads > 1) generator.SetNumberOfThreads(threads);
  Result result;
  result.phase.Resize(frames.GetRows(), frames.GetColumns());
  result.modulation.Resize(frames.GetRows(), frames.GetColumns());
  Core::Array<double> weights;
  for (const double w : settings.weights)
    weights.Add(w);
  generator.Process(frames, result.phase, &result.modulation, settings.weights.empty() ? nullptr : &weights);
  result.code = generator.GetStatus().GetCode();
  result.error = generator.GetStatus().IsError();
  return result;
}

// The distance in units in the last place between two doubles of the same sign.
std::int64_t Ulps(double a, double b) {
  std::int64_t x, y;
  std::memcpy(&x, &a, 8);
  std::memcpy(&y, &b, 8);
  return x > y ? x - y : y - x;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  Settings settings;
  settings.converter = input.ConsumeIntegralInRange(0, 3);
  const int frameCounts[] = {7, 13, 20, 0};
  const int frameCount =
      settings.converter == 3 ? input.ConsumeIntegralInRange(13, 24) : frameCounts[settings.converter];
  const int rows = input.ConsumeIntegralInRange(1, 12);
  const int cols = input.ConsumeIntegralInRange(1, 40);
  const bool sixteen = input.ConsumeBool();
  settings.minModulation = input.ConsumeFloatingPoint<double>();
  settings.estimate = input.ConsumeBool();
  settings.sign = input.ConsumeBool() ? 1 : -1;
  if (input.ConsumeBool()) {
    for (int k = 0; k < frameCount; ++k)
      settings.weights.push_back(input.ConsumeFloatingPointInRange(0.01, 100.0));
  }
  const int maxValue = input.ConsumeIntegralInRange(1, sixteen ? 65535 : 255);

  Core::FrameBuffer frames;
  Require(frames.Allocate(Core::Window2D(0, 0, rows, cols), frameCount,
                          sixteen ? Core::FrameBuffer::kRes16Bit : Core::FrameBuffer::kRes8Bit),
          "a small frame buffer is allocated");
  std::vector<std::int32_t> pixels(static_cast<std::size_t>(rows) * cols);
  for (int k = 0; k < frameCount; ++k) {
    for (std::int32_t& p : pixels)
      p = sixteen ? input.ConsumeIntegral<std::uint16_t>() : input.ConsumeIntegral<std::uint8_t>();
    frames.StoreFrame(k, pixels.data());
  }
  frames.SetMaxValue(maxValue);

  const Result reference = Run(frames, settings, false, 1);
  Require(Fuzz::IsDocumentedCode(reference.code), "a documented status code");
  if (reference.code != 0) {
    Require(reference.code == 1 || !std::isfinite(settings.minModulation) || !settings.weights.empty(),
            "valid settings fail only for want of a valid pixel");
  }
  const Result fast = Run(frames, settings, true, 1);
  const Result threaded = Run(frames, settings, true, 3);
  Require(fast.code == reference.code && threaded.code == reference.code, "one status for every path");
  if (reference.error && reference.code != 1) return 0;
  std::int64_t valid = 0;
  for (std::int64_t i = 0; i < reference.phase.GetCount(); ++i) {
    const double phase = reference.phase.At(i), modulation = reference.modulation.At(i);
    const bool isValid = !Core::IsNoDataValue(phase);
    valid += isValid;
    Require(isValid == !Core::IsNoDataValue(modulation), "no data in both maps or in neither");
    if (isValid) {
      Require(std::abs(phase) <= std::numbers::pi, "phase in [-pi, pi]");
      Require(std::isfinite(modulation) && modulation >= 0.0, "a finite modulation of at least 0");
    }
    Require(fast.modulation.At(i) == modulation, "vector modulation and validity equal to the reference");
    Require(Core::IsNoDataValue(fast.phase.At(i)) == !isValid, "vector validity equal to the reference");
    Require(!isValid || Ulps(fast.phase.At(i), phase) <= 2 || std::abs(fast.phase.At(i) - phase) < 1e-15,
            "vector phase within 2 ulp of the reference");
    // Every pixel goes through the same atan2 wherever a thread's range ends, so the maps do not
    // depend on the thread count at all.
    const bool samePhase = threaded.phase.At(i) == fast.phase.At(i);
    if (!samePhase || threaded.modulation.At(i) != fast.modulation.At(i)) {
      std::fprintf(
          stderr,
          "pixel %lld of %d x %d, converter %d, %d frames: phase %.17g / %.17g, modulation %.17g / %.17g\n",
          static_cast<long long>(i), rows, cols, settings.converter, frameCount, fast.phase.At(i),
          threaded.phase.At(i), fast.modulation.At(i), threaded.modulation.At(i));
      Require(false, "maps independent of the thread count");
    }
  }
  Require((valid == 0) == (reference.code == 1), "code 1 exactly when no pixel is valid");
  return 0;
}

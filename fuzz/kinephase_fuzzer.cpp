// The Kinephase pipeline on one arbitrary frame with arbitrary kernel and settings. Promises: a
// documented status code; without an error every pixel is no data or a phase in [-pi, pi] with a
// finite modulation of at least 0 (the trim may take the phase and leave the modulation); code 1
// exactly when no phase is valid;
// identical maps on one and on three threads.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/Fft2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "FuzzCheck.h"
#include "Psi/Kinephase/KinephaseAlgorithm.h"

namespace Core = ::Quarn::Metrology::Analysis::Core;
namespace Fuzz = ::Quarn::Fuzz;
using Fuzz::Require;

namespace {

namespace Kinephase = ::Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase;

struct Settings {
  int pixelsPerFringe = 4;
  int quadrant = 2;
  double threshold = 0.0;
  int minRegion = 10;
  bool subtractCarrier = true;
  bool fast = true;
};

struct Result {
  unsigned code = 0;
  bool error = false;
  Core::DoubleMatrix2D phase, modulation;
};

Result Run(Core::FrameBuffer& frame, const Settings& settings, int threads) {
  Kinephase::KinephaseAlgorithm kinephase;
  kinephase.SelectKernel(Kinephase::KpKernelSelector(settings.pixelsPerFringe, settings.quadrant));
  kinephase.SetModulationThreshold(settings.threshold);
  kinephase.SetMinRegionSizeToTrim(settings.minRegion);
  kinephase.SetSubtractCarrier(settings.subtractCarrier);
  kinephase.SetUseFastPath(settings.fast);
  kinephase.SetAllowMultiThreads(threads > 1);
  if (threads > 1) kinephase.SetNumberOfThreads(threads);
  Result result;
  kinephase.SetIntensity(frame, 0);
  kinephase.Process(result.phase, result.modulation);
  result.code = kinephase.GetStatus().GetCode();
  result.error = kinephase.GetStatus().IsError();
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Plans measured by FFTW would cost more than the runs themselves.
  Core::Fft2D::SetPlanningEffort(Core::Fft2D::PlanningEffort::kEstimate);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  Settings settings;
  settings.pixelsPerFringe = input.ConsumeIntegralInRange(-2, 40);
  settings.quadrant = input.ConsumeIntegralInRange(0, 5);
  settings.threshold = input.ConsumeFloatingPoint<double>();
  settings.minRegion = input.ConsumeIntegralInRange(-5, 100);
  settings.subtractCarrier = input.ConsumeBool();
  settings.fast = input.ConsumeBool();
  const int rows = input.ConsumeIntegralInRange(1, 48);
  const int cols = input.ConsumeIntegralInRange(1, 48);
  const bool sixteen = input.ConsumeBool();

  Core::FrameBuffer frame;
  Require(frame.Allocate(Core::Window2D(0, 0, rows, cols), 1,
                         sixteen ? Core::FrameBuffer::kRes16Bit : Core::FrameBuffer::kRes8Bit),
          "a small frame is allocated");
  std::vector<std::int32_t> pixels(static_cast<std::size_t>(rows) * cols);
  for (std::int32_t& p : pixels)
    p = sixteen ? input.ConsumeIntegral<std::uint16_t>() : input.ConsumeIntegral<std::uint8_t>();
  frame.StoreFrame(0, pixels.data());

  const Result one = Run(frame, settings, 1);
  Require(Fuzz::IsDocumentedCode(one.code), "a documented status code");
  const Result three = Run(frame, settings, 3);
  Require(three.code == one.code, "one status for every thread count");
  if (one.error && one.code != 1) return 0;
  Require(one.phase.GetCount() == static_cast<std::int64_t>(rows) * cols, "a phase per pixel");
  std::int64_t valid = 0;
  for (std::int64_t i = 0; i < one.phase.GetCount(); ++i) {
    const double phase = one.phase.At(i), modulation = one.modulation.At(i);
    const bool isValid = !Core::IsNoDataValue(phase);
    valid += isValid;
    // The trim takes valid phase around large no-data areas and leaves the modulation there.
    Require(!isValid || !Core::IsNoDataValue(modulation), "a valid phase has a modulation");
    if (isValid) {
      Require(std::abs(phase) <= std::numbers::pi, "phase in [-pi, pi]");
      Require(std::isfinite(modulation) && modulation >= 0.0, "a finite modulation of at least 0");
    }
    Require(three.phase.At(i) == phase && three.modulation.At(i) == modulation,
            "maps independent of the thread count");
  }
  Require((valid == 0) == (one.code == 1), "code 1 exactly when no pixel is valid");
  return 0;
}

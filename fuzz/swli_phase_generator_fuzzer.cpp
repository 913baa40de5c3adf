// The white-light PhaseGenerator with the centroid or the FDA on an arbitrary scan: arbitrary
// samples, peak frames (unknown, inside or far outside the scan), mask, scan step, minimum
// modulation, fringe removal, direction and ring storage. Promises: a documented status code;
// after a failure the surface is left as it was handed in (code 1, no valid height: or no data);
// after a run without error every height is finite (for a step of up to a millimetre) or no data,
// masked pixels stay no data and at least one height is valid; heights equal on one and on three
// threads.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/UnitNumber.h"
#include "Analysis/Core/Units.h"
#include "FuzzCheck.h"
#include "Swli/PhaseAlgorithmCentroid.h"
#include "Swli/PhaseAlgorithmFda.h"
#include "Swli/PhaseGenerator.h"

namespace Core = ::Quarn::Metrology::Analysis::Core;
namespace Fuzz = ::Quarn::Fuzz;
using Fuzz::Require;

namespace {

namespace Swli = ::Quarn::Metrology::PhaseProcessing::Core::Swli;

struct Settings {
  bool fda = false;
  double stepNm = 80.0;
  double minModulation = 15.0;
  int fringeRemoval = 0;
};

struct Result {
  unsigned code = 0;
  bool error = false;
  Core::DoubleMatrix2D height;
};

Result Run(Core::FrameBuffer& frames, Core::IntMatrix2D& peaks, const Core::DoubleMatrix2D& mask,
           const Settings& settings, int threads) {
  Swli::PhaseAlgorithmCentroid centroid;
  Swli::PhaseAlgorithmFda fda;
  Swli::PhaseAlgorithm& algorithm = settings.fda ? static_cast<Swli::PhaseAlgorithm&>(fda) : centroid;
  centroid.SetMinimumModulation(settings.minModulation);
  fda.SetMinimumModulation(settings.minModulation);
  algorithm.SetScanIncrement(
      Core::UnitNumber(settings.stepNm, Core::LinearConverter(Core::Units::kNanometers)));
  const Swli::FringeRemovalMethod methods[] = {Swli::FringeRemovalMethod::kNone,
                                               Swli::FringeRemovalMethod::kStandard,
                                               Swli::FringeRemovalMethod::k64Bucket};
  algorithm.SetRemoveFringes(methods[settings.fringeRemoval]);
  Core::IntMatrix2D intensity;
  algorithm.SetIntensityMatrix(intensity);
  Swli::PhaseGenerator generator(&algorithm);
  generator.SetAllowMultiThreads(threads > 1);
  generator.SetMaxNumThreads(threads);
  Core::IntMatrix2D auxiliary(frames.GetRows(), frames.GetColumns());
  auxiliary.SetAll(0);
  Result result;
  result.height = mask;
  generator.Process(frames, peaks, auxiliary, result.height);
  result.code = generator.GetStatus().GetCode();
  result.error = generator.GetStatus().IsError();
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  Settings settings;
  settings.fda = input.ConsumeBool();
  settings.stepNm = input.ConsumeBool() ? input.ConsumeFloatingPoint<double>()
                                        : input.ConsumeFloatingPointInRange(10.0, 200.0);
  settings.minModulation = input.ConsumeFloatingPointInRange(-10.0, 110.0);
  settings.fringeRemoval = input.ConsumeIntegralInRange(0, 2);
  const int rows = input.ConsumeIntegralInRange(1, 4);
  const int cols = input.ConsumeIntegralInRange(1, 6);
  const int scanned = input.ConsumeIntegralInRange(60, 140);
  // A ring holds exactly one signal (64 frames); otherwise the whole scan.
  const int stored = input.ConsumeBool() && scanned > 64 ? 64 : scanned;
  const int direction = input.ConsumeBool() ? 1 : -1;
  const bool sixteen = input.ConsumeBool();

  Core::FrameBuffer frames;
  Require(frames.Allocate(Core::Window2D(0, 0, rows, cols), scanned,
                          sixteen ? Core::FrameBuffer::kRes16Bit : Core::FrameBuffer::kRes8Bit, stored,
                          direction),
          "a small scan is allocated");
  std::vector<std::int32_t> pixels(static_cast<std::size_t>(rows) * cols);
  for (int slot = 0; slot < stored; ++slot) {
    for (std::int32_t& p : pixels)
      p = sixteen ? input.ConsumeIntegral<std::uint16_t>() : input.ConsumeIntegral<std::uint8_t>();
    frames.StoreFrame(slot, pixels.data());
  }
  Core::IntMatrix2D peaks(rows, cols);
  Core::DoubleMatrix2D mask(rows, cols);
  for (std::int64_t i = 0; i < peaks.GetCount(); ++i) {
    peaks.At(i) =
        input.ConsumeBool() ? input.ConsumeIntegral<int>() : input.ConsumeIntegralInRange(-2, scanned + 2);
    mask.At(i) = input.ConsumeIntegralInRange(0, 5) == 0 ? Core::DoubleMatrix2D::NoData() : 0.0;
  }

  const Result one = Run(frames, peaks, mask, settings, 1);
  Require(Fuzz::IsDocumentedCode(one.code), "a documented status code");
  const Result three = Run(frames, peaks, mask, settings, 3);
  Require(three.code == one.code, "one status for every thread count");
  if (one.error) {
    for (std::int64_t i = 0; i < one.height.GetCount(); ++i) {
      // Code 1 (no valid height) may leave the surface as it was or mark its pixels no data.
      const bool asHandedIn = std::memcmp(&one.height.At(i), &mask.At(i), sizeof(double)) == 0;
      if (!asHandedIn && !(one.code == 1 && Core::IsNoDataValue(one.height.At(i)))) {
        std::fprintf(stderr, "code %u, pixel %lld: %.17g, handed in %.17g\n", one.code,
                     static_cast<long long>(i), one.height.At(i), mask.At(i));
        Require(false, "after a failure the surface is left as it was handed in");
      }
    }
    return 0;
  }
  const bool physicalStep = settings.stepNm > 0.0 && settings.stepNm <= 1e6;
  std::int64_t valid = 0;
  for (std::int64_t i = 0; i < one.height.GetCount(); ++i) {
    const double height = one.height.At(i);
    // A scan step beyond any scan (negative, or past a millimetre) is stored unchecked, as every
    // setting; its heights (frame times step) may overflow, so finiteness is asked of real steps only.
    if (physicalStep && !Fuzz::FiniteOrNoData(height)) {
      std::fprintf(stderr, "%s, step %g nm, min modulation %g: height %g\n",
                   settings.fda ? "fda" : "centroid", settings.stepNm, settings.minModulation, height);
      Require(false, "a height is finite or no data");
    }
    if (Core::IsNoDataValue(mask.At(i))) Require(Core::IsNoDataValue(height), "a masked pixel stays no data");
    valid += !Core::IsNoDataValue(height);
    if (three.height.At(i) != height) {
      std::fprintf(stderr,
                   "%s, %lld x %lld pixels, step %g nm, pixel %lld: %.17g on one thread, %.17g on three\n",
                   settings.fda ? "fda" : "centroid", static_cast<long long>(one.height.GetRows()),
                   static_cast<long long>(one.height.GetColumns()), settings.stepNm,
                   static_cast<long long>(i), height, three.height.At(i));
      Require(false, "heights independent of the thread count");
    }
  }
  Require(valid > 0, "a run without error has a valid height (else code 1)");
  return 0;
}

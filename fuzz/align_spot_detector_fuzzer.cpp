// AlignSpotDetector on an arbitrary image with arbitrary parameters (NaN, infinities and undefined
// values included). Promises: the position is one of the enumeration; DetectionFailed exactly when
// the run stopped on a failure, which the status then holds with a documented code; otherwise the
// spots reported lie in the image with a finite centre of mass and at least one pixel each, one spot
// for a quadrant or obscuration position and several for TooManySignificantSpots.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "AlignSpotDetector/AlignSpotDetector.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "FuzzCheck.h"

namespace Core = ::Quarn::Metrology::Analysis::Core;
namespace Fuzz = ::Quarn::Fuzz;
using Fuzz::Require;

namespace {

namespace Alignment = ::Quarn::Metrology::PhaseProcessing::Core::Alignment;
using Alignment::AsdSpotPosition;

// A parameter as a host might pass it: ordinary values mostly, sometimes anything a double holds.
double Parameter(FuzzedDataProvider& input, double lo, double hi) {
  return input.ConsumeIntegralInRange(0, 7) == 0 ? input.ConsumeFloatingPoint<double>()
                                                 : input.ConsumeFloatingPointInRange(lo, hi);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const int rows = input.ConsumeIntegralInRange(1, 64);
  const int cols = input.ConsumeIntegralInRange(1, 64);
  Alignment::AlignSpotDetector detector;
  detector.Initialize();
  detector.SetReticleCenterX(Parameter(input, -10.0, cols + 10.0));
  detector.SetReticleCenterY(Parameter(input, -10.0, rows + 10.0));
  detector.SetInterestRegionRadius(Parameter(input, 0.0, 80.0));
  detector.SetReticleCenterR(Parameter(input, 0.0, 20.0));
  detector.SetSaturationThreshold(Parameter(input, 0.0, 70000.0));
  detector.SetMaxNumberOfSaturatedPixels(input.ConsumeIntegral<int>());
  detector.SetRegionRestrictor(input.ConsumeIntegralInRange(0, 3));
  if (input.ConsumeBool()) detector.SetClipThatManySigmas(Parameter(input, 0.0, 10.0));
  if (input.ConsumeBool()) detector.SetDropThatManySigmas(Parameter(input, 0.0, 10.0));
  if (input.ConsumeBool()) detector.SetDropBelowThisFraction(Parameter(input, 0.0, 1.0));

  Core::IntMatrix2D image(rows, cols);
  const bool sixteen = input.ConsumeBool();
  for (std::int64_t i = 0; i < image.GetCount(); ++i)
    image.At(i) = sixteen ? input.ConsumeIntegral<std::uint16_t>() : input.ConsumeIntegral<std::uint8_t>();
  detector.SetInput(&image);

  const AsdSpotPosition position = detector.DetectSpotPosition();
  Require(
      position >= AsdSpotPosition::DetectionFailed && position <= AsdSpotPosition::TooManySignificantSpots,
      "a position of the enumeration");
  Require(Fuzz::IsDocumentedCode(detector.GetStatus().GetCode()), "a documented status code");
  if (position == AsdSpotPosition::DetectionFailed) {
    Require(detector.GetStatus().IsError(), "a failed detection is recorded in the status");
    return 0;
  }
  const std::vector<Alignment::AsdSpotInfo> spots = detector.GetSpots();
  if (position >= AsdSpotPosition::Quadrant1 && position <= AsdSpotPosition::SpotBehindObscuration)
    Require(spots.size() == 1, "one spot for a quadrant or the obscuration");
  if (position == AsdSpotPosition::TooManySignificantSpots) Require(spots.size() > 1, "several spots");
  for (const Alignment::AsdSpotInfo& spot : spots) {
    Require(spot.GetSize() >= 1, "a spot has pixels");
    Require(std::isfinite(spot.GetX0()) && std::isfinite(spot.GetY0()) && spot.GetX0() >= 0 &&
                spot.GetY0() >= 0 && spot.GetX1() < cols && spot.GetY1() < rows,
            "a spot's box lies in the image");
  }
  return 0;
}

#include "Analysis/Core/Units.h"

#include <numbers>

namespace Quarn::Metrology::Analysis::Core {

UnitInfo DescribeUnit(int unitCode) {
  switch (unitCode) {
    case Units::kUnitless:
      return {UnitFamily::kUnitless, 1.0, "unitless"};
    case Units::kMeters:
      return {UnitFamily::kLength, 1e9, "m"};
    case Units::kMillimeters:
      return {UnitFamily::kLength, 1e6, "mm"};
    case Units::kMicrometers:
      return {UnitFamily::kLength, 1e3, "um"};
    case Units::kInches:
      return {UnitFamily::kLength, 25.4e6, "in"};
    case Units::kNanometersPerFrame:
      return {UnitFamily::kRampSlope, 1.0, "nm/frame"};
    case Units::kNanometers:
      return {UnitFamily::kLength, 1.0, "nm"};
    case Units::kAngstroms:
      return {UnitFamily::kLength, 0.1, "A"};
    case Units::kMicrometersPerFrame:
      return {UnitFamily::kRampSlope, 1e3, "um/frame"};
    case Units::kDegrees:
      return {UnitFamily::kPhase, std::numbers::pi / 180.0, "deg"};
    case Units::kRadians:
      return {UnitFamily::kPhase, 1.0, "rad"};
    case Units::kWaves:
      return {UnitFamily::kPhase, 2.0 * std::numbers::pi, "waves"};
    default:
      return {};
  }
}

}  // namespace Quarn::Metrology::Analysis::Core

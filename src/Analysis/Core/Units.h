#pragma once

#include "Analysis/Core/QuarnCoreExport.h"

namespace Quarn::Metrology::Analysis::Core {

// Unit codes
//
// The unit enumeration of the analysis library. Codes are plain ints because hosts store and pass
// them as numbers; the ones the algorithms ask for are
//   5  kNanometersPerFrame  scan ramp slope (distance moved per camera frame) of model libraries,
//   6  kNanometers          length: scan increments, surface heights, astigmatism values,
//   91 kRadians             phase: a phase map's unit manager, asked for code 91, gives the factor
//                           that turns radians into the map's own unit.
// Units belong to families (length, ramp slope, phase); conversions stay within a family, except
// that a converter which knows the wavelength also turns phase into surface height (see
// `LinearConverter`).
namespace Units {
inline constexpr int kUnitless = 0;
inline constexpr int kMeters = 1;
inline constexpr int kMillimeters = 2;
inline constexpr int kMicrometers = 3;
inline constexpr int kInches = 4;
inline constexpr int kNanometersPerFrame = 5;
inline constexpr int kNanometers = 6;
inline constexpr int kAngstroms = 7;
inline constexpr int kMicrometersPerFrame = 8;
inline constexpr int kDegrees = 90;
inline constexpr int kRadians = 91;
inline constexpr int kWaves = 92;
}  // namespace Units

enum class UnitFamily { kUnitless, kLength, kRampSlope, kPhase, kUnknown };

// UnitInfo
//
// Family of a unit code and its size in the family's reference unit (nanometres, nanometres per
// frame, radians). Unknown codes have family kUnknown and factor 0.
struct UnitInfo {
  UnitFamily family = UnitFamily::kUnknown;
  double factorToReference = 0.0;
  const char* name = "unknown";
};

QUARN_CORE_EXPORT UnitInfo DescribeUnit(int unitCode);

}  // namespace Quarn::Metrology::Analysis::Core

#pragma once

#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/QuarnCoreExport.h"

namespace Quarn::Metrology::Analysis::Core {

// Axes of a matrix that carry units: the two lateral directions and the stored values.
enum class UnitAxis { kX = 0, kY = 1, kValue = 2 };

// UnitManager
//
// The units of a matrix: one `LinearConverter` per axis (lateral x, lateral y and the value axis).
// The value axis answers the algorithms' questions: a phase map asks `GetSlopeToBaseUnit(91)` for
// the factor that turns radians into its own unit (1 for a map in radians or without units).
class QUARN_CORE_EXPORT UnitManager {
 public:
  UnitManager() = default;

  void SetConverter(UnitAxis axis, const LinearConverter& converter) { converters_[Index(axis)] = converter; }
  const LinearConverter& GetConverter(UnitAxis axis) const { return converters_[Index(axis)]; }

  double GetSlopeToBaseUnit(int unit) const {
    return GetConverter(UnitAxis::kValue).GetSlopeToBaseUnit(unit);
  }
  double ConvertFromBaseUnit(double value, int unit) const {
    return GetConverter(UnitAxis::kValue).ConvertFromBaseUnit(value, unit);
  }
  double ConvertToBaseUnit(double value, int unit) const {
    return GetConverter(UnitAxis::kValue).ConvertToBaseUnit(value, unit);
  }

  bool operator==(const UnitManager& other) const = default;

 private:
  static constexpr int Index(UnitAxis axis) { return static_cast<int>(axis); }
  LinearConverter converters_[3];
};

}  // namespace Quarn::Metrology::Analysis::Core

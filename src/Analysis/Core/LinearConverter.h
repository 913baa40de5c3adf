#pragma once

#include "Analysis/Core/QuarnCoreExport.h"
#include "Analysis/Core/Units.h"

namespace Quarn::Metrology::Analysis::Core {

// LinearConverter
//
// Converts values between a base unit (the unit in which numbers are stored) and any other unit of
// the same family. `GetSlopeToBaseUnit(u)` is the number of base units in one `u`:
//
//   LinearConverter mm(Units::kMillimeters);
//   mm.GetSlopeToBaseUnit(Units::kMicrometers);      // 0.001
//   mm.ConvertFromBaseUnit(2.0, Units::kNanometers); // 2e6
//
// A unitless base accepts every unit with slope 1 (numbers are taken as given). A length base with a
// wavelength also converts phase: one radian of interferometric phase is lambda / (4 pi) of surface
// height, because the light travels to the surface and back. Units that cannot be converted give a
// quiet NaN, which callers test with `CanConvert`.
class QUARN_CORE_EXPORT LinearConverter {
 public:
  LinearConverter() = default;
  explicit LinearConverter(int baseUnit, double wavelengthNm = 0.0)
      : baseUnit_(baseUnit), wavelengthNm_(wavelengthNm) {}

  int GetBaseUnit() const { return baseUnit_; }
  void SetBaseUnit(int unit) { baseUnit_ = unit; }
  double GetWavelengthNm() const { return wavelengthNm_; }
  void SetWavelengthNm(double wavelengthNm) { wavelengthNm_ = wavelengthNm; }

  double GetSlopeToBaseUnit(int unit) const;
  bool CanConvert(int unit) const;
  double ConvertFromBaseUnit(double value, int unit) const { return value / GetSlopeToBaseUnit(unit); }
  double ConvertToBaseUnit(double value, int unit) const { return value * GetSlopeToBaseUnit(unit); }

  bool operator==(const LinearConverter& other) const = default;

 private:
  int baseUnit_ = Units::kUnitless;
  double wavelengthNm_ = 0.0;
};

}  // namespace Quarn::Metrology::Analysis::Core

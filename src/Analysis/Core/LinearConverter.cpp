#include "Analysis/Core/LinearConverter.h"

#include <cmath>
#include <limits>
#include <numbers>

namespace Quarn::Metrology::Analysis::Core {

double LinearConverter::GetSlopeToBaseUnit(int unit) const {
  const UnitInfo base = DescribeUnit(baseUnit_);
  const UnitInfo other = DescribeUnit(unit);
  if (base.family == UnitFamily::kUnitless) return 1.0;
  if (other.family == UnitFamily::kUnknown || base.family == UnitFamily::kUnknown) {
    return std::numeric_limits<double>::quiet_NaN();
  }
  if (other.family == base.family) return other.factorToReference / base.factorToReference;
  // Phase to surface height in reflection: 2 pi of phase is half a wavelength of height.
  const double nmPerRadian = wavelengthNm_ / (4.0 * std::numbers::pi);
  if (wavelengthNm_ > 0.0 && base.family == UnitFamily::kLength && other.family == UnitFamily::kPhase) {
    return other.factorToReference * nmPerRadian / base.factorToReference;
  }
  if (wavelengthNm_ > 0.0 && base.family == UnitFamily::kPhase && other.family == UnitFamily::kLength) {
    return other.factorToReference / nmPerRadian / base.factorToReference;
  }
  return std::numeric_limits<double>::quiet_NaN();
}

bool LinearConverter::CanConvert(int unit) const {
  const double slope = GetSlopeToBaseUnit(unit);
  return std::isfinite(slope) && slope > 0.0;
}

}  // namespace Quarn::Metrology::Analysis::Core

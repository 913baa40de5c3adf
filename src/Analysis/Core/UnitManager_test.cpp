#include "Analysis/Core/UnitManager.h"

#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "Analysis/Core/UnitNumber.h"

namespace Quarn::Metrology::Analysis::Core {
namespace {

TEST(UnitsTest, UnitlessAcceptsEverythingAndIncompatibleIsNaN) {
  const UnitManager plain;
  EXPECT_EQ(plain.GetSlopeToBaseUnit(Units::kRadians), 1.0) << "a map without units takes phase as radians";
  const LinearConverter nm(Units::kNanometers);
  EXPECT_TRUE(std::isnan(nm.GetSlopeToBaseUnit(Units::kRadians))) << "no wavelength, no phase-to-height";
  EXPECT_FALSE(nm.CanConvert(Units::kRadians));
  EXPECT_FALSE(nm.CanConvert(12345));
  EXPECT_TRUE(nm.CanConvert(Units::kMicrometers));
}

TEST(UnitsTest, WavelengthTurnsPhaseIntoSurfaceHeight) {
  // 2 pi of reflected phase is half a wavelength of height.
  const LinearConverter heightNm(Units::kNanometers, 632.8);
  EXPECT_NEAR(heightNm.ConvertToBaseUnit(2.0 * std::numbers::pi, Units::kRadians), 316.4, 1e-9);
  const LinearConverter phase(Units::kRadians, 632.8);
  EXPECT_NEAR(phase.ConvertToBaseUnit(316.4, Units::kNanometers), 2.0 * std::numbers::pi, 1e-12);
}

TEST(UnitsTest, UnitNumberReadsInAnyUnitAndUndefinedStaysUndefined) {
  UnitNumber step(80.0, LinearConverter(Units::kNanometers));
  EXPECT_DOUBLE_EQ(step.GetValue(Units::kMicrometers), 0.08);
  step.SetValue(0.1, Units::kMicrometers);
  EXPECT_DOUBLE_EQ(step.GetValue(), 100.0);
  step.SetValue(1.7976931348623157e308);
  EXPECT_TRUE(step.IsUndefined());
  EXPECT_EQ(step.GetValue(Units::kMillimeters), 1.7976931348623157e308);
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

#pragma once

#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/NoData.h"
#include "Analysis/Core/QuarnCoreExport.h"

namespace Quarn::Metrology::Analysis::Core {

// UnitNumber
//
// A setting that carries its unit: a value stored in the base unit of its converter. Algorithms read
// it in the unit they compute in:
//
//   UnitNumber step(80.0, LinearConverter(Units::kNanometers));
//   step.GetValue(Units::kMicrometers);  // 0.08
//
// The undefined value (the largest finite double) stays undefined through every conversion.
class QUARN_CORE_EXPORT UnitNumber {
 public:
  UnitNumber() = default;
  explicit UnitNumber(double value, const LinearConverter& converter = LinearConverter())
      : value_(value), converter_(converter) {}

  double GetValue() const { return value_; }
  double GetValue(int unit) const {
    return IsNoDataValue(value_) ? kNoDataDouble : converter_.ConvertFromBaseUnit(value_, unit);
  }
  void SetValue(double value) { value_ = value; }
  void SetValue(double value, int unit) {
    value_ = IsNoDataValue(value) ? kNoDataDouble : converter_.ConvertToBaseUnit(value, unit);
  }
  bool IsUndefined() const { return IsNoDataValue(value_); }

  const LinearConverter& GetConverter() const { return converter_; }
  void SetConverter(const LinearConverter& converter) { converter_ = converter; }

 private:
  double value_ = 0.0;
  LinearConverter converter_;
};

}  // namespace Quarn::Metrology::Analysis::Core

#include "SwliMba/LibDef/PolarizationType.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

std::string PolarizationType::ToString() const {
  if (value_ == LinearlyPolarized) return "LinearlyPolarized";
  if (value_ == CircularlyPolarized) return "CircularlyPolarized";
  return "(unknown)";
}

bool PolarizationType::Set(const std::string& text) {
  if (text == "LinearlyPolarized") {
    value_ = LinearlyPolarized;
  } else if (text == "CircularlyPolarized") {
    value_ = CircularlyPolarized;
  } else {
    return false;
  }
  return true;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

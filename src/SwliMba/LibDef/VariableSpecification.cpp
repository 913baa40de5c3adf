#include "SwliMba/LibDef/VariableSpecification.h"

#include <cmath>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

int VariableSpecification::GetNumberOfValues() const {
  return static_cast<int>(std::ceil((rangeTo_ - rangeFrom_) / rangeIncrement_) + 1.0);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

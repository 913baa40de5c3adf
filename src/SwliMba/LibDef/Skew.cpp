#include "SwliMba/LibDef/Skew.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

int Skew::GetTotalNumberOfConfigurations() const {
  if (variable1_.GetKind() == VariableKind::Undefined) return 1;
  const int n1 = variable1_.GetNumberOfValues();
  if (variable2_.GetKind() == VariableKind::Undefined) return n1;
  return n1 * variable2_.GetNumberOfValues();
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

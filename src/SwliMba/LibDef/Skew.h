#pragma once

#include "QuarnPhaseProcessingExport.h"
#include "SwliMba/LibDef/VariableSpecification.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// Skew
//
// The varied parameters of a library: variable 1 and variable 2. A library holds one spectrum per
// configuration, variable 2 varying fastest: configuration c has variable 1's value c / N2 and
// variable 2's value c % N2 (N2 = 1 for a one-dimensional library).
class QUARN_PP_EXPORT Skew {
 public:
  VariableSpecification& GetVariable1() { return variable1_; }
  const VariableSpecification& GetVariable1() const { return variable1_; }
  VariableSpecification& GetVariable2() { return variable2_; }
  const VariableSpecification& GetVariable2() const { return variable2_; }

  // Variable 2 is Undefined.
  bool IsOneDimensional() const { return variable2_.GetKind() == VariableKind::Undefined; }
  // Neither variable is Undefined.
  bool IsTwoDimensional() const {
    return variable1_.GetKind() != VariableKind::Undefined && variable2_.GetKind() != VariableKind::Undefined;
  }
  // 1 when variable 1 is Undefined (variable 2 is then ignored); N1, or N1 × N2 when variable 2
  // is used too.
  int GetTotalNumberOfConfigurations() const;
  void Clear() {
    variable1_.Clear();
    variable2_.Clear();
  }

 private:
  VariableSpecification variable1_;
  VariableSpecification variable2_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

#pragma once

#include "Analysis/Core/NoData.h"
#include "QuarnPhaseProcessingExport.h"
#include "SwliMba/LibDef/VariableKind.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// VariableSpecification
//
// One varied parameter of a library: which layer (index into the film stack, 0 = top), what kind
// of parameter, and the range from, to, increment (µm for a thickness, the plain number for a
// Cauchy term). Values are from + i × increment for i = 0 .. GetNumberOfValues() − 1; the last one
// may lie beyond `to` when the increment does not divide the range:
//
//   VariableSpecification v;
//   v.SetRange(0.0, 1.0, 0.3);
//   v.GetNumberOfValues();   // ceil(3.33) + 1 = 5: 0, 0.3, 0.6, 0.9, 1.2
//
// The range members are the largest finite double (not set) until `SetRange`.
class QUARN_PP_EXPORT VariableSpecification {
 public:
  VariableSpecification() = default;

  void SetRange(double from, double to, double increment) {
    rangeFrom_ = from;
    rangeTo_ = to;
    rangeIncrement_ = increment;
  }
  double GetRangeFrom() const { return rangeFrom_; }
  double GetRangeTo() const { return rangeTo_; }
  double GetRangeIncrement() const { return rangeIncrement_; }
  void SetLayerIndex(int index) { layerIndex_ = index; }
  int GetLayerIndex() const { return layerIndex_; }
  void SetKind(VariableKind kind) { kind_ = kind; }
  VariableKind GetKind() const { return kind_; }
  void Clear() { *this = VariableSpecification(); }

  // ceil((to − from) / increment) + 1.
  int GetNumberOfValues() const;
  // i × increment + from, without a range check.
  double GetValue(int i) const { return i * rangeIncrement_ + rangeFrom_; }

 private:
  int layerIndex_ = 0;
  double rangeFrom_ = Analysis::Core::kNoDataDouble;
  double rangeTo_ = Analysis::Core::kNoDataDouble;
  double rangeIncrement_ = Analysis::Core::kNoDataDouble;
  VariableKind kind_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

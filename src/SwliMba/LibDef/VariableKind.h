#pragma once

#include <string>

#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// VariableKind
//
// What a varied library parameter is: nothing (Undefined), the physical thickness of a layer
// (Thickness, µm), or the constant term of the real index (CauchyN0) or of the extinction
// (CauchyK0) of a layer's "Complex-Cauchy/um" material. A value class around one int.
//
//   VariableKind kind;
//   kind.Set("thickness");   // true: the text is compared case-blind
//   kind.ToString();         // "Thickness"
class QUARN_PP_EXPORT VariableKind {
 public:
  enum : int { Undefined = 0, Thickness = 1, CauchyN0 = 2, CauchyK0 = 3 };

  VariableKind(int value = Undefined) : value_(value) {}  // NOLINT: an int converts on purpose
  operator int() const { return value_; }                 // NOLINT

  // "Undefined", "Thickness", "CauchyN0", "CauchyK0"; "" for any other value.
  std::string ToString() const;
  // Stores the value whose text equals `text` case-blind; false (value kept) when none does.
  bool Set(const std::string& text);
  void Set(int value) { value_ = value; }
  static bool IsValid(const std::string& text);

 private:
  int value_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

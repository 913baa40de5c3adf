#pragma once

#include <string>

#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// PolarizationType
//
// The illumination polarisation of the instrument: 1 "LinearlyPolarized" (the electric field along
// the pupil's x axis) or 2 "CircularlyPolarized". A value class around one int.
class QUARN_PP_EXPORT PolarizationType {
 public:
  enum : int { LinearlyPolarized = 1, CircularlyPolarized = 2 };

  PolarizationType(int value = CircularlyPolarized) : value_(value) {}  // NOLINT: an int converts on purpose
  operator int() const { return value_; }                               // NOLINT

  // "LinearlyPolarized", "CircularlyPolarized", "(unknown)" for any other value.
  std::string ToString() const;
  // Exact text; false (value kept) for any other.
  bool Set(const std::string& text);

 private:
  int value_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

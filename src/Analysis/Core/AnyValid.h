#pragma once

#include "Analysis/Core/DataWindow2D.h"

namespace Quarn::Metrology::Analysis::Core::Calculation {

// AnyValid
//
// True when at least one element of the window holds data (is below the no-data value). Algorithms
// use it to turn "every pixel was rejected" into a status instead of an empty success.
template <typename T>
bool AnyValid(const DataWindow2D<T>& window) {
  return window.AnyValid();
}

}  // namespace Quarn::Metrology::Analysis::Core::Calculation

// What every harness needs: a failed promise aborts (libFuzzer then keeps the input), and the status
// codes a host may see.
#pragma once

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include "Analysis/Core/NoData.h"
#include "Analysis/Core/Status.h"

namespace Quarn::Fuzz {

namespace Core = ::Quarn::Metrology::Analysis::Core;

// Aborts with the broken promise when `holds` is false.
inline void Require(bool holds, const char* promise) {
  if (holds) return;
  std::fprintf(stderr, "broken promise: %s\n", promise);
  std::abort();
}

// The codes of the status table; anything else reaching a host is a fault.
inline bool IsDocumentedCode(unsigned code) {
  namespace C = Core::StatusCode;
  for (const unsigned known :
       {C::kSuccess, C::kNoValidResult, C::kNoData, C::kAllocationFailed, C::kControllerFailed,
        C::kInvalidArgument, C::kCallFailed, C::kSectionTooSmall, C::kNumericFailure, C::kArgumentOutOfRange,
        C::kNotSet, C::kOutsideWindow, C::kPeakFrameMismatch, C::kNegativeDimension}) {
    if (code == known) return true;
  }
  return false;
}

// A result pixel is either no data or a finite number.
inline bool FiniteOrNoData(double value) {
  return Core::IsNoDataValue(value) || std::isfinite(value);
}

}  // namespace Quarn::Fuzz

#pragma once

#include "Analysis/Core/DataWindow2D.h"

namespace Quarn::Metrology::Analysis::Core {

// IntMatrix2D
//
// A windowed matrix of ints (camera images, peak frames, region ids) whose invalid value is
// 2147483640 (0x7FFFFFF8) or more. `GetInternalMat()` gives the plain matrix underneath.
class IntMatrix2D : public IntWindow2D {
 public:
  IntMatrix2D() = default;
  IntMatrix2D(int rows, int cols) : IntWindow2D(rows, cols) {}

  DataMatrix2D<int>& GetInternalMat() { return *this; }
  const DataMatrix2D<int>& GetInternalMat() const { return *this; }
};

}  // namespace Quarn::Metrology::Analysis::Core

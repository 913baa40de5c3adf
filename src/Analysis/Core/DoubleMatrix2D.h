#pragma once

#include "Analysis/Core/DataWindow2D.h"

namespace Quarn::Metrology::Analysis::Core {

// DoubleMatrix2D
//
// The double map the algorithms read and write (phase, modulation, height): a windowed matrix of
// doubles whose no-data value is the largest finite double. `GetInternalMat()` gives the plain
// matrix underneath for code that indexes it directly.
class DoubleMatrix2D : public DoubleWindow2D {
 public:
  DoubleMatrix2D() = default;
  DoubleMatrix2D(int rows, int cols) : DoubleWindow2D(rows, cols) {}

  DataMatrix2D<double>& GetInternalMat() { return *this; }
  const DataMatrix2D<double>& GetInternalMat() const { return *this; }
};

}  // namespace Quarn::Metrology::Analysis::Core

#pragma once

#include "Analysis/Core/Array.h"

namespace Quarn::Metrology::Analysis::Core {

// A point in three dimensions; what the coordinates mean (and their units) is said by the
// operation that fills the array.
struct Point3D {
  double x = 0.0;
  double y = 0.0;
  double z = 0.0;
};

// A growable array of points, with the status of `Array`.
using Point3DArray = Array<Point3D>;

}  // namespace Quarn::Metrology::Analysis::Core

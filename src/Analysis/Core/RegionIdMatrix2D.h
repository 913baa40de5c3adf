#pragma once

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "Analysis/Core/QuarnCoreExport.h"
#include "Analysis/Core/RegionInfo.h"

namespace Quarn::Metrology::Analysis::Core {

// RegionIdMatrix2D
//
// An integer map of region identifiers over a window of the camera: a pixel holding an id below
// 2147483640 belongs to that region, a pixel at or above it belongs to none. Used as a region mask
// (any valid pixel is "in") and as the output of the connected-region finder.
class QUARN_CORE_EXPORT RegionIdMatrix2D : public IntMatrix2D {
 public:
  RegionIdMatrix2D() = default;
  RegionIdMatrix2D(int rows, int cols) : IntMatrix2D(rows, cols) {}
  ~RegionIdMatrix2D() override;

  static bool IsValid(int id) { return IsDataValid(id); }

  // Invalidates the pixels of the region's bounding window that hold the region's id.
  void DeleteRegion(const RegionInfo& region);

  // Makes this map a region map of the no-data areas of `values`: each pixel that is no-data there
  // gets id 0 (a region pixel), each valid pixel gets the invalid id. Shape, origin and window are
  // taken from `values`. The connected-region finder then splits the holes into regions; this is
  // what trimming of valid data around holes works on. Returns false (with the status set) when
  // the map cannot be sized.
  virtual bool MarkNoDataOf(const DoubleMatrix2D& values);
};

}  // namespace Quarn::Metrology::Analysis::Core

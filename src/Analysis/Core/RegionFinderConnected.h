#pragma once

#include "Analysis/Core/Array.h"
#include "Analysis/Core/DataWindow2D.h"
#include "Analysis/Core/QuarnCoreExport.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Analysis/Core/RegionInfo.h"
#include "Analysis/Core/Status.h"

namespace Quarn::Metrology::Analysis::Core {

// RegionFinderConnected
//
// Splits the valid pixels of an integer map (every value below 2147483640, whatever it is) into
// connected regions. Connectivity is 8 by default (pixels touching at a corner belong together, as
// the pixels of a blurred spot or of a hole do) or 4 on request.
//
// Output: a `RegionIdMatrix2D` of the input's shape and origin in which each pixel holds its
// region's id (invalid where the input was invalid) and one `RegionInfo` per region with the id,
// the pixel count and the bounding window in camera coordinates. Ids are 0, 1, 2, ... in the order
// in which a row-major scan first meets each region, so the result does not depend on anything but
// the input. The output map may be the input map itself.
//
//   RegionFinderConnected finder;
//   finder.SetMatrix(foreground);
//   finder.MakeRegions(regionIds, regions);   // regions[k].id == k
class QUARN_CORE_EXPORT RegionFinderConnected {
 public:
  enum class Connectivity { kFour = 4, kEight = 8 };

  explicit RegionFinderConnected(Connectivity connectivity = Connectivity::kEight)
      : connectivity_(connectivity) {}

  void SetMatrix(const IntWindow2D& input) { input_ = &input; }
  Connectivity GetConnectivity() const { return connectivity_; }
  void SetConnectivity(Connectivity connectivity) { connectivity_ = connectivity; }

  // Fails with code 21 without an input and with the output's status (copied) when it cannot be
  // sized or the region list cannot grow.
  bool MakeRegions(RegionIdMatrix2D& regionIds, Array<RegionInfo>& regions);

  Status& GetStatus() { return status_; }

 private:
  const IntWindow2D* input_ = nullptr;
  Connectivity connectivity_;
  Status status_{__LINE__, "analysis\\core\\RegionFinderConnected"};
};

}  // namespace Quarn::Metrology::Analysis::Core

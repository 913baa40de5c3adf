#pragma once

#include "Analysis/Core/Window2D.h"

namespace Quarn::Metrology::Analysis::Core {

// RegionInfo
//
// What the connected-region finder reports about one region: its id (the value its pixels hold in
// the region-id matrix), its pixel count and its bounding window in camera coordinates.
struct RegionInfo {
  int id = 0;
  int pixelCount = 0;
  Window2D window;
};

}  // namespace Quarn::Metrology::Analysis::Core

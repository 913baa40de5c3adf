#pragma once

#include <cstdint>
#include <vector>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/DataMatrix2D.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Analysis/Core/RegionInfo.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail {

// The row operations of the carrier pipeline's trim. Valid phase next to a large no-data area (an
// obscuration, the frame border of a clipped pupil) carries the filter's ringing: such areas are
// grown by one pixel (3 x 3) into the valid phase. Small holes (single rejected pixels, dust) are
// left alone. The controller finds the areas and spreads these steps over its workers.

// Deletes from `areas` the regions below `minRegionSize` pixels and marks in `keptRows` (one entry
// per row of the map, all rewritten) the rows that a kept region's bounding box reaches.
void KeepLargeAreas(Analysis::Core::RegionIdMatrix2D& areas,
                    const Analysis::Core::Array<Analysis::Core::RegionInfo>& regions, int minRegionSize,
                    std::vector<std::uint8_t>& keptRows);

// Rows [first, end) of `work`: 1 where `areas` holds a kept region on a row `keptRows` marks, 0
// elsewhere (a row away from every kept area is cleared without reading the ids).
void MarkTrimRows(const Analysis::Core::RegionIdMatrix2D& areas, const std::vector<std::uint8_t>& keptRows,
                  Analysis::Core::DataMatrix2D<std::uint8_t>& work, int first, int end);

// Rows [first, end) of the phase: where `work` grown by one pixel (into `grown`, only for rows next
// to a kept row; `work` must be complete on the neighbouring rows) is set, and, with a mask,
// outside the mask's valid ids, the phase becomes no data.
void ApplyTrimRows(const std::vector<std::uint8_t>& keptRows,
                   const Analysis::Core::DataMatrix2D<std::uint8_t>& work,
                   Analysis::Core::DataMatrix2D<std::uint8_t>& grown,
                   const Analysis::Core::RegionIdMatrix2D* mask, Analysis::Core::DoubleMatrix2D& phase,
                   int first, int end);

// The mask step on its own: phase pixels whose mask id is not valid become no data (over the
// rows and columns the two share).
void ApplyMask(const Analysis::Core::RegionIdMatrix2D& mask, Analysis::Core::DoubleMatrix2D& phase);

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail

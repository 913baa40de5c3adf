#include "AlignSpotDetector/AsdController.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <string>
#include <vector>

#include "AlignSpotDetector/detail/SpotImageOps.h"
#include "Analysis/Core/RegionFinderConnected.h"
#include "Core/Board/WiringCheck.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {

using Analysis::Core::RegionFinderConnected;
using Analysis::Core::RegionIdMatrix2D;
using Analysis::Core::RegionInfo;
using Analysis::Core::Status;
using Analysis::Core::Window2D;
namespace StatusCode = Analysis::Core::StatusCode;

AsdController::~AsdController() = default;

AsdSpotPosition AsdController::DetectSpotPosition() {
  if (!board_) return AsdSpotPosition::DetectionFailed;
  if (!CheckWired()) return AsdSpotPosition::DetectionFailed;
  // Steps 2 to 4 in one pass over the image: the same images and count as SigmaClipping, ApplyMask
  // and InputImageHasTooManySaturatedPixels in turn.
  std::int64_t saturated = 0;
  int firstRow = 0, endRow = 0;
  if (!SigmaClippingMaskAndCount(saturated, firstRow, endRow)) return AsdSpotPosition::DetectionFailed;
  if (saturated > board_->maxNumberOfSaturatedPixels) return AsdSpotPosition::TooManySaturatedPixels;
  if (!RegionizeRows(firstRow, endRow)) return AsdSpotPosition::DetectionFailed;
  if (SpotListEmpty()) return AsdSpotPosition::NoSignificantSpot;
  if (!DropInsignificantRegions()) return AsdSpotPosition::DetectionFailed;
  if (SpotListEmpty()) return AsdSpotPosition::NoSignificantSpot;
  if (!ApplyRegionRestrictor()) return AsdSpotPosition::DetectionFailed;
  if (SpotListEmpty()) return AsdSpotPosition::NoSignificantSpot;
  if (!InvalidateInsignificantRegions() || !ReassignRegionIds() || !RegionsToProperties()) {
    return AsdSpotPosition::DetectionFailed;
  }
  return GetSpotPosition();
}

bool AsdController::CheckWired() {
  AsdBoard& b = *board_;
  return WiringCheck(b.status, StatusCode::kControllerFailed, kSource)
      .Require(b.input != nullptr, __LINE__)
      .RequireDefined(b.maxNumberOfSaturatedPixels, __LINE__)
      .RequireDefined(b.interestRegionRadius, __LINE__)
      .RequireDefined(b.reticleCenterX, __LINE__)
      .RequireDefined(b.reticleCenterY, __LINE__)
      .RequireDefined(b.reticleCenterR, __LINE__)
      .RequireDefined(b.clipThatManySigmas, __LINE__)
      .RequireDefined(b.dropThatManySigmas, __LINE__)
      .RequireDefined(b.dropBelowThisFraction, __LINE__)
      .RequireDefined(b.saturationThreshold, __LINE__)
      .Passed();
}

void AsdController::BackgroundBand(int& lo, int& hi) {
  AsdBoard& b = *board_;
  const double k = b.clipThatManySigmas;
  // The first split into background and foreground only serves to measure the background: its
  // statistics are those of the input's pixels inside the first band, taken without building it.
  detail::BandStatistics all, floor;
  detail::ClippedStatistics(*b.input, k, all, floor);
  b.backgroundSigma = floor.stdDev;
  lo = detail::TruncateToInt(floor.mean - k * floor.stdDev);
  hi = detail::TruncateToInt(floor.mean + k * floor.stdDev);
}

bool AsdController::SigmaClipping() {
  AsdBoard& b = *board_;
  int lo = 0, hi = 0;
  BackgroundBand(lo, hi);
  if (!detail::SplitAtBand(*b.input, lo, hi, b.background, b.foreground)) {
    b.status = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "");
    return false;
  }
  return true;
}

bool AsdController::SigmaClippingMaskAndCount(std::int64_t& saturated, int& firstRow, int& endRow) {
  AsdBoard& b = *board_;
  int lo = 0, hi = 0;
  BackgroundBand(lo, hi);
  detail::RowSpan rows;
  if (!detail::SplitMaskAndCount(*b.input, lo, hi, b.reticleCenterX, b.reticleCenterY, b.interestRegionRadius,
                                 b.reticleCenterR, detail::TruncateToInt(b.saturationThreshold), b.background,
                                 b.foreground, saturated, &rows)) {
    b.status = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "");
    return false;
  }
  firstRow = rows.first;
  endRow = rows.end;
  return true;
}

bool AsdController::ApplyMask() {
  AsdBoard& b = *board_;
  detail::ApplySquareAndObscurationMask(b.foreground, b.reticleCenterX, b.reticleCenterY,
                                        b.interestRegionRadius, b.reticleCenterR);
  return true;
}

bool AsdController::InputImageHasTooManySaturatedPixels() {
  AsdBoard& b = *board_;
  const int threshold = detail::TruncateToInt(b.saturationThreshold);
  return detail::CountAtOrAbove(b.foreground, threshold) <= b.maxNumberOfSaturatedPixels;
}

bool AsdController::HasSpotList() {
  AsdBoard& b = *board_;
  if (b.spotInfoList) return true;
  b.status = Status(0, StatusCode::kNotSet, __LINE__, kSource,
                    "The spot list does not exist: initialize the detector before detecting");
  return false;
}

bool AsdController::SpotListEmpty() const {
  return !board_->spotInfoList || board_->spotInfoList->IsEmpty();
}

bool AsdController::Regionize() {
  return RegionizeRows(0, board_->foreground.GetRows());
}

namespace {

// The region finder over the foreground rows [firstRow, endRow) only, with the map of the whole
// foreground it would have made: ids are numbered in scan order, which rows without a valid pixel
// do not change, and every other row of the map is empty. For a spot in a large frame this reads
// a few rows instead of the frame.
bool FindRegionsInRows(const Analysis::Core::IntWindow2D& foreground, int firstRow, int endRow,
                       RegionIdMatrix2D& map, Analysis::Core::Array<RegionInfo>& regions, Status& status) {
  const int cols = foreground.GetColumns();
  Analysis::Core::IntMatrix2D band;
  QUARN_RETURN_IF_CALL_FAILED(
      band.Resize(foreground.GetStartRow() + firstRow, foreground.GetStartCol(), endRow - firstRow, cols),
      status, AsdController::kSource, band, "band.Resize", false);
  for (int r = firstRow; r < endRow; ++r)
    std::copy(foreground.Row(r), foreground.Row(r) + cols, band.Row(r - firstRow));
  RegionIdMatrix2D bandIds;
  RegionFinderConnected finder;
  finder.SetMatrix(band);
  QUARN_RETURN_IF_CALL_FAILED(finder.MakeRegions(bandIds, regions), status, AsdController::kSource, finder,
                              "regionFinder.MakeRegions", false);
  QUARN_RETURN_IF_CALL_FAILED(map.Resize(foreground.GetMatrixWindow()), status, AsdController::kSource, map,
                              "regionIdMap.Resize", false);
  const int none = RegionIdMatrix2D::NoData();
  for (int r = 0; r < foreground.GetRows(); ++r) {
    int* row = map.Row(r);
    if (r >= firstRow && r < endRow) {
      std::copy(bandIds.Row(r - firstRow), bandIds.Row(r - firstRow) + cols, row);
    } else {
      std::fill(row, row + cols, none);
    }
  }
  map.ResetWindow();
  map.SetUnitManager(foreground.GetUnitManager());
  return true;
}

}  // namespace

bool AsdController::RegionizeRows(int firstRow, int endRow) {
  AsdBoard& b = *board_;
  if (!HasSpotList()) return false;
  auto& spots = *b.spotInfoList;
  QUARN_RETURN_IF_CALL_FAILED(spots.Clear(), b.status, kSource, spots, "spotInfoList.Clear", false);
  if (firstRow == 0 && endRow == b.foreground.GetRows()) {
    RegionFinderConnected finder;
    finder.SetMatrix(b.foreground);
    QUARN_RETURN_IF_CALL_FAILED(finder.MakeRegions(b.regionIdMap, b.regions), b.status, kSource, finder,
                                "regionFinder.MakeRegions", false);
  } else if (!FindRegionsInRows(b.foreground, firstRow, endRow, b.regionIdMap, b.regions, b.status)) {
    return false;
  }
  QUARN_RETURN_IF_CALL_FAILED(spots.Reserve(b.regions.Size()), b.status, kSource, spots,
                              "spotInfoList.Reserve", false);
  const RegionIdMatrix2D& ids = b.regionIdMap;
  for (const RegionInfo& region : b.regions) {
    AsdSpotInfo spot(region);
    const Window2D& w = region.window;
    for (int y = w.GetStartRow(); y < w.GetEndRow(); ++y) {
      const int* idRow = ids.Row(y - ids.GetStartRow());
      const int* valueRow = b.foreground.Row(y - b.foreground.GetStartRow());
      for (int x = w.GetStartCol(); x < w.GetEndCol(); ++x) {
        if (idRow[x - ids.GetStartCol()] == region.id)
          spot.Feed(x, y, valueRow[x - b.foreground.GetStartCol()]);
      }
    }
    QUARN_RETURN_IF_CALL_FAILED(spots.Add(spot), b.status, kSource, spots, "spotInfoList.Add", false);
  }
  return true;
}

bool AsdController::RemoveItemsWhoseSumIsBelow(double threshold) {
  AsdBoard& b = *board_;
  if (!HasSpotList()) return false;
  auto& spots = *b.spotInfoList;
  // Stable, so that spots of equal sums keep the order in which the region finder met them.
  std::stable_sort(spots.begin(), spots.end(), CompareSpotInfosBySum);
  for (int i = spots.Size() - 1; i >= 0; --i) {
    if (spots[i].GetSum() < threshold) {
      b.regionIdMap.DeleteRegion(spots[i].GetRegionInfo());
      spots.Erase(i);
    } else {
      spots[i].ReferenceToCenter(b.reticleCenterX, b.reticleCenterY);
    }
  }
  return true;
}

bool AsdController::DropInsignificantRegions() {
  AsdBoard& b = *board_;
  if (!HasSpotList()) return false;
  if (!b.spotInfoList->IsEmpty() && !RemoveItemsWhoseSumIsBelow(b.dropThatManySigmas * b.backgroundSigma)) {
    return false;
  }
  // Sorted now: the first spot is the brightest.
  if (b.spotInfoList->IsEmpty()) return true;
  return RemoveItemsWhoseSumIsBelow(b.dropBelowThisFraction * (*b.spotInfoList)[0].GetSum());
}

bool AsdController::ApplyRegionRestrictor() {
  AsdBoard& b = *board_;
  if (!HasSpotList()) return false;
  auto& spots = *b.spotInfoList;
  if (b.regionRestrictor == AsdRegionRestrictor::Full || spots.IsEmpty()) return true;
  // Erasing by compaction keeps the order of the spots that stay.
  int kept = 0;
  for (int i = 0; i < spots.Size(); ++i) {
    if (b.regionRestrictor.IsInRestrictedRegion(spots[i].GetQuadrant())) {
      if (kept != i) spots[kept] = spots[i];
      ++kept;
    } else {
      b.regionIdMap.DeleteRegion(spots[i].GetRegionInfo());
    }
  }
  while (spots.Size() > kept)
    spots.Erase(spots.Size() - 1);
  return true;
}

namespace {

// Every valid pixel of the region map lies in the bounding window of one of the regions the finder
// reported (later steps only invalidate or renumber pixels), so the passes over the map need only
// the union of those windows: for a spot in a large frame, a few rows instead of the frame.
Window2D RegionBounds(const AsdBoard& b) {
  int top = INT_MAX, left = INT_MAX, bottom = INT_MIN, right = INT_MIN;
  for (const RegionInfo& region : b.regions) {
    const Window2D& w = region.window;
    if (w.IsEmpty()) continue;
    top = std::min(top, w.GetStartRow());
    left = std::min(left, w.GetStartCol());
    bottom = std::max(bottom, w.GetEndRow());
    right = std::max(right, w.GetEndCol());
  }
  if (top > bottom) return Window2D(b.regionIdMap.GetStartRow(), b.regionIdMap.GetStartCol(), 0, 0);
  return Window2D(Window2D(top, left, bottom - top, right - left), b.regionIdMap.GetMatrixWindow());
}

// Calls f(id) for every element of the map inside `w`.
template <typename F>
void ForEachId(RegionIdMatrix2D& map, const Window2D& w, F&& f) {
  for (int r = w.GetStartRow(); r < w.GetEndRow(); ++r) {
    int* row = map.Row(r - map.GetStartRow()) + (w.GetStartCol() - map.GetStartCol());
    for (int c = 0; c < w.GetCols(); ++c)
      f(row[c]);
  }
}

}  // namespace

bool AsdController::InvalidateInsignificantRegions() {
  AsdBoard& b = *board_;
  if (!HasSpotList()) return false;
  const auto& spots = *b.spotInfoList;
  int largestId = -1;
  for (const AsdSpotInfo& spot : spots)
    largestId = std::max(largestId, spot.GetId());
  std::vector<unsigned char> survives(static_cast<std::size_t>(largestId + 1), 0);
  for (const AsdSpotInfo& spot : spots) {
    if (spot.GetId() >= 0) survives[static_cast<std::size_t>(spot.GetId())] = 1;
  }
  const int invalid = RegionIdMatrix2D::NoData();
  ForEachId(b.regionIdMap, RegionBounds(b), [&](int& id) {
    if (!RegionIdMatrix2D::IsValid(id)) return;
    if (id < 0 || id > largestId || !survives[static_cast<std::size_t>(id)]) id = invalid;
  });
  return true;
}

bool AsdController::ReassignRegionIds() {
  AsdBoard& b = *board_;
  if (!HasSpotList()) return false;
  auto& spots = *b.spotInfoList;
  const int n = spots.Size();
  int largestId = -1;
  for (const AsdSpotInfo& spot : spots)
    largestId = std::max(largestId, spot.GetId());
  // Old id -> new id; the brightest spot (first in the list) gets n - 1, the faintest 0.
  std::vector<int> renumber(static_cast<std::size_t>(largestId + 1), -1);
  for (int i = 0; i < n; ++i) {
    if (spots[i].GetId() >= 0) renumber[static_cast<std::size_t>(spots[i].GetId())] = n - 1 - i;
  }
  ForEachId(b.regionIdMap, RegionBounds(b), [&](int& id) {
    if (id >= 0 && id <= largestId && renumber[static_cast<std::size_t>(id)] >= 0) {
      id = renumber[static_cast<std::size_t>(id)];
    }
  });
  for (int i = 0; i < n; ++i)
    spots[i].SetId(n - 1 - i);
  return true;
}

bool AsdController::RegionsToProperties() {
  AsdBoard& b = *board_;
  if (!HasSpotList()) return false;
  if (!b.properties.IsInitialized()) {
    b.status = Status(0, StatusCode::kNotSet, __LINE__, kSource,
                      "The property dictionary does not exist: initialize the detector before detecting");
    return false;
  }
  const auto& spots = *b.spotInfoList;
  AsdProperties& p = b.properties;
  p.Set("Regions.Size", spots.Size());
  for (int i = 0; i < spots.Size(); ++i) {
    const AsdSpotInfo& spot = spots[i];
    const std::string key = "Region." + std::to_string(i);
    p.Set(key, spot.ToString());
    p.Set(key + ".CenterOfMassX", spot.CenterOfMassX());
    p.Set(key + ".CenterOfMassY", spot.CenterOfMassY());
    p.Set(key + ".SigmaX", spot.SigmaX());
    p.Set(key + ".SigmaY", spot.SigmaY());
    p.Set(key + ".Quadrant", spot.GetQuadrant());
    p.Set(key + ".BoundingRect.X0", spot.GetX0());
    p.Set(key + ".BoundingRect.Y0", spot.GetY0());
    p.Set(key + ".BoundingRect.X1", spot.GetX1());
    p.Set(key + ".BoundingRect.Y1", spot.GetY1());
  }
  return true;
}

AsdSpotPosition AsdController::GetSpotPosition() {
  const AsdBoard& b = *board_;
  const int n = b.spotInfoList ? b.spotInfoList->Size() : 0;
  if (n < 1) return AsdSpotPosition::NoSignificantSpot;
  if (n >= 2) return AsdSpotPosition::TooManySignificantSpots;
  const AsdSpotInfo& spot = (*b.spotInfoList)[0];
  const double dx = spot.CenterOfMassX() - b.reticleCenterX;
  const double dy = spot.CenterOfMassY() - b.reticleCenterY;
  if (std::sqrt(dx * dx + dy * dy) <= 0.5 * b.reticleCenterR) return AsdSpotPosition::SpotBehindObscuration;
  return spot.GetQuadrant();
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment

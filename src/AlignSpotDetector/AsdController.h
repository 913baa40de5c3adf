#pragma once

#include <cstdint>
#include <string>

#include "AlignSpotDetector/AsdBoard.h"
#include "AlignSpotDetector/AsdSpotPosition.h"
#include "Core/Board/BoardController.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {

// AsdController
//
// The steps of the align spot detector, run against the board it is bound to; it keeps nothing
// but the pointer to that board. `DetectSpotPosition` runs them in this order and returns
// `DetectionFailed` as soon as a step leaves a failure in the board's status:
//
//   1. CheckWired        input set and every parameter defined, else code 4 (no message) with the
//                        line of the last failing test;
//   2. SigmaClipping     mean m and deviation s of the input; the pixels within m -/+ k s (k =
//                        clipThatManySigmas) are the first background; its deviation is the
//                        backgroundSigma; the pixels within m2 -/+ k s2 of that background (m2, s2
//                        its mean and deviation) form the background image, all the others (brighter
//                        or darker) the foreground; pixels outside the input's window are in neither;
//   3. ApplyMask         foreground pixels under the obscuration (distance to the reticle centre
//                        below reticleCenterR) or outside the square of half-width
//                        interestRegionRadius around it are dropped;
//   4. InputImageHasTooManySaturatedPixels   true while at most maxNumberOfSaturatedPixels
//                        foreground pixels reach the saturation threshold (otherwise the result is
//                        TooManySaturatedPixels: the centre of mass of a clipped spot is unreliable);
//   5. Regionize         connected foreground regions, each with its intensity moments;
//   6. DropInsignificantRegions   regions whose sum of counts is below dropThatManySigmas x
//                        backgroundSigma, then those below dropBelowThisFraction of the brightest;
//   7. ApplyRegionRestrictor      regions in quadrants the restrictor does not admit;
//   8. InvalidateInsignificantRegions, 9. ReassignRegionIds   the region map keeps the surviving
//                        regions only, renumbered so that the brightest has the highest id (n - 1);
//   10. RegionsToProperties   "Regions.Size" and the "Region.<i>..." keys of each spot;
//   11. GetSpotPosition  one spot: its quadrant, or SpotBehindObscuration within half the
//                        obscuration radius of the centre; none or several: NoSignificantSpot or
//                        TooManySignificantSpots.
// Steps 5 to 7 end the run with NoSignificantSpot when no spot is left. Outcomes that are not
// failures leave the status untouched.
//
// The steps are public so that each can be run on its own; each returns false when it recorded a
// failure in the board's status.
//
// Stop rule: the run stops on a step's return value, not on the board's status. The detector never
// resets the status, so a failure recorded by an earlier run (say code 4, a parameter missing)
// stays in it until a later failure overwrites it or the host clears it; stopping on the status
// would refuse every later run, even after the host has set what was missing. Hence a run that
// returns a position other than DetectionFailed may leave an old failure in the status beside its
// valid result: judge a run by the position it returns, and read the status to learn why a run
// returned DetectionFailed.
class QUARN_PP_EXPORT AsdController : public BoardController<AsdBoard> {
 public:
  static constexpr const char* kSource = "AlignSpotDetector\\AsdController";

  AsdController() = default;
  explicit AsdController(AsdBoard& board) : BoardController(board) {}
  ~AsdController() override;

  AsdSpotPosition DetectSpotPosition();

  bool CheckWired();
  bool SigmaClipping();
  bool ApplyMask();
  // True when the image passes (the sense is the opposite of the name).
  bool InputImageHasTooManySaturatedPixels();
  bool Regionize();
  bool DropInsignificantRegions();
  bool ApplyRegionRestrictor();
  bool InvalidateInsignificantRegions();
  bool ReassignRegionIds();
  bool RegionsToProperties();
  AsdSpotPosition GetSpotPosition();

  // Sorts the spots by descending sum, then, from the last to the first, drops each spot whose sum
  // is below `threshold` (its pixels leave the region map) and places every other in its quadrant.
  bool RemoveItemsWhoseSumIsBelow(double threshold);

 private:
  // The final background band [lo, hi] of the sigma clipping (sets backgroundSigma).
  void BackgroundBand(int& lo, int& hi);
  // SigmaClipping, ApplyMask and the saturation count in one pass; [firstRow, endRow) receives the
  // rows of the foreground outside which it holds no valid pixel.
  bool SigmaClippingMaskAndCount(std::int64_t& saturated, int& firstRow, int& endRow);
  // Regionize, told that the foreground holds no valid pixel outside the rows [firstRow, endRow)
  // of its matrix: the region finder then reads those rows only.
  bool RegionizeRows(int firstRow, int endRow);
  bool HasSpotList();
  bool SpotListEmpty() const;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment

#pragma once

#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {

// AsdSpotPosition
//
// Where the align spot detector found the alignment spot, relative to the reticle centre, or why
// it could not say. A value class around one int, so that hosts can store and compare it as a
// number. Quadrants are numbered counter-clockwise from right-up, as seen on the monitor (image
// rows grow downwards, so "up" is towards row 0):
//
//        Quadrant2 | Quadrant1
//       -----------+-----------   (reticle centre at the cross; a spot exactly on the centre's
//        Quadrant3 | Quadrant4     column or row counts as right or up)
//
//   AsdSpotPosition position = detector.DetectSpotPosition();
//   if (position == AsdSpotPosition::Quadrant2) ...   // left of and above the centre
//   std::puts(position.ToString());                    // "Quadrant2"
class QUARN_PP_EXPORT AsdSpotPosition {
 public:
  enum : int {
    DetectionFailed = 0,          // the run stopped on a failure recorded in the status
    Quadrant1 = 1,                // one spot, right of and above the reticle centre
    Quadrant2 = 2,                // one spot, left and above
    Quadrant3 = 3,                // one spot, left and below
    Quadrant4 = 4,                // one spot, right and below
    SpotBehindObscuration = 5,    // one spot within half the obscuration radius of the centre
    TooManySaturatedPixels = 6,   // more saturated pixels than allowed
    NoSignificantSpot = 7,        // no region survived
    TooManySignificantSpots = 8,  // more than one region survived
  };

  AsdSpotPosition(int value = DetectionFailed) : value_(value) {}  // NOLINT: an int converts on purpose
  operator int() const { return value_; }                          // NOLINT

  // The name of the value ("Quadrant2", "NoSignificantSpot", ...); "Unknown" for any other int.
  const char* ToString() const;

 private:
  int value_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment

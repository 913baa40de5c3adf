#include "AlignSpotDetector/AsdSpotPosition.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {

const char* AsdSpotPosition::ToString() const {
  switch (value_) {
    case DetectionFailed:
      return "DetectionFailed";
    case Quadrant1:
      return "Quadrant1";
    case Quadrant2:
      return "Quadrant2";
    case Quadrant3:
      return "Quadrant3";
    case Quadrant4:
      return "Quadrant4";
    case SpotBehindObscuration:
      return "SpotBehindObscuration";
    case TooManySaturatedPixels:
      return "TooManySaturatedPixels";
    case NoSignificantSpot:
      return "NoSignificantSpot";
    case TooManySignificantSpots:
      return "TooManySignificantSpots";
    default:
      return "Unknown";
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment

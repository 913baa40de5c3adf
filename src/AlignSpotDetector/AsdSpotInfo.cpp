#include "AlignSpotDetector/AsdSpotInfo.h"

#include <cmath>
#include <sstream>

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {

AsdSpotInfo::~AsdSpotInfo() = default;

int AsdSpotInfo::Quadrant(double dx, double dy) {
  if (dx >= 0.0) return dy >= 0.0 ? 1 : 4;
  return dy >= 0.0 ? 2 : 3;
}

double AsdSpotInfo::Spread(double sumSquares, double sumFirst) const {
  const double mean = sumFirst / sum_;
  const double variance = sumSquares / sum_ - mean * mean;
  return std::sqrt(variance < 0.0 ? 0.0 : variance);
}

std::string AsdSpotInfo::ToString() const {
  std::ostringstream text;
  text << "Id = " << region_.id << ", Size = " << size_ << ", Sum = " << sum_
       << ", CoM.x = " << CenterOfMassX() << ", CoM.y = " << CenterOfMassY() << ", SigmaX = " << SigmaX()
       << ", SigmaY = " << SigmaY() << ", Quadrant = " << quadrant_ << ", BoundingRect = (" << x0_ << ", "
       << y0_ << ", " << x1_ << ", " << y1_ << ")";
  return text.str();
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment

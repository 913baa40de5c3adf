#pragma once

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {

// AsdRegionRestrictor
//
// Which quadrants (numbered as in AsdSpotPosition: 1 right-up, 2 left-up, 3 left-down,
// 4 right-down) may hold the alignment spot. An instrument whose optics can only put the spot on
// one diagonal uses `Quadrants13` or `Quadrants24`, so that a reflection on the other diagonal is
// not mistaken for the spot. A value class around one int; any value other than the three named
// ones admits no quadrant at all.
//
//   AsdRegionRestrictor restrictor(AsdRegionRestrictor::Quadrants13);
//   restrictor.IsInRestrictedRegion(3);   // true
//   restrictor.IsInRestrictedRegion(2);   // false
class AsdRegionRestrictor {
 public:
  enum : int { Full = 0, Quadrants13 = 1, Quadrants24 = 2 };

  AsdRegionRestrictor(int value = Full) : value_(value) {}  // NOLINT: an int converts on purpose
  operator int() const { return value_; }                   // NOLINT

  bool IsInRestrictedRegion(int quadrant) const {
    switch (value_) {
      case Full:
        return true;
      case Quadrants13:
        return quadrant == 1 || quadrant == 3;
      case Quadrants24:
        return quadrant == 2 || quadrant == 4;
      default:
        return false;
    }
  }

 private:
  int value_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment

#pragma once

#include <string>

#include "Analysis/Core/RegionInfo.h"
#include "Core/Board/Undefined.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {

// AsdSpotInfo
//
// The intensity moments of one connected region of the spot detector's foreground: pixels are fed
// one by one with their position (x = camera column, y = camera row, both in pixels, rows growing
// downwards) and their weight w (the camera counts), and the record keeps
//   size  number of pixels fed          sum   sum of w
//   sumX, sumY    sums of x w, y w      sumXX, sumYY   sums of x^2 w, y^2 w
//   x0, y0, x1, y1   the bounding rectangle of the fed positions (undefined, 1.7976931348623157e308,
//                    until the first pixel)
// from which follow the centre of mass (sumX / sum, sumY / sum) and the intensity-weighted standard
// deviations sigma = sqrt(sumXX / sum - (sumX / sum)^2) (likewise in y), all in pixels. The weights
// are raw counts, background included: the detector's sigma clipping has already kept only pixels
// that stand out from the background.
//
// `ReferenceToCenter(cx, cy)` places the centre of mass in a quadrant of the reticle centre
// (1 right-up, 2 left-up, 3 left-down, 4 right-down; "up" is a smaller row index; a difference of
// exactly zero counts as right or up).
//
//   AsdSpotInfo spot;
//   spot.Feed(10, 20, 100.0);
//   spot.Feed(12, 20, 100.0);
//   spot.CenterOfMassX();   // 11
//   spot.SigmaX();          // 1
//   spot.ToString();        // "Id = 0, Size = 2, Sum = 200, CoM.x = 11, CoM.y = 20, SigmaX = 1, ..."
class QUARN_PP_EXPORT AsdSpotInfo {
 public:
  AsdSpotInfo() = default;
  explicit AsdSpotInfo(const Analysis::Core::RegionInfo& region) : region_(region) {}
  AsdSpotInfo(const AsdSpotInfo&) = default;
  AsdSpotInfo& operator=(const AsdSpotInfo&) = default;
  virtual ~AsdSpotInfo();

  // Adds one pixel at column x, row y with weight w.
  void Feed(double x, double y, double w) {
    ++size_;
    sum_ += w;
    sumX_ += x * w;
    sumY_ += y * w;
    sumXX_ += x * x * w;
    sumYY_ += y * y * w;
    Feed(x, y);
  }

  double CenterOfMassX() const { return sumX_ / sum_; }
  double CenterOfMassY() const { return sumY_ / sum_; }
  // Rounding can leave the difference of the two moments a few ulp below zero for a spot one pixel
  // wide; the spread is then zero, not NaN.
  double SigmaX() const { return Spread(sumXX_, sumX_); }
  double SigmaY() const { return Spread(sumYY_, sumY_); }

  // The quadrant of the offset (dx, dy), dy counted upwards: 1 for dx >= 0 and dy >= 0, 2 for
  // dx < 0 and dy >= 0, 3 for dx < 0 and dy < 0, 4 for dx >= 0 and dy < 0.
  static int Quadrant(double dx, double dy);

  // Sets the quadrant of the centre of mass relative to the reticle centre (cx, cy) (column, row).
  // The row difference changes sign because rows grow downwards and the quadrants count upwards.
  void ReferenceToCenter(double cx, double cy) {
    quadrant_ = Quadrant(CenterOfMassX() - cx, -(CenterOfMassY() - cy));
  }

  // Back to the constructed state (no pixels, no region).
  void Clear() { *this = AsdSpotInfo(); }

  // One line: "Id = 3, Size = 120, Sum = 15324, CoM.x = 101.5, CoM.y = 40.25, SigmaX = 2.5,
  // SigmaY = 2.25, Quadrant = 2, BoundingRect = (95, 34, 108, 47)", numbers as a standard output
  // string stream writes them by default (six significant digits).
  std::string ToString() const;

  int GetId() const { return region_.id; }
  void SetId(int id) { region_.id = id; }
  const Analysis::Core::RegionInfo& GetRegionInfo() const { return region_; }
  int GetSize() const { return size_; }
  int GetQuadrant() const { return quadrant_; }
  double GetSum() const { return sum_; }
  double GetX0() const { return x0_; }
  double GetY0() const { return y0_; }
  double GetX1() const { return x1_; }
  double GetY1() const { return y1_; }

 private:
  // Widens the bounding rectangle to hold (x, y).
  void Feed(double x, double y) {
    if (IsUndefined(x0_)) x0_ = x;
    if (IsUndefined(x1_)) x1_ = x;
    if (IsUndefined(y0_)) y0_ = y;
    if (IsUndefined(y1_)) y1_ = y;
    x0_ = x < x0_ ? x : x0_;
    x1_ = x > x1_ ? x : x1_;
    y0_ = y < y0_ ? y : y0_;
    y1_ = y > y1_ ? y : y1_;
  }

  double Spread(double sumSquares, double sumFirst) const;

  int size_ = 0;
  int quadrant_ = 0;
  double sum_ = 0.0;
  double sumX_ = 0.0;
  double sumY_ = 0.0;
  double sumXX_ = 0.0;
  double sumYY_ = 0.0;
  double x0_ = kUndefinedDouble;
  double y0_ = kUndefinedDouble;
  double x1_ = kUndefinedDouble;
  double y1_ = kUndefinedDouble;
  Analysis::Core::RegionInfo region_;
};

// CompareSpotInfosBySum
//
// The order of the detector's spot list: a before b when a holds more light (a larger sum of
// counts), so the brightest spot comes first.
inline bool CompareSpotInfosBySum(const AsdSpotInfo& a, const AsdSpotInfo& b) {
  return a.GetSum() > b.GetSum();
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment

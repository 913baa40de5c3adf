#pragma once

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {

// KpQuadrant
//
// The orientation of a spatial carrier, named by the quadrant of the frequency plane (columns to
// the right, rows upwards) in which the side lobe that the carrier-fringe pipeline keeps lies:
// 1 right-up, 2 left-up, 3 left-down, 4 right-down; 0 is undefined. Image rows grow downwards, so
// "up" is the negative row frequency.
//
// With the pipeline's sign conventions, a frame a + b cos(phi + c(x, y)) (x the column, y the row,
// P pixels per fringe) is read as phi by the orientation whose carrier is
//   1: c = 2 pi (y - x) / P     2: c = 2 pi (x + y) / P
//   3: c = 2 pi (x - y) / P     4: c = -2 pi (x + y) / P
// Every real fringe has a lobe in two opposite quadrants; keeping the other one gives -phi.
//
//   KpQuadrant q = KpQuadrant::Quadrant3;
//   int code = q;   // 3
class KpQuadrant {
 public:
  static constexpr int Undefined = 0;
  static constexpr int Quadrant1 = 1;
  static constexpr int Quadrant2 = 2;
  static constexpr int Quadrant3 = 3;
  static constexpr int Quadrant4 = 4;

  constexpr KpQuadrant(int value = Undefined) : value_(value) {}  // NOLINT: converts from int on purpose
  constexpr operator int() const { return value_; }               // NOLINT: converts to int on purpose

  constexpr bool IsDefined() const { return value_ >= Quadrant1 && value_ <= Quadrant4; }

 private:
  int value_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase

#pragma once

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

// FringeRemovalMethod
//
// How a white-light algorithm estimates each pixel's fringe-free intensity (the image the camera
// would see without interference), which it stores in its intensity map in counts:
//
//   kNone (-1)      no intensity map is made;
//   kStandard (1)   the default: an 8-sample window with weights 1 1 3 3 3 3 1 1 / 16 around the
//                   signal peak; at about four samples per fringe it cancels the fringes;
//   k64Bucket (2)   the mean of 64 samples around the peak (whole-scan signals) or of the signal.
//
// Any other value behaves as kStandard. A small value class holding the int, so hosts may pass the
// number they store.
class FringeRemovalMethod {
 public:
  static constexpr int kNone = -1;
  static constexpr int kStandard = 1;
  static constexpr int k64Bucket = 2;

  constexpr FringeRemovalMethod(int value = kStandard) : value_(value) {}  // NOLINT: implicit on purpose
  constexpr int GetValue() const { return value_; }
  constexpr operator int() const { return value_; }  // NOLINT: compares with plain ints

 private:
  int value_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

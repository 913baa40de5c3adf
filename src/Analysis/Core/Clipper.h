#pragma once

#include "Analysis/Core/DataWindow2D.h"

namespace Quarn::Metrology::Analysis::Core {

// Clipper
//
// Invalidates elements of a window by value: `Clip` keeps [lo, hi] and invalidates what lies
// outside, `RemoveInside` invalidates what lies in [lo, hi] (both ends included in both). Elements
// already invalid stay so. Used by sigma clipping to split an image into its noise floor and what
// stands out of it.
//
//   Clipper::Clip(background, lo, hi);          // the noise floor
//   Clipper::RemoveInside(foreground, lo, hi);  // everything brighter or darker than the floor
class Clipper {
 public:
  template <typename T>
  static void Clip(DataWindow2D<T>& data, T lo, T hi) {
    Apply(data, [lo, hi](T v) { return v < lo || v > hi; });
  }
  template <typename T>
  static void RemoveInside(DataWindow2D<T>& data, T lo, T hi) {
    Apply(data, [lo, hi](T v) { return v >= lo && v <= hi; });
  }

 private:
  template <typename T, typename Reject>
  static void Apply(DataWindow2D<T>& data, Reject reject) {
    const Window2D w = data.GetWindow();
    for (int r = w.GetStartRow(); r < w.GetEndRow(); ++r) {
      T* row = data.Row(r - data.GetStartRow());
      for (int c = w.GetStartCol() - data.GetStartCol(); c < w.GetEndCol() - data.GetStartCol(); ++c) {
        if (DataWindow2D<T>::IsDataValid(row[c]) && reject(row[c])) row[c] = DataWindow2D<T>::NoData();
      }
    }
  }
};

}  // namespace Quarn::Metrology::Analysis::Core

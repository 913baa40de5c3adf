#pragma once

#include <cmath>
#include <cstdint>

#include "Analysis/Core/DataWindow2D.h"

namespace Quarn::Metrology::Analysis::Core {

// SurfaceStats
//
// Mean and standard deviation of the valid elements of a window (no-data elements are skipped).
// The deviation is the population one (divided by the count, not count - 1): it describes the
// pixels at hand, not an estimate for a larger population. Computed in two passes (mean, then the
// squared deviations from it) so that a large offset does not eat the precision of the spread.
// With no valid element the count is 0 and mean and deviation are 0.
//
//   SurfaceStats stats;
//   stats.Calculate(image);
//   double noise = stats.GetStdDev();
class SurfaceStats {
 public:
  template <typename T>
  void Calculate(const DataWindow2D<T>& data) {
    const Window2D w = data.GetWindow();
    double sum = 0.0;
    count_ = 0;
    ForEachValid(data, w, [&](double v) {
      sum += v;
      ++count_;
    });
    mean_ = count_ > 0 ? sum / static_cast<double>(count_) : 0.0;
    double squares = 0.0;
    ForEachValid(data, w, [&](double v) { squares += (v - mean_) * (v - mean_); });
    stdDev_ = count_ > 0 ? std::sqrt(squares / static_cast<double>(count_)) : 0.0;
  }

  double GetMean() const { return mean_; }
  double GetStdDev() const { return stdDev_; }
  std::int64_t GetCount() const { return count_; }

 private:
  template <typename T, typename F>
  static void ForEachValid(const DataWindow2D<T>& data, const Window2D& w, F&& f) {
    for (int r = w.GetStartRow(); r < w.GetEndRow(); ++r) {
      const T* row = data.Row(r - data.GetStartRow());
      for (int c = w.GetStartCol() - data.GetStartCol(); c < w.GetEndCol() - data.GetStartCol(); ++c) {
        if (DataWindow2D<T>::IsDataValid(row[c])) f(static_cast<double>(row[c]));
      }
    }
  }

  double mean_ = 0.0;
  double stdDev_ = 0.0;
  std::int64_t count_ = 0;
};

}  // namespace Quarn::Metrology::Analysis::Core

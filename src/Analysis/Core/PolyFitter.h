#pragma once

#include <array>
#include <cstdint>

#include "Analysis/Core/DataWindow2D.h"
#include "Analysis/Core/QuarnCoreExport.h"
#include "Analysis/Core/Status.h"
#include "Analysis/Core/Threading/ThreadDispatcher.h"

namespace Quarn::Metrology::Analysis::Core {

// The monomials a fitted surface is made of, in the order of `PolyFitResult::coefficients`.
enum class PolyTerm : int { kConstant = 0, kX = 1, kY = 2, kXX = 3, kXY = 4, kYY = 5 };

// PolyFitResult
//
// The outcome of the last fit: the coefficient of every monomial (0 for those the surface type
// leaves out), in the map's value unit per pixel to the power of the term's order, about the
// reference point; the number of pixels fitted; and the y-axis sign flag: 0 when y grew with the
// rows (image coordinates), 1 when the fit was made with y growing upwards (`SetYAxisUp`), in which
// case the coefficients of the terms odd in y (y and x y) are those of the upward axis and a caller
// who wants them in image coordinates negates them.
struct PolyFitResult {
  int surfaceType = 0;
  std::array<double, 6> coefficients{};
  std::int64_t pointCount = 0;
  int ySignFlag = 0;

  double Coefficient(PolyTerm term) const { return coefficients[static_cast<std::size_t>(term)]; }
};

// PolyFitter
//
// Least-squares fit of a low-order polynomial surface z = sum c_t x^a y^b to the valid pixels of a
// map (no-data pixels are left out), in pixel units about a reference point:
//   x = column - xRef,  y = row - yRef    (camera coordinates, rows growing downwards),
// or y = yRef - row with `SetYAxisUp(true)`. Surface types (`SetFitType`, the codes hosts store):
//   1  piston       1
//   2  plane        1, x, y
//   3  power        1, x, y, x^2 + y^2 (one coefficient, reported for both x^2 and y^2)
//   6  cross term   1, x, y, x y       (astigmatism at 45 degrees with the piston and tilt it needs)
//   7  quadratic    1, x, y, x^2, x y, y^2
//
//   PolyFitter fitter;
//   fitter.SetFitType(PolyFitter::kCrossTerm);
//   fitter.SetReferencePoint(255.5, 255.5);
//   if (fitter.FitMatrix(map)) astigmatism = fitter.GetResult().Coefficient(PolyTerm::kXY);
//
// The normal equations are summed over blocks of rows (on the worker threads when allowed) and the
// block sums added in row order, so the result does not depend on the number of threads; they are
// solved by a rank-revealing QR decomposition in coordinates scaled to about 1. Failures: code 20
// for an unknown surface type, code 6 "Solving the equation system failed" when the valid pixels
// do not determine the surface (too few, or all on one line for a surface with x y).
class QUARN_CORE_EXPORT PolyFitter {
 public:
  enum SurfaceType : int { kPiston = 1, kPlane = 2, kPower = 3, kCrossTerm = 6, kQuadratic = 7 };

  PolyFitter();
  PolyFitter(const PolyFitter& other);
  PolyFitter& operator=(const PolyFitter& other);
  ~PolyFitter();

  void SetFitType(int surfaceType) { surfaceType_ = surfaceType; }
  int GetFitType() const { return surfaceType_; }
  void SetReferencePoint(double x, double y) {
    xRef_ = x;
    yRef_ = y;
  }
  double GetReferenceX() const { return xRef_; }
  double GetReferenceY() const { return yRef_; }
  void SetYAxisUp(bool up) { yAxisUp_ = up; }
  bool GetYAxisUp() const { return yAxisUp_; }

  // Fits the valid pixels of the map's current window; false (status set) on failure.
  bool FitMatrix(const DoubleWindow2D& map);
  const PolyFitResult& GetResult() const { return result_; }

  bool GetAllowMultiThreads() const { return allowMultiThreads_; }
  void SetAllowMultiThreads(bool allow) { allowMultiThreads_ = allow; }
  int GetNumberOfThreads() const { return dispatcher_.GetNumberOfWorkers(); }
  void SetNumberOfThreads(int n) { dispatcher_.SetNumberOfWorkers(n); }

  Status& GetStatus() { return status_; }
  const Status& GetStatus() const { return status_; }

 private:
  static constexpr int kMaxTerms = 6;
  static constexpr int kRowsPerBlock = 32;
  // Upper triangle of the normal matrix, the right-hand side and the count of one block of rows.
  struct BlockSums {
    std::array<double, kMaxTerms * kMaxTerms> normal{};
    std::array<double, kMaxTerms> rhs{};
    std::int64_t count = 0;
  };

  void SumBlocks(int first, int end);

  int surfaceType_ = kCrossTerm;
  double xRef_ = 0.0;
  double yRef_ = 0.0;
  bool yAxisUp_ = false;
  bool allowMultiThreads_ = true;
  PolyFitResult result_;
  // State of the fit in progress, read by the work function.
  const DoubleWindow2D* map_ = nullptr;
  Window2D window_;
  double scale_ = 1.0;
  std::array<int, kMaxTerms> basis_{};  // which monomials (see PolyFitter.cpp) the surface type uses
  int termCount_ = 0;
  BlockSums* blocks_ = nullptr;
  Threading::ThreadDispatcher<PolyFitter> dispatcher_;
  Status status_;
};

}  // namespace Quarn::Metrology::Analysis::Core

#pragma once

#include <array>
#include <cstdint>

#include "Analysis/Core/DataWindow2D.h"
#include "Analysis/Core/QuarnCoreExport.h"
#include "Analysis/Core/Status.h"
#include "Analysis/Core/Threading/ThreadDispatcher.h"

namespace Quarn::Metrology::Analysis::Core {

// The terms of the fitted surface, in the order of `PolyFitResult::coefficients`.
enum class PolyTerm : int { kConstant = 0, kX = 1, kY = 2, kXY = 3 };

// PolyFitResult
//
// The outcome of the last fit: the coefficient of every term, in the map's value unit per pixel to
// the power of the term's order, about the reference point; the number of pixels fitted; and the
// y-axis sign flag, which a fitter sets (non-zero) when y grew upwards, so that a caller negates
// the terms odd in y to have them in image coordinates. This fitter counts y with the rows and
// always reports 0.
struct PolyFitResult {
  int surfaceType = 0;
  std::array<double, 4> coefficients{};
  std::int64_t pointCount = 0;
  int ySignFlag = 0;

  double Coefficient(PolyTerm term) const { return coefficients[static_cast<std::size_t>(term)]; }
};

// PolyFitter
//
// Least-squares fit of the surface z = c0 + cx x + cy y + cxy x y (surface type 6, astigmatism at
// 45 degrees with the piston and tilt it needs) to the valid pixels of a map (no-data pixels are
// left out), in pixel units about a reference point:
//   x = column - xRef,  y = row - yRef    (camera coordinates, rows growing downwards).
//
//   PolyFitter fitter;
//   fitter.SetFitType(PolyFitter::kCrossTerm);
//   fitter.SetReferencePoint(255.5, 255.5);
//   if (fitter.FitMatrix(map)) astigmatism = fitter.GetResult().Coefficient(PolyTerm::kXY);
//
// The normal equations are summed over blocks of rows (on the worker threads when allowed) and the
// block sums added in row order, so the result does not depend on the number of threads; they are
// solved by a rank-revealing QR decomposition in coordinates scaled to about 1. Failures: code 20
// for another surface type, code 6 "Solving the equation system failed" when the valid pixels do
// not determine the surface (fewer than four, or all on one row or column).
class QUARN_CORE_EXPORT PolyFitter {
 public:
  enum SurfaceType : int { kCrossTerm = 6 };

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
  static constexpr int kTerms = 4;
  static constexpr int kRowsPerBlock = 32;
  // Upper triangle of the normal matrix, the right-hand side and the count of one block of rows.
  struct BlockSums {
    std::array<double, kTerms * kTerms> normal{};
    std::array<double, kTerms> rhs{};
    std::int64_t count = 0;
  };

  void SumBlocks(int first, int end);

  int surfaceType_ = kCrossTerm;
  double xRef_ = 0.0;
  double yRef_ = 0.0;
  bool allowMultiThreads_ = true;
  PolyFitResult result_;
  // State of the fit in progress, read by the work function.
  const DoubleWindow2D* map_ = nullptr;
  Window2D window_;
  double scale_ = 1.0;
  BlockSums* blocks_ = nullptr;
  Threading::ThreadDispatcher<PolyFitter> dispatcher_;
  Status status_;
};

}  // namespace Quarn::Metrology::Analysis::Core

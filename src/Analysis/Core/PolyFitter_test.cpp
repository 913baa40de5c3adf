#include "Analysis/Core/PolyFitter.h"

#include <array>
#include <cmath>

#include <gtest/gtest.h>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Synthetic/SeededRandom.h"

namespace Quarn::Metrology::Analysis::Core {
namespace {

// A 60 x 80 map with its origin at (row 30, column 50) and a no-data hole, holding
// c0 + cx x + cy y + cxy x y about the reference point plus white noise of `sigma`.
struct Surface {
  std::array<double, 4> c{};
  DoubleMatrix2D map;
};

constexpr double kXRef = 89.5, kYRef = 59.5;  // the centre of the map's window

Surface MakeSurface(double sigma, Testing::SeededRandom& random) {
  Surface s;
  const double scales[4] = {5.0, 0.05, 0.05, 3e-4};
  for (int t = 0; t < 4; ++t)
    s.c[t] = random.Uniform(-1.0, 1.0) * scales[t];
  s.map.Resize(30, 50, 60, 80);
  for (int r = 0; r < 60; ++r) {
    for (int c = 0; c < 80; ++c) {
      const double x = 50 + c - kXRef, y = 30 + r - kYRef;
      const bool hole = (r - 20) * (r - 20) + (c - 50) * (c - 50) < 64;
      s.map(r, c) = hole ? DoubleMatrix2D::NoData()
                         : s.c[0] + s.c[1] * x + s.c[2] * y + s.c[3] * x * y + random.Normal(sigma);
    }
  }
  return s;
}

// Noise-free data come back to rounding (the normal equations square a condition number of about
// 10 in scaled coordinates: 1e-10 relative is generous), in camera coordinates about the reference.
// With white noise sigma the standard error of the x y coefficient is sigma / sqrt(sum x^2 y^2)
// (x y is orthogonal to 1, x and y on a centred grid, nearly so with the hole): the fit lands within
// four of them, with the same bits for every thread count.
TEST(PolyFitterTest, RecoversTheCrossTermSurfaceWhateverTheThreadCount) {
  Testing::SeededRandom random(7);
  SCOPED_TRACE(random.Describe());
  const Surface exact = MakeSurface(0.0, random);
  PolyFitter single;
  single.SetAllowMultiThreads(false);
  single.SetFitType(PolyFitter::kCrossTerm);
  single.SetReferencePoint(kXRef, kYRef);
  ASSERT_TRUE(single.FitMatrix(exact.map)) << single.GetStatus().GetMessage();
  EXPECT_EQ(single.GetResult().pointCount, exact.map.CountValid());
  EXPECT_EQ(single.GetResult().ySignFlag, 0);
  for (int t = 0; t < 4; ++t) {
    EXPECT_NEAR(single.GetResult().coefficients[t], exact.c[t], 1e-10 * (std::abs(exact.c[t]) + 1e-6))
        << "term " << t;
  }

  const double sigma = 0.5;
  const Surface s = MakeSurface(sigma, random);
  double sumX2Y2 = 0.0;
  for (int r = 0; r < 60; ++r) {
    for (int c = 0; c < 80; ++c) {
      if (DoubleMatrix2D::IsDataValid(s.map(r, c)))
        sumX2Y2 += std::pow((50 + c - kXRef) * (30 + r - kYRef), 2);
    }
  }
  ASSERT_TRUE(single.FitMatrix(s.map));
  EXPECT_NEAR(single.GetResult().Coefficient(PolyTerm::kXY), s.c[3], 4.0 * sigma / std::sqrt(sumX2Y2));
  for (const int threads : {2, 3, 5}) {
    PolyFitter fitter;
    fitter.SetNumberOfThreads(threads);
    fitter.SetReferencePoint(kXRef, kYRef);
    ASSERT_TRUE(fitter.FitMatrix(s.map));
    EXPECT_EQ(fitter.GetResult().coefficients, single.GetResult().coefficients) << threads << " threads";
  }
}

TEST(PolyFitterTest, UndeterminedSurfacesAndOtherTypesFail) {
  // One row of data cannot tell a y or x y term from the constant and x.
  DoubleMatrix2D line(5, 40);
  line.SetAll(DoubleMatrix2D::NoData());
  for (int c = 0; c < 40; ++c)
    line(2, c) = 0.1 * c;
  PolyFitter fitter;
  EXPECT_FALSE(fitter.FitMatrix(line));
  EXPECT_EQ(fitter.GetStatus().GetCode(), StatusCode::kCallFailed);
  EXPECT_EQ(fitter.GetStatus().GetMessage(), "Solving the equation system failed");

  DoubleMatrix2D empty(4, 4);
  empty.SetAll(DoubleMatrix2D::NoData());
  EXPECT_FALSE(fitter.FitMatrix(empty));
  EXPECT_EQ(fitter.GetStatus().GetCode(), StatusCode::kCallFailed);

  fitter.SetFitType(7);
  EXPECT_FALSE(fitter.FitMatrix(line));
  EXPECT_EQ(fitter.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_EQ(fitter.GetStatus().GetMessage(), "Unknown surface type 7");
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

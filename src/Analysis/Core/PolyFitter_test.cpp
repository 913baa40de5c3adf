#include "Analysis/Core/PolyFitter.h"

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Testing/SeededRandom.h"

namespace Quarn::Metrology::Analysis::Core {
namespace {

struct TypeCase {
  int type;
  std::array<bool, 6> terms;  // constant, x, y, x^2, x y, y^2
  bool power;                 // x^2 and y^2 share one coefficient
};

void PrintTo(const TypeCase& c, std::ostream* os) {
  *os << "type " << c.type;
}

const std::vector<TypeCase> kTypes = {
    {PolyFitter::kPiston, {true, false, false, false, false, false}, false},
    {PolyFitter::kPlane, {true, true, true, false, false, false}, false},
    {PolyFitter::kPower, {true, true, true, true, false, true}, true},
    {PolyFitter::kCrossTerm, {true, true, true, false, true, false}, false},
    {PolyFitter::kQuadratic, {true, true, true, true, true, true}, false},
};

// A map on an origin away from zero with a no-data hole, holding exactly the surface of random
// coefficients (only the type's own terms) about the reference point.
struct Surface {
  std::array<double, 6> c{};
  DoubleMatrix2D map;
};

Surface MakeSurface(const TypeCase& type, double xRef, double yRef, double noise,
                    Testing::SeededRandom& random) {
  Surface s;
  const double scales[6] = {5.0, 0.05, 0.05, 2e-4, 3e-4, 2e-4};
  for (int t = 0; t < 6; ++t)
    s.c[t] = type.terms[t] ? random.Uniform(-1.0, 1.0) * scales[t] : 0.0;
  if (type.power) s.c[5] = s.c[3];
  s.map.Resize(30, 50, 60, 80);
  for (int r = 0; r < 60; ++r) {
    for (int c = 0; c < 80; ++c) {
      const double x = 50 + c - xRef, y = 30 + r - yRef;
      const bool hole = (r - 20) * (r - 20) + (c - 50) * (c - 50) < 64;
      s.map(r, c) = hole ? DoubleMatrix2D::NoData()
                         : s.c[0] + s.c[1] * x + s.c[2] * y + s.c[3] * x * x + s.c[4] * x * y +
                               s.c[5] * y * y + random.Normal(noise);
    }
  }
  return s;
}

class PolyFitterTypeTest : public ::testing::TestWithParam<TypeCase> {};

// Noise-free data of the model must come back to rounding (the normal equations square the
// condition number of about 10 in scaled coordinates: 1e-10 relative is generous), and the fitter
// must not invent terms the type does not have.
TEST_P(PolyFitterTypeTest, RecoversTheCoefficientsOfItsOwnSurface) {
  const TypeCase type = GetParam();
  Testing::SeededRandom random(100 + type.type);
  SCOPED_TRACE(random.Describe());
  const double xRef = 89.5, yRef = 59.5;  // the centre of the map's window
  const Surface s = MakeSurface(type, xRef, yRef, 0.0, random);
  PolyFitter fitter;
  fitter.SetFitType(type.type);
  fitter.SetReferencePoint(xRef, yRef);
  ASSERT_TRUE(fitter.FitMatrix(s.map)) << fitter.GetStatus().GetMessage();
  const PolyFitResult& result = fitter.GetResult();
  EXPECT_EQ(result.pointCount, s.map.CountValid());
  EXPECT_EQ(result.ySignFlag, 0);
  for (int t = 0; t < 6; ++t) {
    EXPECT_NEAR(result.coefficients[t], s.c[t], 1e-10 * (std::abs(s.c[t]) + 1e-6)) << "term " << t;
  }
}

// With y counted upwards the terms odd in y change sign, and the result says so.
TEST_P(PolyFitterTypeTest, UpwardYAxisNegatesTheTermsOddInY) {
  const TypeCase type = GetParam();
  Testing::SeededRandom random(200 + type.type);
  SCOPED_TRACE(random.Describe());
  const Surface s = MakeSurface(type, 70.0, 40.0, 0.0, random);
  PolyFitter fitter;
  fitter.SetFitType(type.type);
  fitter.SetReferencePoint(70.0, 40.0);
  fitter.SetYAxisUp(true);
  ASSERT_TRUE(fitter.FitMatrix(s.map));
  const PolyFitResult& result = fitter.GetResult();
  EXPECT_EQ(result.ySignFlag, 1);
  const double sign[6] = {1, 1, -1, 1, -1, 1};
  for (int t = 0; t < 6; ++t)
    EXPECT_NEAR(result.coefficients[t], sign[t] * s.c[t], 1e-10 * (std::abs(s.c[t]) + 1e-6));
}

INSTANTIATE_TEST_SUITE_P(Types, PolyFitterTypeTest, ::testing::ValuesIn(kTypes),
                         [](const auto& info) { return "type" + std::to_string(info.param.type); });

// The x y coefficient of a noisy cross-term surface: for white noise sigma on N pixels of a
// centred 60 x 80 grid, the standard error of the x y coefficient is sigma / sqrt(sum x^2 y^2);
// the fit must land within four standard errors, and the same bits for every thread count.
TEST(PolyFitterTest, NoisyCrossTermWithinItsStandardErrorAndThreadIndependent) {
  Testing::SeededRandom random(7);
  SCOPED_TRACE(random.Describe());
  const TypeCase cross = kTypes[3];
  const double xRef = 89.5, yRef = 59.5, sigma = 0.5;
  const Surface s = MakeSurface(cross, xRef, yRef, sigma, random);
  double sumX2Y2 = 0.0;
  for (int r = 0; r < 60; ++r) {
    for (int c = 0; c < 80; ++c) {
      if (DoubleMatrix2D::IsDataValid(s.map(r, c))) sumX2Y2 += std::pow((50 + c - xRef) * (30 + r - yRef), 2);
    }
  }
  PolyFitter single;
  single.SetAllowMultiThreads(false);
  single.SetReferencePoint(xRef, yRef);
  ASSERT_TRUE(single.FitMatrix(s.map));
  EXPECT_NEAR(single.GetResult().Coefficient(PolyTerm::kXY), s.c[4], 4.0 * sigma / std::sqrt(sumX2Y2));
  for (const int threads : {2, 3, 5}) {
    PolyFitter fitter;
    fitter.SetNumberOfThreads(threads);
    fitter.SetReferencePoint(xRef, yRef);
    ASSERT_TRUE(fitter.FitMatrix(s.map));
    EXPECT_EQ(fitter.GetResult().coefficients, single.GetResult().coefficients) << threads << " threads";
  }
}

TEST(PolyFitterTest, UndeterminedSurfacesAndUnknownTypesFail) {
  // One row of data cannot tell a y or x y term from the constant.
  DoubleMatrix2D line(5, 40);
  line.SetAll(DoubleMatrix2D::NoData());
  for (int c = 0; c < 40; ++c)
    line(2, c) = 0.1 * c;
  PolyFitter fitter;
  fitter.SetFitType(PolyFitter::kCrossTerm);
  EXPECT_FALSE(fitter.FitMatrix(line));
  EXPECT_EQ(fitter.GetStatus().GetCode(), StatusCode::kCallFailed);
  EXPECT_EQ(fitter.GetStatus().GetMessage(), "Solving the equation system failed");
  // The piston alone is determined by any pixel: the mean of the row.
  fitter.SetFitType(PolyFitter::kPiston);
  ASSERT_TRUE(fitter.FitMatrix(line));
  EXPECT_NEAR(fitter.GetResult().Coefficient(PolyTerm::kConstant), 0.1 * 19.5, 1e-12);

  DoubleMatrix2D empty(4, 4);
  empty.SetAll(DoubleMatrix2D::NoData());
  EXPECT_FALSE(fitter.FitMatrix(empty));
  EXPECT_EQ(fitter.GetStatus().GetCode(), StatusCode::kCallFailed);

  fitter.SetFitType(4);
  EXPECT_FALSE(fitter.FitMatrix(line));
  EXPECT_EQ(fitter.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_EQ(fitter.GetStatus().GetMessage(), "Unknown surface type 4");
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

#include "Psi/Kinephase/FourQuadrantEvaluator.h"

#include <cmath>
#include <functional>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/Units.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {
namespace {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::LinearConverter;
using Analysis::Core::UnitAxis;
using Analysis::Core::UnitNumber;
namespace StatusCode = Analysis::Core::StatusCode;
namespace Units = Analysis::Core::Units;

constexpr double kNoData = Analysis::Core::kNoDataDouble;
constexpr double kUntouched = -12345.0;  // what the calibration map holds before a run

DoubleMatrix2D MapOf(int rows, int cols, const std::function<double(int, int)>& value) {
  DoubleMatrix2D map(rows, cols);
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c)
      map(r, c) = value(r, c);
  }
  return map;
}

// A surface in nanometres with a known astigmatism a x y about the centre of a square map, plus
// tilt, piston and (to show it does not leak into the x y term) defocus.
struct Scene {
  int rows = 64, cols = 64;
  double a = 0.02;  // nm per pixel^2
  double Surface(int r, int c) const {
    const double x = c - (cols - 1) / 2.0, y = r - (rows - 1) / 2.0;
    return 5.0 + 0.1 * x - 0.05 * y + a * x * y + 0.004 * (x * x + y * y);
  }
  // The PV of a x y over the map: p runs from -h w to +h w with half extents h, w.
  double TruePv() const { return std::abs(a) * 2.0 * ((rows - 1) / 2.0) * ((cols - 1) / 2.0); }
};

// Quadrant errors that cancel in the averages: a coma-like term that flips between opposite
// quadrants and a tilt that flips between neighbouring ones.
double QuadrantError(int quadrant, int r, int c) {
  const double odd = (quadrant == 1 || quadrant == 2) ? 1.0 : -1.0;
  const double alternate = quadrant % 2 == 1 ? 1.0 : -1.0;
  return odd * 1e-5 * (c - 31.5) * (r - 31.5) * (r - 31.5) + alternate * 0.3 * (c - 31.5) / 31.5;
}

struct Maps {
  Scene scene;
  DoubleMatrix2D q[5];
  DoubleMatrix2D final, calibration;
  Maps() {
    for (int k = 1; k <= 4; ++k) {
      q[k] = MapOf(scene.rows, scene.cols,
                   [&](int r, int c) { return scene.Surface(r, c) + QuadrantError(k, r, c); });
    }
    calibration = MapOf(scene.rows, scene.cols, [](int, int) { return kUntouched; });
  }
  void Wire(FourQuadrantEvaluator& evaluator, bool four) {
    evaluator.SetMeasurementQ1(&q[1]);
    evaluator.SetMeasurementQ3(&q[3]);
    if (four) {
      evaluator.SetMeasurementQ2(&q[2]);
      evaluator.SetMeasurementQ4(&q[4]);
    }
    evaluator.SetFinalPhaseMap(&final);
    evaluator.SetCalibrationMap(&calibration);
  }
  // Where an input lacks data (`hole`) the final map has none and the calibration keeps what it
  // held; elsewhere both hold the expected values.
  void Expect(const std::function<bool(int, int)>& hole, const std::function<double(int, int)>& expectedFinal,
              const std::function<double(int, int)>& expectedCalibration) const {
    for (int r = 0; r < scene.rows; ++r) {
      for (int c = 0; c < scene.cols; ++c) {
        if (hole(r, c)) {
          ASSERT_TRUE(DoubleMatrix2D::IsNoData(final(r, c)) && calibration(r, c) == kUntouched)
              << r << "," << c;
        } else {
          ASSERT_NEAR(final(r, c), expectedFinal(r, c), 1e-12) << r << "," << c;
          ASSERT_NEAR(calibration(r, c), expectedCalibration(r, c), 1e-12) << r << "," << c;
        }
      }
    }
  }
};

TEST(FourQuadrantEvaluatorTest, FourQuadrantsAverageAndCalibrateAgainstQuadrantTwo) {
  Maps maps;
  maps.q[3](10, 20) = kNoData;
  maps.q[1].GetUnitManager().SetConverter(UnitAxis::kValue, LinearConverter(Units::kNanometers));
  FourQuadrantEvaluator evaluator;
  maps.Wire(evaluator, true);
  evaluator.EvaluateFour();
  ASSERT_TRUE(evaluator.GetStatus().IsOk()) << evaluator.GetStatus().GetPrintString();
  ASSERT_EQ(maps.final.GetRows(), 64);
  EXPECT_EQ(maps.final.GetUnitManager(), maps.q[1].GetUnitManager()) << "the outputs take Q1's units";
  // Every quadrant error cancels in the mean of four; what Q2 has beyond it is its own error.
  maps.Expect([](int r, int c) { return r == 10 && c == 20; },
              [&](int r, int c) { return maps.scene.Surface(r, c); },
              [](int r, int c) { return QuadrantError(2, r, c); });
  // No astigmatism is measured by the four-quadrant evaluation itself.
  EXPECT_TRUE(evaluator.GetAstigmatismPV().IsUndefined());
}

TEST(FourQuadrantEvaluatorTest, TwoQuadrantsAverageAndHalfDifferenceAndMeasureTheAstigmatism) {
  Maps maps;
  // Holes placed mirror-symmetrically keep x^2, y^2 and the tilts orthogonal to x y on the grid.
  const int holes[4][2] = {{5, 6}, {5, 57}, {58, 6}, {58, 57}};
  for (const auto& hole : holes)
    maps.q[1](hole[0], hole[1]) = kNoData;
  FourQuadrantEvaluator evaluator;
  maps.Wire(evaluator, false);  // Q2 and Q4 are not needed
  evaluator.EvaluateTwo();
  ASSERT_TRUE(evaluator.GetStatus().IsOk()) << evaluator.GetStatus().GetPrintString();
  maps.Expect([&](int r, int c) { return DoubleMatrix2D::IsNoData(maps.q[1](r, c)); },
              [&](int r, int c) {
                return maps.scene.Surface(r, c) + 0.5 * (QuadrantError(1, r, c) + QuadrantError(3, r, c));
              },
              [](int r, int c) { return 0.5 * (QuadrantError(1, r, c) - QuadrantError(3, r, c)); });
  // Q1 and Q3 cancel the coma-like term; the tilt they share is fitted apart. The x y term of the
  // two-quadrant map is the surface's up to rounding, and so is the PV (the extreme products lie in
  // the corners, which have data).
  EXPECT_NEAR(evaluator.GetAstigmatismPV().GetValue(Units::kNanometers), maps.scene.TruePv(), 1e-9);
  EXPECT_TRUE(evaluator.AreRequiredFourQuadrants()) << maps.scene.TruePv() << " nm is above 10 nm";
}

// On a map that is not square the reference point pairs the row centre with x and the column
// centre with y, in the fit and in the products alike; the fitted coefficient does not depend on
// the reference (a shift only moves x y into the tilts) but the product range does.
TEST(FourQuadrantEvaluatorTest, NonSquareMapTakesTheXReferenceFromTheRows) {
  const int rows = 40, cols = 70;
  const double a = 0.01;
  DoubleMatrix2D q = MapOf(rows, cols, [&](int r, int c) { return a * (c - 34.5) * (r - 19.5); });
  q.MoveStartTo(100, 200);  // the reference follows the window in camera coordinates
  DoubleMatrix2D final, calibration;
  FourQuadrantEvaluator evaluator;
  evaluator.SetMeasurementQ1(&q);
  evaluator.SetMeasurementQ3(&q);
  evaluator.SetFinalPhaseMap(&final);
  evaluator.SetCalibrationMap(&calibration);
  evaluator.EvaluateTwo();
  ASSERT_TRUE(evaluator.GetStatus().IsOk());
  // xr = 100 + 39 / 2 = 119.5 and yr = 200 + 69 / 2 = 234.5: over columns 200 ... 269 and rows
  // 100 ... 139 the product (column - xr)(row - yr) runs from 149.5 x -134.5 to 80.5 x -95.5.
  const double expectedPv = a * (149.5 * 134.5 - 80.5 * 95.5);
  EXPECT_NEAR(evaluator.GetAstigmatismPV().GetValue(Units::kNanometers), expectedPv, 1e-9);
  EXPECT_GT(std::abs(expectedPv - a * 2.0 * 34.5 * 19.5), 1.0) << "the true centre would give another PV";
}

// A PV equal to the tolerance requires four quadrants; below it does not. The PV is reported in
// nanometres whatever the map's length unit.
TEST(FourQuadrantEvaluatorTest, DecisionAtTheToleranceAndUnits) {
  Maps maps;
  for (int k : {1, 3}) {
    maps.q[k].GetUnitManager().SetConverter(UnitAxis::kValue, LinearConverter(Units::kMicrometers));
  }
  FourQuadrantEvaluator evaluator;
  maps.Wire(evaluator, false);
  evaluator.EvaluateTwo();
  ASSERT_TRUE(evaluator.GetStatus().IsOk());
  const double pv = evaluator.GetAstigmatismPV().GetValue(Units::kNanometers);
  EXPECT_NEAR(pv, 1000.0 * maps.scene.TruePv(), 1e-6) << "the map is in micrometres";

  UnitNumber tolerance(pv, LinearConverter(Units::kNanometers));
  evaluator.SetAstigmatismTolerance(tolerance);
  EXPECT_TRUE(evaluator.AreRequiredFourQuadrants()) << "equal to the tolerance";
  tolerance.SetValue(std::nextafter(pv, 1e300), Units::kNanometers);
  evaluator.SetAstigmatismTolerance(tolerance);
  EXPECT_FALSE(evaluator.AreRequiredFourQuadrants()) << "just below the tolerance";
  EXPECT_TRUE(evaluator.GetStatus().IsOk());

  // A phase map in radians without a wavelength has no height to report.
  for (int k : {1, 3})
    maps.q[k].GetUnitManager().SetConverter(UnitAxis::kValue, LinearConverter(Units::kRadians));
  evaluator.EvaluateTwo();
  EXPECT_EQ(evaluator.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
}

TEST(FourQuadrantEvaluatorTest, WiringMessagesAndUndefinedAstigmatism) {
  FourQuadrantEvaluator evaluator;
  EXPECT_TRUE(evaluator.AreRequiredFourQuadrants()) << "nothing measured yet";
  EXPECT_EQ(evaluator.GetStatus().GetCode(), StatusCode::kCallFailed);
  EXPECT_EQ(evaluator.GetStatus().GetMessage(), "Measured astigmatism is undefined");

  evaluator.Clear();
  EXPECT_TRUE(evaluator.GetStatus().IsOk());
  evaluator.EvaluateFour();
  EXPECT_EQ(evaluator.GetStatus().GetCode(), StatusCode::kNotSet);
  EXPECT_EQ(evaluator.GetStatus().GetMessage(),
            "Output map for holding the calibration data has not been set")
      << "the last failing test wins";

  Maps maps;
  maps.Wire(evaluator, false);
  evaluator.EvaluateFour();
  EXPECT_EQ(evaluator.GetStatus().GetMessage(), "Input map for quadrant 4 has not been set");
  evaluator.SetMeasurementQ4(&maps.q[4]);
  evaluator.EvaluateFour();
  EXPECT_EQ(evaluator.GetStatus().GetMessage(), "Input map for quadrant 2 has not been set");

  evaluator.Clear();
  evaluator.SetMeasurementQ3(&maps.q[3]);
  evaluator.SetFinalPhaseMap(&maps.final);
  evaluator.SetCalibrationMap(&maps.calibration);
  evaluator.EvaluateTwo();
  EXPECT_EQ(evaluator.GetStatus().GetMessage(), "Input map for quadrant 1 has not been set");
  evaluator.SetMeasurementQ1(&maps.q[1]);
  evaluator.SetFinalPhaseMap(nullptr);
  evaluator.EvaluateTwo();
  EXPECT_EQ(evaluator.GetStatus().GetMessage(), "Output map for holding the final phase has not been set");
  evaluator.CalculateAstigmatismPV();
  EXPECT_EQ(evaluator.GetStatus().GetCode(), StatusCode::kNotSet);
  EXPECT_EQ(evaluator.GetStatus().GetFile(), "Psi\\Kinephase\\FourQuadrantEvaluator");

  // Inputs of another size would be read past their end: refused.
  DoubleMatrix2D small(10, 10);
  evaluator.SetFinalPhaseMap(&maps.final);
  evaluator.SetMeasurementQ3(&small);
  evaluator.EvaluateTwo();
  EXPECT_EQ(evaluator.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_EQ(evaluator.GetStatus().GetMessage(), "Input map for quadrant 3 is 10 x 10, quadrant 1 64 x 64");
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase

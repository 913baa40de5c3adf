#include "Psi/Kinephase/FourQuadrantEvaluator.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

#include "Analysis/Core/PolyFitter.h"
#include "Analysis/Core/Units.h"
#include "Core/Board/WiringCheck.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::LinearConverter;
using Analysis::Core::Status;
using Analysis::Core::UnitNumber;
namespace StatusCode = Analysis::Core::StatusCode;
namespace Units = Analysis::Core::Units;

namespace {
constexpr const char* kSource = "Psi\\Kinephase\\FourQuadrantEvaluator";
constexpr double kDefaultToleranceNm = 10.0;
}  // namespace

FourQuadrantEvaluator::FourQuadrantEvaluator()
    : astigmatismTolerance_(kDefaultToleranceNm, LinearConverter(Units::kNanometers)),
      astigmatismPV_(Analysis::Core::kNoDataDouble, LinearConverter(Units::kNanometers)),
      status_(__LINE__, kSource) {
  Clear();
}

void FourQuadrantEvaluator::Clear() {
  status_ = Status(__LINE__, kSource);
  q1_ = q2_ = q3_ = q4_ = nullptr;
  final_ = calibration_ = nullptr;
  astigmatismPV_.SetValue(Analysis::Core::kNoDataDouble);
}

bool FourQuadrantEvaluator::CheckWiredForEvaluateFour() {
  return WiringCheck(status_, StatusCode::kNotSet, kSource)
      .Require(q1_ != nullptr, __LINE__, "Input map for quadrant 1 has not been set")
      .Require(q2_ != nullptr, __LINE__, "Input map for quadrant 2 has not been set")
      .Require(q3_ != nullptr, __LINE__, "Input map for quadrant 3 has not been set")
      .Require(q4_ != nullptr, __LINE__, "Input map for quadrant 4 has not been set")
      .Require(final_ != nullptr, __LINE__, "Output map for holding the final phase has not been set")
      .Require(calibration_ != nullptr, __LINE__,
               "Output map for holding the calibration data has not been set")
      .Passed();
}

bool FourQuadrantEvaluator::CheckWiredForEvaluateTwo() {
  return WiringCheck(status_, StatusCode::kNotSet, kSource)
      .Require(q1_ != nullptr, __LINE__, "Input map for quadrant 1 has not been set")
      .Require(q3_ != nullptr, __LINE__, "Input map for quadrant 3 has not been set")
      .Require(final_ != nullptr, __LINE__, "Output map for holding the final phase has not been set")
      .Require(calibration_ != nullptr, __LINE__,
               "Output map for holding the calibration data has not been set")
      .Passed();
}

// The combination runs over Q1's pixels and reads the others at the same index: a smaller input
// would be read past its end.
bool FourQuadrantEvaluator::CheckSizes(bool four) {
  const auto check = [&](const DoubleMatrix2D* map, int quadrant) {
    if (map->GetRows() == q1_->GetRows() && map->GetColumns() == q1_->GetColumns()) return true;
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                     "Input map for quadrant " + std::to_string(quadrant) + " is " +
                         std::to_string(map->GetRows()) + " x " + std::to_string(map->GetColumns()) +
                         ", quadrant 1 " + std::to_string(q1_->GetRows()) + " x " +
                         std::to_string(q1_->GetColumns()));
    return false;
  };
  if (four) return check(q2_, 2) && check(q3_, 3) && check(q4_, 4);
  return check(q3_, 3);
}

bool FourQuadrantEvaluator::PrepareOutputs() {
  for (DoubleMatrix2D* map : {final_, calibration_}) {
    if (map == q1_) continue;  // already shaped like Q1
    if (!map->Resize(q1_->GetMatrixWindow())) {
      status_ = map->GetStatus();
      return false;
    }
    map->SetUnitManager(q1_->GetUnitManager());
  }
  return true;
}

void FourQuadrantEvaluator::EvaluateFour() {
  if (!CheckWiredForEvaluateFour() || !CheckSizes(true) || !PrepareOutputs()) return;
  CalculateFinalAndCalibrationFour();
}

void FourQuadrantEvaluator::EvaluateTwo() {
  if (!CheckWiredForEvaluateTwo() || !CheckSizes(false) || !PrepareOutputs()) return;
  CalculateFinalAndCalibrationTwo();
  if (status_.IsOk()) CalculateAstigmatismPV();
}

void FourQuadrantEvaluator::CalculateFinalAndCalibrationFour() {
  const std::int64_t count = q1_->GetCount();
  for (std::int64_t k = 0; k < count; ++k) {
    const double a = q1_->At(k), b = q2_->At(k), c = q3_->At(k), d = q4_->At(k);
    if (DoubleMatrix2D::IsNoData(a) || DoubleMatrix2D::IsNoData(b) || DoubleMatrix2D::IsNoData(c) ||
        DoubleMatrix2D::IsNoData(d)) {
      final_->At(k) = DoubleMatrix2D::NoData();
      continue;
    }
    const double mean = (a + b + c + d) * 0.25;
    final_->At(k) = mean;
    calibration_->At(k) = b - mean;
  }
}

void FourQuadrantEvaluator::CalculateFinalAndCalibrationTwo() {
  const std::int64_t count = q1_->GetCount();
  for (std::int64_t k = 0; k < count; ++k) {
    const double a = q1_->At(k), c = q3_->At(k);
    if (DoubleMatrix2D::IsNoData(a) || DoubleMatrix2D::IsNoData(c)) {
      final_->At(k) = DoubleMatrix2D::NoData();
      continue;
    }
    final_->At(k) = (a + c) * 0.5;
    calibration_->At(k) = (a - c) * 0.5;
  }
}

void FourQuadrantEvaluator::CalculateAstigmatismPV() {
  if (!final_) {
    status_ = Status(0, StatusCode::kNotSet, __LINE__, kSource,
                     "Output map for holding the final phase has not been set");
    return;
  }
  const Analysis::Core::Window2D window = final_->GetWindow();
  // The row extent gives the x reference and the column extent the y reference, in the fit and in
  // the product below alike.
  const double xr = window.GetStartRow() + (window.GetRows() - 1) * 0.5;
  const double yr = window.GetStartCol() + (window.GetCols() - 1) * 0.5;
  Analysis::Core::PolyFitter fitter;
  fitter.SetReferencePoint(xr, yr);
  fitter.SetFitType(Analysis::Core::PolyFitter::kCrossTerm);
  fitter.SetAllowMultiThreads(allowMultiThreads_);
  if (!fitter.FitMatrix(*final_)) {
    status_ = fitter.GetStatus();
    return;
  }
  double c = fitter.GetResult().Coefficient(Analysis::Core::PolyTerm::kXY);
  if (fitter.GetResult().ySignFlag != 0) c = -c;

  double pmin = Analysis::Core::kNoDataDouble, pmax = Analysis::Core::kNoDataDouble;
  for (int r = window.GetStartRow(); r < window.GetEndRow(); ++r) {
    const double* row = final_->Row(r - final_->GetStartRow());
    for (int j = window.GetStartCol(); j < window.GetEndCol(); ++j) {
      if (!DoubleMatrix2D::IsDataValid(row[j - final_->GetStartCol()])) continue;
      const double p = (j - xr) * (r - yr);
      if (Analysis::Core::IsNoDataValue(pmin)) {
        pmin = pmax = p;
      } else {
        pmin = std::min(pmin, p);
        pmax = std::max(pmax, p);
      }
    }
  }
  const double toNanometres = final_->GetUnitManager().ConvertFromBaseUnit(1.0, Units::kNanometers);
  if (!std::isfinite(toNanometres)) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                     "The final map's unit cannot be converted to nanometres");
    return;
  }
  astigmatismPV_.SetValue(std::abs(pmax * c - pmin * c) * toNanometres, Units::kNanometers);
}

bool FourQuadrantEvaluator::AreRequiredFourQuadrants() {
  const double pv = astigmatismPV_.GetValue(Units::kNanometers);
  const double tolerance = astigmatismTolerance_.GetValue(Units::kNanometers);
  if (Analysis::Core::IsNoDataValue(pv)) {
    status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Measured astigmatism is undefined");
    return true;
  }
  return !(pv < tolerance);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase

#include "Jobs/QuadrantsJob.h"

#include <chrono>
#include <cstdio>

#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/UnitNumber.h"
#include "Analysis/Core/Units.h"
#include "Psi/Kinephase/FourQuadrantEvaluator.h"

namespace Quarn::Jobs {

namespace {

namespace Kinephase = ::Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase;
namespace Units = Core::Units;

std::string SizeOf(const Core::DoubleMatrix2D& map) {
  return std::to_string(map.GetColumns()) + " x " + std::to_string(map.GetRows());
}

// The evaluator leaves calibration pixels without data untouched; they are to read as no data.
bool EmptyCalibration(const Core::DoubleMatrix2D& like, Core::DoubleMatrix2D& calibration,
                      JobRecord& record) {
  if (!calibration.Resize(like.GetMatrixWindow())) {
    return Fail(record, JobOutcome::kNoResult, "no memory for a " + SizeOf(like) + " calibration map");
  }
  calibration.SetAll(Core::DoubleMatrix2D::NoData());
  return true;
}

// The astigmatism PV in nanometres, or why it could not be measured.
void ReadPv(Kinephase::FourQuadrantEvaluator& evaluator, bool& available, double& pvNm, std::string& reason) {
  available = evaluator.GetStatus().IsOk();
  if (available) {
    pvNm = evaluator.GetAstigmatismPV().GetValue(Units::kNanometers);
  } else {
    reason = evaluator.GetStatus().GetMessage();
  }
}

}  // namespace

QuadrantsRecord QuadrantsJob::Run(const std::array<Core::DoubleMatrix2D*, 5>& maps,
                                  const std::array<std::string, 5>& names, const QuadrantsOptions& options) {
  QuadrantsRecord record;
  four_ = maps[2] != nullptr || maps[4] != nullptr;
  if (four_ && (maps[2] == nullptr || maps[4] == nullptr)) {
    Fail(record, JobOutcome::kBadInput,
         "--q2 and --q4 go together: give both for a four-quadrant evaluation, or neither");
    return record;
  }
  if (maps[1] == nullptr || maps[3] == nullptr) {
    Fail(record, JobOutcome::kBadInput, "--q1 and --q3 are required");
    return record;
  }
  if (!CheckNumberAtLeast(record, "--tolerance", options.toleranceNm, 0.0)) return record;
  if (options.wavelengthNm != 0.0 && !CheckNumberAbove(record, "--wavelength", options.wavelengthNm, 0.0)) {
    return record;
  }
  for (int k = 2; k <= 4; ++k) {
    if (maps[k] == nullptr) continue;
    if (maps[k]->GetRows() != maps[1]->GetRows() || maps[k]->GetColumns() != maps[1]->GetColumns()) {
      Fail(record, JobOutcome::kBadInput,
           names[k] + " is " + SizeOf(*maps[k]) + ", " + names[1] + " is " + SizeOf(*maps[1]) +
               "; the quadrant maps must be of one size");
      return record;
    }
  }
  record.quadrants = four_ ? 4 : 2;
  // The maps carry no units: heights in nanometres, or phase in radians of a given wavelength (then
  // the astigmatism is converted to surface height).
  const Core::LinearConverter unit = options.wavelengthNm > 0.0
                                         ? Core::LinearConverter(Units::kRadians, options.wavelengthNm)
                                         : Core::LinearConverter(Units::kNanometers);
  maps[1]->GetUnitManager().SetConverter(Core::UnitAxis::kValue, unit);
  Core::UnitNumber tolerance(options.toleranceNm, Core::LinearConverter(Units::kNanometers));
  const auto start = std::chrono::steady_clock::now();

  // Q1 and Q3 first, also when all four were measured: their astigmatism decides whether Q2 and Q4
  // were needed at all.
  if (!EmptyCalibration(*maps[1], twoCalibration_, record)) return record;
  Kinephase::FourQuadrantEvaluator two;
  two.SetAstigmatismTolerance(tolerance);
  two.SetMeasurementQ1(maps[1]);
  two.SetMeasurementQ3(maps[3]);
  two.SetFinalPhaseMap(&twoFinal_);
  two.SetCalibrationMap(&twoCalibration_);
  two.EvaluateTwo();
  ReadPv(two, record.twoPvAvailable, record.twoPvNm, record.twoPvReason);
  record.fourRequired = two.AreRequiredFourQuadrants();  // also when the PV is unavailable

  Kinephase::FourQuadrantEvaluator all;
  if (four_) {
    if (!EmptyCalibration(*maps[1], fourCalibration_, record)) return record;
    all.SetMeasurementQ1(maps[1]);
    all.SetMeasurementQ2(maps[2]);
    all.SetMeasurementQ3(maps[3]);
    all.SetMeasurementQ4(maps[4]);
    all.SetFinalPhaseMap(&fourFinal_);
    all.SetCalibrationMap(&fourCalibration_);
    all.EvaluateFour();
    // The astigmatism left after all four quadrants, for the record.
    if (all.GetStatus().IsOk() && fourFinal_.AnyValid()) all.CalculateAstigmatismPV();
    ReadPv(all, record.fourPvAvailable, record.fourPvNm, record.fourPvReason);
  }
  record.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  Kinephase::FourQuadrantEvaluator& evaluator = four_ ? all : two;
  const Core::DoubleMatrix2D& final = GetFinal();
  if (final.GetCount() != maps[1]->GetCount()) {
    Fail(record, JobOutcome::kNoResult,
         "the quadrant maps cannot be combined: " + evaluator.GetStatus().GetPrintString());
    return record;
  }
  record.combined = true;
  const std::int64_t validPixels = final.CountValid();
  if (validPixels == 0) {
    Fail(record, JobOutcome::kNoResult,
         "no pixel has data in every quadrant map (" + names[1] + ", " + names[3] +
             (four_ ? ", " + names[2] + ", " + names[4] : std::string()) + ")");
    return record;
  }
  record.validFraction = static_cast<double>(validPixels) / static_cast<double>(final.GetCount());
  return record;
}

QuadrantsRecord RunQuadrants(const ArrayView& q1, const ArrayView& q3, const ArrayView& q2,
                             const ArrayView& q4, const QuadrantsOptions& options, const MapView& final,
                             const MapView& calibration) {
  QuadrantsRecord record;
  Core::DoubleMatrix2D maps[5];
  std::array<Core::DoubleMatrix2D*, 5> pointers{};
  std::array<std::string, 5> names;
  const ArrayView* views[5] = {nullptr, &q1, &q2, &q3, &q4};
  for (int k = 1; k <= 4; ++k) {
    if (views[k]->data == nullptr) continue;
    if (!MakeDoubleMap(*views[k], maps[k], record)) return record;
    pointers[static_cast<std::size_t>(k)] = &maps[k];
    names[static_cast<std::size_t>(k)] = views[k]->name;
  }
  QuadrantsJob job;
  record = job.Run(pointers, names, options);
  if (record.outcome == JobOutcome::kBadInput) return record;
  if (record.outcome == JobOutcome::kNoResult) {
    FillNan(final);
    FillNan(calibration);
    return record;
  }
  CopyMap(job.GetFinal(), final, record, "final") &&
      CopyMap(job.GetCalibration(), calibration, record, "calibration");
  return record;
}

}  // namespace Quarn::Jobs

#pragma once

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/Status.h"
#include "Analysis/Core/UnitNumber.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {

// FourQuadrantEvaluator
//
// Combines maps of one surface measured with the carrier lobe in different quadrants (see
// `KpQuadrant`) into a final map and a calibration map, and measures the astigmatism left in a
// two-quadrant result to decide whether the other two quadrants are needed.
//
// Errors of the carrier method that follow the carrier's direction change sign between opposite
// quadrants, so averaging opposite measurements cancels them:
//   four quadrants:  final = (Q1 + Q2 + Q3 + Q4) / 4,   calibration = Q2 - final
//   two quadrants:   final = (Q1 + Q3) / 2,             calibration = (Q1 - Q3) / 2
// pixel by pixel in storage order; where an input lacks data the final pixel gets no data and the
// calibration pixel is left untouched: it keeps whatever the map held, and a freshly allocated map
// holds 0.0 there, so a host that wants no data in those pixels fills the calibration map with the
// no-data value first. The calibration of four quadrants is taken against quadrant 2 alone, on
// purpose. The output maps are sized like Q1 and take its units.
//
// Astigmatism: the final map is fitted with a constant, x, y and x y about a reference point taken
// from the map's window (row centre for x, column centre for y: the true centre for square maps);
// the PV is |c| (pmax - pmin) with c the fitted x y coefficient and p = (column - xr)(row - yr) over
// the valid pixels, converted from the map's height unit into nanometres (unit 6). Four quadrants
// are required when the PV is not below the tolerance (default 10 nm), or when no PV has been
// measured.
//
//   FourQuadrantEvaluator evaluator;
//   evaluator.SetMeasurementQ1(&q1);
//   evaluator.SetMeasurementQ3(&q3);
//   evaluator.SetFinalPhaseMap(&final);
//   evaluator.SetCalibrationMap(&calibration);
//   evaluator.EvaluateTwo();
//   if (evaluator.AreRequiredFourQuadrants()) ...   // measure Q2 and Q4, then EvaluateFour()
//
// Failures go to the status: code 21 for a missing map (the message of the last missing one), 20
// for inputs of different sizes or a map unit that is no length, 6 for a failed fit. A failure stays
// until `Clear` (or a later failure): while the status holds one, `EvaluateTwo` still combines the
// maps but does not measure the astigmatism. An `EvaluateTwo` that fails or measures nothing
// leaves the PV of the previous measurement in place, so `AreRequiredFourQuadrants` can answer
// from an earlier run: check the status first, or `Clear` between unrelated evaluations.
class QUARN_PP_EXPORT FourQuadrantEvaluator {
 public:
  FourQuadrantEvaluator();

  // Status back to success, every map unset, the PV undefined; tolerance and threading stay.
  void Clear();

  bool GetAllowMultiThreads() const { return allowMultiThreads_; }
  void SetAllowMultiThreads(bool allow) { allowMultiThreads_ = allow; }

  // The maps are the caller's and must live until the evaluation returns (null unsets).
  void SetMeasurementQ1(Analysis::Core::DoubleMatrix2D* map) { q1_ = map; }
  void SetMeasurementQ2(Analysis::Core::DoubleMatrix2D* map) { q2_ = map; }
  void SetMeasurementQ3(Analysis::Core::DoubleMatrix2D* map) { q3_ = map; }
  void SetMeasurementQ4(Analysis::Core::DoubleMatrix2D* map) { q4_ = map; }
  void SetFinalPhaseMap(Analysis::Core::DoubleMatrix2D* map) { final_ = map; }
  void SetCalibrationMap(Analysis::Core::DoubleMatrix2D* map) { calibration_ = map; }

  Analysis::Core::UnitNumber& GetAstigmatismTolerance() { return astigmatismTolerance_; }
  void SetAstigmatismTolerance(Analysis::Core::UnitNumber& tolerance) { astigmatismTolerance_ = tolerance; }
  Analysis::Core::UnitNumber& GetAstigmatismPV() { return astigmatismPV_; }

  void EvaluateFour();
  void EvaluateTwo();
  void CalculateAstigmatismPV();
  bool AreRequiredFourQuadrants();

  Analysis::Core::Status& GetStatus() { return status_; }

 private:
  bool CheckWiredForEvaluateFour();
  bool CheckWiredForEvaluateTwo();
  bool CheckSizes(bool four);
  bool PrepareOutputs();
  void CalculateFinalAndCalibrationFour();
  void CalculateFinalAndCalibrationTwo();

  bool allowMultiThreads_ = true;
  Analysis::Core::DoubleMatrix2D* q1_ = nullptr;
  Analysis::Core::DoubleMatrix2D* q2_ = nullptr;
  Analysis::Core::DoubleMatrix2D* q3_ = nullptr;
  Analysis::Core::DoubleMatrix2D* q4_ = nullptr;
  Analysis::Core::DoubleMatrix2D* final_ = nullptr;
  Analysis::Core::DoubleMatrix2D* calibration_ = nullptr;
  Analysis::Core::UnitNumber astigmatismTolerance_;
  Analysis::Core::UnitNumber astigmatismPV_;
  Analysis::Core::Status status_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase

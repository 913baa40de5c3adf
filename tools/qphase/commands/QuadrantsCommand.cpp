// qphase quadrants: combine phase maps measured with the carrier lobe in different quadrants and
// decide from the astigmatism of a two-quadrant result whether all four are needed.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <string>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/UnitNumber.h"
#include "Analysis/Core/Units.h"
#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "OutputFiles.h"
#include "Psi/Kinephase/FourQuadrantEvaluator.h"
#include "TiffIO.h"
#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

namespace Kinephase = ::Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase;
namespace Units = Core::Units;

struct QuadrantsOptions {
  std::string q[5];  // q[1] .. q[4]
  std::string finalOut;
  std::string calibrationOut;
  double toleranceNm = 10.0;
  double wavelengthNm = 0.0;
};

std::string SizeOf(const Core::DoubleMatrix2D& map) {
  return std::to_string(map.GetColumns()) + " x " + std::to_string(map.GetRows());
}

// The evaluator leaves calibration pixels without data untouched; they are to read as no data.
Core::DoubleMatrix2D EmptyCalibration(const Core::DoubleMatrix2D& like) {
  Core::DoubleMatrix2D calibration;
  if (!calibration.Resize(like.GetMatrixWindow())) {
    throw ToolError(kExitNoResult, "no memory for a " + SizeOf(like) + " calibration map");
  }
  calibration.SetAll(Core::DoubleMatrix2D::NoData());
  return calibration;
}

// The astigmatism PV in nanometres as text, or why it could not be measured.
std::string PvText(Kinephase::FourQuadrantEvaluator& evaluator) {
  if (evaluator.GetStatus().IsError()) {
    return "unavailable (" + evaluator.GetStatus().GetMessage() + ")";
  }
  char text[64];
  std::snprintf(text, sizeof text, "%.3f nm", evaluator.GetAstigmatismPV().GetValue(Units::kNanometers));
  return text;
}

int RunQuadrants(const QuadrantsOptions& options) {
  const bool four = !options.q[2].empty() || !options.q[4].empty();
  if (four && (options.q[2].empty() || options.q[4].empty())) {
    throw UsageError("--q2 and --q4 go together: give both for a four-quadrant evaluation, or neither");
  }
  // Outputs are named before any work, so a clash between them is refused at once.
  OutputFiles outputs;
  const std::string finalPath = outputs.Stage(options.finalOut, "-o");
  const std::string calibrationPath =
      options.calibrationOut.empty() ? std::string() : outputs.Stage(options.calibrationOut, "--calibration");

  Core::DoubleMatrix2D maps[5];
  for (int k = 1; k <= 4; ++k) {
    if (options.q[k].empty()) continue;
    ReadFloatTiff(options.q[k], maps[k]);
    if (k > 1 && (maps[k].GetRows() != maps[1].GetRows() || maps[k].GetColumns() != maps[1].GetColumns())) {
      throw UsageError(options.q[k] + " is " + SizeOf(maps[k]) + ", " + options.q[1] + " is " +
                       SizeOf(maps[1]) + "; the quadrant maps must be of one size");
    }
  }
  // The maps carry no units in the file: heights in nanometres, or phase in radians of a given
  // wavelength (then the astigmatism is converted to surface height).
  const Core::LinearConverter unit = options.wavelengthNm > 0.0
                                         ? Core::LinearConverter(Units::kRadians, options.wavelengthNm)
                                         : Core::LinearConverter(Units::kNanometers);
  maps[1].GetUnitManager().SetConverter(Core::UnitAxis::kValue, unit);
  Core::UnitNumber tolerance(options.toleranceNm, Core::LinearConverter(Units::kNanometers));

  // Q1 and Q3 first, also when all four were measured: their astigmatism decides whether Q2 and Q4
  // were needed at all.
  Core::DoubleMatrix2D twoFinal, twoCalibration = EmptyCalibration(maps[1]);
  Kinephase::FourQuadrantEvaluator two;
  two.SetAstigmatismTolerance(tolerance);
  two.SetMeasurementQ1(&maps[1]);
  two.SetMeasurementQ3(&maps[3]);
  two.SetFinalPhaseMap(&twoFinal);
  two.SetCalibrationMap(&twoCalibration);
  two.EvaluateTwo();
  const std::string twoPv = PvText(two);
  const bool required = two.AreRequiredFourQuadrants();  // also when the PV is unavailable

  Core::DoubleMatrix2D fourFinal, fourCalibration;
  Kinephase::FourQuadrantEvaluator all;
  if (four) {
    fourCalibration = EmptyCalibration(maps[1]);
    all.SetMeasurementQ1(&maps[1]);
    all.SetMeasurementQ2(&maps[2]);
    all.SetMeasurementQ3(&maps[3]);
    all.SetMeasurementQ4(&maps[4]);
    all.SetFinalPhaseMap(&fourFinal);
    all.SetCalibrationMap(&fourCalibration);
    all.EvaluateFour();
    // The astigmatism left after all four quadrants, for the record.
    if (all.GetStatus().IsOk() && fourFinal.AnyValid()) all.CalculateAstigmatismPV();
  }
  Kinephase::FourQuadrantEvaluator& evaluator = four ? all : two;
  const Core::DoubleMatrix2D& final = four ? fourFinal : twoFinal;
  const Core::DoubleMatrix2D& calibration = four ? fourCalibration : twoCalibration;
  if (final.GetCount() != maps[1].GetCount()) {
    throw NoResultError("the quadrant maps cannot be combined: " + evaluator.GetStatus().GetPrintString());
  }
  const std::int64_t validPixels = final.CountValid();
  if (validPixels == 0) {
    throw NoResultError("no pixel has data in every quadrant map (" + options.q[1] + ", " + options.q[3] +
                        (four ? ", " + options.q[2] + ", " + options.q[4] : std::string()) +
                        "); nothing written");
  }

  WriteFloatTiff(finalPath, final);
  if (!calibrationPath.empty()) WriteFloatTiff(calibrationPath, calibration);
  outputs.Commit();

  const double valid = static_cast<double>(validPixels) / static_cast<double>(final.GetCount());
  std::printf("%s: %d quadrants, %s, %.1f %% valid\n", options.finalOut.c_str(), four ? 4 : 2,
              SizeOf(final).c_str(), 100.0 * valid);
  std::printf("astigmatism PV%s: %s (tolerance %.3f nm)\n", four ? " of Q1 and Q3 alone" : "", twoPv.c_str(),
              options.toleranceNm);
  std::printf("four quadrants required: %s\n", required ? "yes" : "no");
  if (four) std::printf("astigmatism PV of the four-quadrant map: %s\n", PvText(all).c_str());
  return kExitSuccess;
}

std::function<int()> SetupQuadrants(CLI::App& app) {
  auto options = std::make_shared<QuadrantsOptions>();
  const char* kMap = "phase map (32-bit float TIFF, NaN = no data)";
  app.add_option("--q1", options->q[1], std::string("Quadrant 1 ") + kMap)
      ->required()
      ->check(CLI::ExistingFile);
  app.add_option("--q3", options->q[3], std::string("Quadrant 3 ") + kMap)
      ->required()
      ->check(CLI::ExistingFile);
  app.add_option("--q2", options->q[2], std::string("Quadrant 2 ") + kMap + "; with --q4")
      ->check(CLI::ExistingFile);
  app.add_option("--q4", options->q[4], std::string("Quadrant 4 ") + kMap + "; with --q2")
      ->check(CLI::ExistingFile);
  app.add_option("-o,--output", options->finalOut, "Final map to write (32-bit float TIFF, NaN = no data)")
      ->required();
  app.add_option("--calibration", options->calibrationOut,
                 "Calibration map to write: (Q1 - Q3) / 2 for two quadrants, Q2 - final for four");
  app.add_option(
         "--tolerance", options->toleranceNm,
         "Astigmatism PV in nanometres of the Q1 and Q3 result from which four quadrants are required")
      ->check(NumberAtLeast(0.0))
      ->capture_default_str();
  app.add_option("--wavelength", options->wavelengthNm,
                 "The maps hold phase in radians of this wavelength (nm); without it they hold heights in nm")
      ->check(NumberAbove(0.0));
  return [options] { return RunQuadrants(*options); };
}

[[maybe_unused]] const bool registered = RegisterCommand(
    {"quadrants", "Combine quadrant phase maps; astigmatism PV and whether four quadrants are needed",
     SetupQuadrants});

}  // namespace

}  // namespace Quarn::Qphase

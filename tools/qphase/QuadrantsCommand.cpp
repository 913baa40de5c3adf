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

int RunQuadrants(const QuadrantsOptions& options) {
  const bool four = !options.q[2].empty() || !options.q[4].empty();
  if (four && (options.q[2].empty() || options.q[4].empty())) {
    throw UsageError("--q2 and --q4 go together: give both for a four-quadrant evaluation, or neither");
  }
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

  Core::DoubleMatrix2D final, calibration;
  calibration.Resize(maps[1].GetMatrixWindow());
  calibration.SetAll(Core::DoubleMatrix2D::NoData());  // pixels the evaluation leaves alone stay empty

  Kinephase::FourQuadrantEvaluator evaluator;
  Core::UnitNumber tolerance(options.toleranceNm, Core::LinearConverter(Units::kNanometers));
  evaluator.SetAstigmatismTolerance(tolerance);
  evaluator.SetMeasurementQ1(&maps[1]);
  evaluator.SetMeasurementQ3(&maps[3]);
  if (four) {
    evaluator.SetMeasurementQ2(&maps[2]);
    evaluator.SetMeasurementQ4(&maps[4]);
  }
  evaluator.SetFinalPhaseMap(&final);
  evaluator.SetCalibrationMap(&calibration);
  if (four) {
    evaluator.EvaluateFour();
    // The astigmatism left after all four quadrants, for the record.
    if (evaluator.GetStatus().IsOk() && final.AnyValid()) evaluator.CalculateAstigmatismPV();
  } else {
    evaluator.EvaluateTwo();
  }
  const std::int64_t validPixels = final.CountValid();
  if (validPixels == 0) {
    throw NoResultError("no pixel has data in every quadrant map (" + options.q[1] + ", " + options.q[3] +
                        (four ? ", " + options.q[2] + ", " + options.q[4] : std::string()) +
                        "); nothing written");
  }
  if (evaluator.GetStatus().IsError()) {
    throw NoResultError("the astigmatism of the combined map cannot be measured: " +
                        evaluator.GetStatus().GetPrintString() + "; nothing written");
  }
  const double pv = evaluator.GetAstigmatismPV().GetValue(Units::kNanometers);
  const bool required = four ? true : evaluator.AreRequiredFourQuadrants();

  OutputFiles outputs;
  WriteFloatTiff(outputs.Stage(options.finalOut), final);
  if (!options.calibrationOut.empty()) WriteFloatTiff(outputs.Stage(options.calibrationOut), calibration);
  outputs.Commit();

  const double valid = static_cast<double>(validPixels) / static_cast<double>(final.GetCount());
  std::printf("%s: %d quadrants, %s, %.1f %% valid\n", options.finalOut.c_str(), four ? 4 : 2,
              SizeOf(final).c_str(), 100.0 * valid);
  std::printf("astigmatism PV: %.3f nm (tolerance %.3f nm)\n", pv, options.toleranceNm);
  if (four) {
    std::printf("four quadrants used\n");
  } else {
    std::printf("four quadrants required: %s\n", required ? "yes" : "no");
  }
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
  app.add_option("--tolerance", options->toleranceNm,
                 "Astigmatism PV in nanometres from which four quadrants are required")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  app.add_option("--wavelength", options->wavelengthNm,
                 "The maps hold phase in radians of this wavelength (nm); without it they hold heights in nm")
      ->check(CLI::PositiveNumber);
  return [options] { return RunQuadrants(*options); };
}

[[maybe_unused]] const bool registered = RegisterCommand(
    {"quadrants", "Combine quadrant phase maps; astigmatism PV and whether four quadrants are needed",
     SetupQuadrants});

}  // namespace

}  // namespace Quarn::Qphase

// qphase quadrants: combine phase maps measured with the carrier lobe in different quadrants and
// decide from the astigmatism of a two-quadrant result whether all four are needed.
#include <CLI/CLI.hpp>

#include <array>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "JobFailure.h"
#include "Jobs/QuadrantsJob.h"
#include "OutputFiles.h"
#include "TiffIO.h"
#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

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

// The astigmatism PV in nanometres as text, or why it could not be measured.
std::string PvText(bool available, double pvNm, const std::string& reason) {
  if (!available) return "unavailable (" + reason + ")";
  char text[64];
  std::snprintf(text, sizeof text, "%.3f nm", pvNm);
  return text;
}

int RunQuadrants(const QuadrantsOptions& options) {
  const bool four = !options.q[2].empty() || !options.q[4].empty();
  if (four && (options.q[2].empty() || options.q[4].empty())) {
    throw UsageError("--q2 and --q4 go together: give both for a four-quadrant evaluation, or neither");
  }
  // Outputs are named before any work, so a clash between them is refused at once.
  OutputFiles outputs;
  for (int k = 1; k <= 4; ++k)
    if (!options.q[k].empty()) outputs.ProtectInput(options.q[k], "--q" + std::to_string(k));
  WriteTarget finalFile = outputs.Stage(options.finalOut, "-o");
  WriteTarget calibrationFile =
      options.calibrationOut.empty() ? WriteTarget() : outputs.Stage(options.calibrationOut, "--calibration");

  Core::DoubleMatrix2D maps[5];
  std::array<Core::DoubleMatrix2D*, 5> quadrants{};
  std::array<std::string, 5> names;
  for (std::size_t k = 1; k <= 4; ++k) {
    if (options.q[k].empty()) continue;
    ReadFloatTiff(options.q[k], maps[k]);
    // Sizes are compared as each map is read, so that a mismatch is named before a later file is opened.
    if (k > 1 && (maps[k].GetRows() != maps[1].GetRows() || maps[k].GetColumns() != maps[1].GetColumns())) {
      throw UsageError(options.q[k] + " is " + SizeOf(maps[k]) + ", " + options.q[1] + " is " +
                       SizeOf(maps[1]) + "; the quadrant maps must be of one size");
    }
    quadrants[k] = &maps[k];
    names[k] = options.q[k];
  }
  Jobs::QuadrantsOptions settings;
  settings.toleranceNm = options.toleranceNm;
  settings.wavelengthNm = options.wavelengthNm;
  Jobs::QuadrantsJob job;
  const Jobs::QuadrantsRecord record = job.Run(quadrants, names, settings);
  // A combined map without a valid pixel is not written; the other failures name their cause.
  ThrowIfFailed(record, record.combined ? "; nothing written" : "");

  WriteFloatTiff(std::move(finalFile), job.GetFinal());
  if (calibrationFile) WriteFloatTiff(std::move(calibrationFile), job.GetCalibration());
  outputs.Commit();

  std::printf("%s: %d quadrants, %s, %.1f %% valid\n", options.finalOut.c_str(), record.quadrants,
              SizeOf(job.GetFinal()).c_str(), 100.0 * record.validFraction);
  std::printf("astigmatism PV%s: %s (tolerance %.3f nm)\n", four ? " of Q1 and Q3 alone" : "",
              PvText(record.twoPvAvailable, record.twoPvNm, record.twoPvReason).c_str(), options.toleranceNm);
  std::printf("four quadrants required: %s\n", record.fourRequired ? "yes" : "no");
  if (four) {
    std::printf("astigmatism PV of the four-quadrant map: %s\n",
                PvText(record.fourPvAvailable, record.fourPvNm, record.fourPvReason).c_str());
  }
  return kExitSuccess;
}

std::function<int()> SetupQuadrants(CLI::App& app) {
  auto options = std::make_shared<QuadrantsOptions>();
  const char* kMap = "phase map (32-bit float TIFF, NaN = no data)";
  app.add_option("--q1", options->q[1], std::string("Quadrant 1 ") + kMap)->required();
  app.add_option("--q3", options->q[3], std::string("Quadrant 3 ") + kMap)->required();
  app.add_option("--q2", options->q[2], std::string("Quadrant 2 ") + kMap + "; with --q4");
  app.add_option("--q4", options->q[4], std::string("Quadrant 4 ") + kMap + "; with --q2");
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

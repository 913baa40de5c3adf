// qphase spot: the alignment spot in a camera image, relative to a reticle centre.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "AlignSpotDetector/AsdSpotPosition.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "JobFailure.h"
#include "Jobs/SpotJob.h"
#include "JsonText.h"
#include "OutputFiles.h"
#include "SpotOverlay.h"
#include "TiffIO.h"
#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

namespace Alignment = ::Quarn::Metrology::PhaseProcessing::Core::Alignment;
using Alignment::AsdSpotPosition;

struct SpotOptions {
  std::string image;
  std::vector<double> center;
  double radius = 0.0;
  double obscuration = 0.0;
  std::string restrict = "full";
  double saturation = -1.0;  // negative: chosen from the sample depth
  int maxSaturated = 32;
  std::string jsonOut;
  std::string pngOut;
};

void WriteJson(WriteTarget target, const SpotOptions& options, const TiffStackInfo& info,
               const Jobs::SpotRecord& record) {
  // Members in the order written (ordered_json): the image, what was asked, what was found.
  nlohmann::ordered_json parameters;
  parameters["reticleCenterX"] = options.center[0];
  parameters["reticleCenterY"] = options.center[1];
  parameters["interestRegionRadius"] = options.radius;
  parameters["reticleCenterR"] = options.obscuration;
  parameters["regionRestrictor"] = options.restrict;
  parameters["saturationThreshold"] = record.saturation;
  parameters["maxNumberOfSaturatedPixels"] = options.maxSaturated;
  // The result dictionary as the library keeps it: every value is text.
  nlohmann::ordered_json properties = nlohmann::ordered_json::object();
  for (const auto& [key, value] : record.properties)
    properties[key] = value;
  nlohmann::ordered_json json;
  json["image"] = options.image;
  json["rows"] = info.rows;
  json["columns"] = info.cols;
  json["bitsPerSample"] = info.bitsPerSample;
  json["parameters"] = std::move(parameters);
  json["position"] = record.position;
  json["positionCode"] = record.positionCode;
  json["properties"] = std::move(properties);
  WriteBytes(std::move(target), JsonText(json));
}

int RunSpot(const SpotOptions& options) {
  // Outputs are named before any work, so a clash between them is refused at once.
  OutputFiles outputs;
  outputs.ProtectInput(options.image);
  WriteTarget jsonFile = options.jsonOut.empty() ? WriteTarget() : outputs.Stage(options.jsonOut, "--json");
  WriteTarget pngFile = options.pngOut.empty() ? WriteTarget() : outputs.Stage(options.pngOut, "--png");

  Metrology::Analysis::Core::IntMatrix2D image;
  const TiffStackInfo info = ReadTiffImage(options.image, image);
  if (info.pages > 1) {
    std::fprintf(stderr, "qphase spot: note: %s has %d pages; the first is searched\n", options.image.c_str(),
                 info.pages);
  }
  Jobs::SpotOptions settings;
  settings.centerX = options.center[0];
  settings.centerY = options.center[1];
  settings.radius = options.radius;
  settings.obscuration = options.obscuration;
  settings.restrict = options.restrict;
  settings.saturation = options.saturation;
  settings.maxSaturated = options.maxSaturated;
  Jobs::SpotJob job;
  const Jobs::SpotRecord record = job.Run(image, info.bitsPerSample, settings, options.image);
  ThrowIfFailed(record, "");
  const double saturation = record.saturation;

  std::printf(
      "%s: %d x %d, %d bits; reticle centre (%g, %g), obscuration radius %g, square of interest +-%g, "
      "saturation %g\n",
      options.image.c_str(), info.cols, info.rows, info.bitsPerSample, options.center[0], options.center[1],
      options.obscuration, options.radius, saturation);
  std::printf("position: %s (%s)\n", record.position.c_str(), record.explanation.c_str());
  SpotOverlay overlay;
  for (std::size_t i = 0; i < record.spots.size(); ++i) {
    const Jobs::SpotFound& spot = record.spots[i];
    const std::vector<std::string>& t = spot.text;
    std::printf(
        "spot %zu: centre of mass x %s, y %s; sigma x %s, y %s; bounding box x %s..%s, y %s..%s; %s pixels, "
        "sum %s counts\n",
        i, t[0].c_str(), t[1].c_str(), t[2].c_str(), t[3].c_str(), t[4].c_str(), t[5].c_str(), t[6].c_str(),
        t[7].c_str(), t[8].c_str(), t[9].c_str());
    overlay.spots.push_back({spot.centerOfMassX, spot.centerOfMassY, spot.x0, spot.y0, spot.x1, spot.y1});
  }

  if (jsonFile) WriteJson(std::move(jsonFile), options, info, record);
  if (pngFile) {
    Metrology::Analysis::Core::IntMatrix2D foreground;
    overlay.reticleX = options.center[0];
    overlay.reticleY = options.center[1];
    overlay.obscurationRadius = options.obscuration;
    overlay.halfWidth = options.radius;
    if (record.positionCode == AsdSpotPosition::TooManySaturatedPixels &&
        job.GetDetector().GetForeground(&foreground)) {
      overlay.foreground = &foreground;
      overlay.saturationLevel = static_cast<int>(std::min(saturation, 2147483647.0));
    }
    overlay.label = record.position;
    WritePng(std::move(pngFile), RenderSpotOverlay(image, overlay));
  }
  outputs.Commit();
  return kExitSuccess;
}

std::function<int()> SetupSpot(CLI::App& app) {
  auto options = std::make_shared<SpotOptions>();
  app.add_option("image", options->image,
                 "Camera image: TIFF, 8- or 16-bit grayscale (the first page is used)")
      ->required();
  app.add_option("--center", options->center,
                 "Reticle centre X,Y: column and row in pixels (0,0 = top-left pixel)")
      ->required()
      ->delimiter(',')
      ->expected(2)
      ->check(FiniteNumber());
  app.add_option("--radius", options->radius,
                 "Half-width in pixels of the square around the centre that is searched for the spot")
      ->required()
      ->check(NumberAtLeast(0.0));
  app.add_option("--obscuration", options->obscuration,
                 "Radius in pixels of the central obscuration (pixels within it are not searched)")
      ->required()
      ->check(NumberAtLeast(0.0));
  app.add_option(
         "--restrict", options->restrict,
         "Quadrants that may hold the spot: full, 13 (right-up and left-down) or 24 (left-up and right-down)")
      ->check(OneOf({"full", "13", "24"}, "full, 13 or 24"))
      ->capture_default_str();
  app.add_option(
         "--saturation", options->saturation,
         "Counts at which a pixel counts as saturated (default 250 for 8-bit images, 64250 for 16-bit; "
         "set it above the image's range to count none)")
      ->check(NumberAtLeast(0.0));
  app.add_option("--max-saturated", options->maxSaturated,
                 "Saturated pixels tolerated in the searched area before the spot is refused as clipped")
      // From 2147483640 on, the detector reads an int setting as undefined.
      ->check(WholeNumberFrom(0, 2147483639))
      ->capture_default_str();
  app.add_option("--json", options->jsonOut, "Write the position and every result property as JSON");
  app.add_option(
      "--png", options->pngOut,
      "Write the image with the reticle centre, obscuration, square and each spot's centre and box");
  return [options] { return RunSpot(*options); };
}

[[maybe_unused]] const bool registered =
    RegisterCommand({"spot", "The alignment spot's position relative to a reticle centre", SetupSpot});

}  // namespace

}  // namespace Quarn::Qphase

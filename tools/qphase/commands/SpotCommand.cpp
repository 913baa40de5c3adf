// qphase spot: the alignment spot in a camera image, relative to a reticle centre.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "AlignSpotDetector/AlignSpotDetector.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "JsonText.h"
#include "OutputFiles.h"
#include "SpotOverlay.h"
#include "TiffIO.h"
#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

namespace Alignment = ::Quarn::Metrology::PhaseProcessing::Core::Alignment;
using Alignment::AlignSpotDetector;
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

// The saturation level when none is given: the detector's 250 counts for 8-bit cameras, and the same
// fraction of full scale (250 / 255) for deeper ones, e.g. 64250 for 16 bits.
double DefaultSaturation(int bitsPerSample) {
  if (bitsPerSample <= 8) return 250.0;
  return std::floor(250.0 / 255.0 * (std::ldexp(1.0, bitsPerSample) - 1.0));
}

int Restrictor(const std::string& name) {
  if (name == "13") return Alignment::AsdRegionRestrictor::Quadrants13;
  if (name == "24") return Alignment::AsdRegionRestrictor::Quadrants24;
  return Alignment::AsdRegionRestrictor::Full;
}

// What a position means for the person at the instrument.
std::string Explain(const AsdSpotPosition& position, const SpotOptions& options, double saturation) {
  char text[400];
  switch (position) {
    case AsdSpotPosition::Quadrant1:
      return "one spot, right of and above the reticle centre";
    case AsdSpotPosition::Quadrant2:
      return "one spot, left of and above the reticle centre";
    case AsdSpotPosition::Quadrant3:
      return "one spot, left of and below the reticle centre";
    case AsdSpotPosition::Quadrant4:
      return "one spot, right of and below the reticle centre";
    case AsdSpotPosition::SpotBehindObscuration:
      return "one spot, centred within half the obscuration radius of the reticle centre";
    case AsdSpotPosition::TooManySaturatedPixels:
      std::snprintf(
          text, sizeof text,
          "more than %d pixels of the spot area reach the saturation level %g: the spot is clipped and its "
          "centre of mass unreliable (reduce the exposure, or set --saturation / --max-saturated)",
          options.maxSaturated, saturation);
      return text;
    case AsdSpotPosition::NoSignificantSpot:
      return "no spot: nothing inside the square of interest (outside the obscuration) stands out from the "
             "background enough";
    case AsdSpotPosition::TooManySignificantSpots:
      return "several spots of comparable brightness: no single alignment spot";
    default:
      return "";
  }
}

// The number after `label` in a spot's one-line description ("... Size = 117, ...").
std::string Field(const std::string& description, const std::string& label) {
  const std::size_t at = description.find(label + " = ");
  if (at == std::string::npos) return "?";
  const std::size_t from = at + label.size() + 3;
  return description.substr(from, description.find(',', from) - from);
}

void WriteJson(WriteTarget target, const SpotOptions& options, const TiffStackInfo& info, double saturation,
               const AsdSpotPosition& position, const AlignSpotDetector& detector) {
  // Members in the order written (ordered_json): the image, what was asked, what was found.
  nlohmann::ordered_json parameters;
  parameters["reticleCenterX"] = options.center[0];
  parameters["reticleCenterY"] = options.center[1];
  parameters["interestRegionRadius"] = options.radius;
  parameters["reticleCenterR"] = options.obscuration;
  parameters["regionRestrictor"] = options.restrict;
  parameters["saturationThreshold"] = saturation;
  parameters["maxNumberOfSaturatedPixels"] = options.maxSaturated;
  // The result dictionary as the library keeps it: every value is text.
  nlohmann::ordered_json properties = nlohmann::ordered_json::object();
  for (const std::string& key : detector.GetPropertyKeys())
    properties[key] = detector.GetProperty(key);
  nlohmann::ordered_json json;
  json["image"] = options.image;
  json["rows"] = info.rows;
  json["columns"] = info.cols;
  json["bitsPerSample"] = info.bitsPerSample;
  json["parameters"] = std::move(parameters);
  json["position"] = position.ToString();
  json["positionCode"] = static_cast<int>(position);
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
  const double saturation =
      options.saturation >= 0.0 ? options.saturation : DefaultSaturation(info.bitsPerSample);

  AlignSpotDetector detector;
  detector.Initialize();
  detector.SetReticleCenterX(options.center[0]);
  detector.SetReticleCenterY(options.center[1]);
  detector.SetInterestRegionRadius(options.radius);
  detector.SetReticleCenterR(options.obscuration);
  detector.SetRegionRestrictor(Restrictor(options.restrict));
  detector.SetSaturationThreshold(saturation);
  detector.SetMaxNumberOfSaturatedPixels(options.maxSaturated);
  detector.SetInput(&image);
  const AsdSpotPosition position = detector.DetectSpotPosition();
  if (position == AsdSpotPosition::DetectionFailed) {
    throw NoResultError(
        "detection in " + options.image + " failed: " + detector.GetStatus().GetPrintString() +
        (detector.GetStatus().GetCode() == 4
             ? " (a parameter is undefined: centre, radius and obscuration must be below 1.8e308)"
             : ""));
  }

  // The spots of this run (none when it stopped before finding regions).
  const bool haveSpots =
      position != AsdSpotPosition::TooManySaturatedPixels && position != AsdSpotPosition::NoSignificantSpot;
  const int spotCount = haveSpots ? std::atoi(detector.GetProperty("Regions.Size").c_str()) : 0;

  std::printf(
      "%s: %d x %d, %d bits; reticle centre (%g, %g), obscuration radius %g, square of interest +-%g, "
      "saturation %g\n",
      options.image.c_str(), info.cols, info.rows, info.bitsPerSample, options.center[0], options.center[1],
      options.obscuration, options.radius, saturation);
  std::printf("position: %s (%s)\n", position.ToString(), Explain(position, options, saturation).c_str());
  SpotOverlay overlay;
  for (int i = 0; i < spotCount; ++i) {
    const std::string key = "Region." + std::to_string(i);
    const auto get = [&](const std::string& field) { return detector.GetProperty(key + "." + field); };
    const std::string description = detector.GetProperty(key);
    std::printf(
        "spot %d: centre of mass x %s, y %s; sigma x %s, y %s; bounding box x %s..%s, y %s..%s; %s pixels, "
        "sum %s counts\n",
        i, get("CenterOfMassX").c_str(), get("CenterOfMassY").c_str(), get("SigmaX").c_str(),
        get("SigmaY").c_str(), get("BoundingRect.X0").c_str(), get("BoundingRect.X1").c_str(),
        get("BoundingRect.Y0").c_str(), get("BoundingRect.Y1").c_str(), Field(description, "Size").c_str(),
        Field(description, "Sum").c_str());
    const auto number = [&](const std::string& field) { return std::atof(get(field).c_str()); };
    overlay.spots.push_back({number("CenterOfMassX"), number("CenterOfMassY"), number("BoundingRect.X0"),
                             number("BoundingRect.Y0"), number("BoundingRect.X1"),
                             number("BoundingRect.Y1")});
  }

  if (jsonFile) WriteJson(std::move(jsonFile), options, info, saturation, position, detector);
  if (pngFile) {
    Metrology::Analysis::Core::IntMatrix2D foreground;
    overlay.reticleX = options.center[0];
    overlay.reticleY = options.center[1];
    overlay.obscurationRadius = options.obscuration;
    overlay.halfWidth = options.radius;
    if (position == AsdSpotPosition::TooManySaturatedPixels && detector.GetForeground(&foreground)) {
      overlay.foreground = &foreground;
      overlay.saturationLevel = static_cast<int>(std::min(saturation, 2147483647.0));
    }
    overlay.label = position.ToString();
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

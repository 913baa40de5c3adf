#include "Jobs/SpotJob.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace Quarn::Jobs {

namespace {

namespace Alignment = ::Quarn::Metrology::PhaseProcessing::Core::Alignment;
using Alignment::AsdSpotPosition;

int Restrictor(const std::string& name) {
  if (name == "13") return Alignment::AsdRegionRestrictor::Quadrants13;
  if (name == "24") return Alignment::AsdRegionRestrictor::Quadrants24;
  return Alignment::AsdRegionRestrictor::Full;
}

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
          "more than %d pixels of the spot area reach the saturation level %g: the spot is clipped and "
          "its centre of mass unreliable (reduce the exposure, or set --saturation / --max-saturated)",
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

bool CheckOptions(const SpotOptions& options, JobRecord& record) {
  if (options.restrict != "full" && options.restrict != "13" && options.restrict != "24") {
    return Fail(record, JobOutcome::kBadInput, "--restrict: " + options.restrict + " not in {full,13,24}");
  }
  if (!std::isfinite(options.centerX) || !std::isfinite(options.centerY)) {
    const double bad = std::isfinite(options.centerX) ? options.centerY : options.centerX;
    return Fail(record, JobOutcome::kBadInput,
                "--center: " +
                    std::string(std::isnan(bad) ? "nan"
                                : bad > 0       ? "inf"
                                                : "-inf") +
                    " is not a finite number; a finite number is needed");
  }
  return CheckNumberAtLeast(record, "--radius", options.radius, 0.0) &&
         CheckNumberAtLeast(record, "--obscuration", options.obscuration, 0.0) &&
         (options.saturation < 0.0 || CheckNumberAtLeast(record, "--saturation", options.saturation, 0.0)) &&
         CheckWholeNumberFrom(record, "--max-saturated", options.maxSaturated, 0,
                              std::numeric_limits<int>::max());
}

}  // namespace

double SpotJob::DefaultSaturation(int bitsPerSample) {
  if (bitsPerSample <= 8) return 250.0;
  return std::floor(250.0 / 255.0 * (std::ldexp(1.0, bitsPerSample) - 1.0));
}

SpotRecord SpotJob::Run(Core::IntMatrix2D& image, int bitsPerSample, const SpotOptions& options,
                        const std::string& name) {
  SpotRecord record;
  if (std::isnan(options.saturation)) {
    Fail(record, JobOutcome::kBadInput,
         "--saturation: nan is not a finite number; a number of at least 0 is needed");
    return record;
  }
  if (!CheckOptions(options, record)) return record;
  record.saturation = options.saturation >= 0.0 ? options.saturation : DefaultSaturation(bitsPerSample);

  detector_.Initialize();
  detector_.SetReticleCenterX(options.centerX);
  detector_.SetReticleCenterY(options.centerY);
  detector_.SetInterestRegionRadius(options.radius);
  detector_.SetReticleCenterR(options.obscuration);
  detector_.SetRegionRestrictor(Restrictor(options.restrict));
  detector_.SetSaturationThreshold(record.saturation);
  detector_.SetMaxNumberOfSaturatedPixels(options.maxSaturated);
  detector_.SetInput(&image);
  const auto start = std::chrono::steady_clock::now();
  const AsdSpotPosition position = detector_.DetectSpotPosition();
  record.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  record.position = position.ToString();
  record.positionCode = position;
  if (position == AsdSpotPosition::DetectionFailed) {
    Fail(record, JobOutcome::kNoResult,
         "detection in " + name + " failed: " + detector_.GetStatus().GetPrintString() +
             (detector_.GetStatus().GetCode() == 4
                  ? " (a parameter is undefined: centre, radius and obscuration must be below 1.8e308)"
                  : ""));
    return record;
  }
  record.explanation = Explain(position, options, record.saturation);
  // The spots of this run (none when it stopped before finding regions).
  const bool haveSpots =
      position != AsdSpotPosition::TooManySaturatedPixels && position != AsdSpotPosition::NoSignificantSpot;
  const int spotCount = haveSpots ? std::atoi(detector_.GetProperty("Regions.Size").c_str()) : 0;
  static const char* kFields[] = {"CenterOfMassX",   "CenterOfMassY",   "SigmaX",          "SigmaY",
                                  "BoundingRect.X0", "BoundingRect.X1", "BoundingRect.Y0", "BoundingRect.Y1"};
  for (int i = 0; i < spotCount; ++i) {
    const std::string key = "Region." + std::to_string(i) + ".";
    SpotFound spot;
    for (const char* field : kFields)
      spot.text.push_back(detector_.GetProperty(key + field));
    const std::string description = detector_.GetProperty("Region." + std::to_string(i));
    spot.text.push_back(Field(description, "Size"));
    spot.text.push_back(Field(description, "Sum"));
    double* numbers[] = {&spot.centerOfMassX,
                         &spot.centerOfMassY,
                         &spot.sigmaX,
                         &spot.sigmaY,
                         &spot.x0,
                         &spot.x1,
                         &spot.y0,
                         &spot.y1,
                         &spot.size,
                         &spot.sum};
    for (std::size_t f = 0; f < spot.text.size(); ++f)
      *numbers[f] = std::atof(spot.text[f].c_str());
    record.spots.push_back(std::move(spot));
  }
  for (const std::string& key : detector_.GetPropertyKeys())
    record.properties.emplace_back(key, detector_.GetProperty(key));
  return record;
}

SpotRecord RunSpot(const ArrayView& image, const SpotOptions& options) {
  SpotRecord record;
  Core::IntMatrix2D pixels;
  if (!MakeIntImage(image, 0, pixels, record)) return record;
  SpotJob job;
  return job.Run(pixels, image.type == SampleType::kUInt8 ? 8 : 16, options, image.name);
}

}  // namespace Quarn::Jobs

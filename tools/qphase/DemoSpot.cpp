// Demo section: the alignment spot detector on synthetic camera frames.
//
// An 8-bit camera (background 20 counts with a ramp of 0.02 counts per pixel across it, 1.5 counts
// of read noise) looks at a reticle whose centre is the frame's centre, with an obscuration of 5 %
// of the frame's side and a square of interest of 80 %. Each scene has a known truth: where the
// spot is (its quadrant or the obscuration, or that no single spot can be named) and the spot's
// exact centre, against which the detected centre of mass is measured.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "AlignSpotDetector/AlignSpotDetector.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "Demo.h"
#include "RgbImage.h"
#include "SpotOverlay.h"
#include "Testing/SeededRandom.h"
#include "Testing/SyntheticSpot.h"
#include "TiffIO.h"

namespace Quarn::Qphase {

namespace {

namespace Alignment = ::Quarn::Metrology::PhaseProcessing::Core::Alignment;
using Alignment::AlignSpotDetector;
using Alignment::AsdSpotPosition;

struct SpotDemoScene {
  std::string name;  // the row's label
  std::string file;  // output file stem
  std::vector<Testing::GaussianSpot> spots;
  double saturation = 250.0;  // the detector's saturation threshold
  int expected = AsdSpotPosition::DetectionFailed;
};

void WriteImage(const std::string& path, const Core::IntMatrix2D& image) {
  Core::FrameBuffer frame;
  frame.Allocate(image.GetMatrixWindow(), 1, Core::FrameBuffer::kRes8Bit);
  frame.StoreFrame(0, image.Data());
  WriteTiffStack(path, frame);
}

void RunSpotDemo(DemoContext& context) {
  const int n = context.size;
  const double centre = n / 2.0;
  const double obscuration = 0.05 * n;
  const double halfWidth = 0.4 * n;
  const double s = n / 512.0;  // spot sizes grow with the frame
  const std::vector<SpotDemoScene> scenes = {
      {"ASD spot, noise and ramp",
       "single",
       {{0.62 * n + 0.37, 0.33 * n + 0.81, 4 * s, 3.5 * s, 180}},
       250.0,
       AsdSpotPosition::Quadrant1},
      {"ASD two spots",
       "two",
       {{0.30 * n + 0.2, 0.70 * n + 0.6, 4 * s, 4 * s, 170},
        {0.70 * n + 0.5, 0.72 * n + 0.1, 3 * s, 3 * s, 200}},
       250.0,
       AsdSpotPosition::TooManySignificantSpots},
      {"ASD spot behind obscuration",
       "obscured",
       {{centre + 0.3 * s, centre - 0.2 * s, 0.06 * n, 0.06 * n, 150}},
       250.0,
       AsdSpotPosition::SpotBehindObscuration},
      {"ASD saturated spot",
       "saturated",
       {{0.35 * n + 0.5, 0.30 * n + 0.5, 5 * s, 5 * s, 600}},
       250.0,
       AsdSpotPosition::TooManySaturatedPixels},
      {"ASD saturated, threshold 256",
       "saturated256",
       {{0.35 * n + 0.5, 0.30 * n + 0.5, 5 * s, 5 * s, 600}},
       256.0,
       AsdSpotPosition::Quadrant2},
  };
  for (const SpotDemoScene& scene : scenes) {
    Testing::SpotScene model;
    model.background = 20.0;
    model.gradientX = 0.02 * 512.0 / n;
    model.gradientY = -0.01 * 512.0 / n;
    model.noiseSigma = 1.5;
    model.saturationLevel = 255;
    model.spots = scene.spots;
    Core::IntMatrix2D image(n, n);
    Testing::SeededRandom random(40);
    Testing::FillSpotImage(image, model, &random);

    AlignSpotDetector detector;
    detector.Initialize();
    detector.SetReticleCenterX(centre);
    detector.SetReticleCenterY(centre);
    detector.SetReticleCenterR(obscuration);
    detector.SetInterestRegionRadius(halfWidth);
    detector.SetSaturationThreshold(scene.saturation);
    detector.SetInput(&image);
    detector.DetectSpotPosition();  // warm-up: first touch of the working images
    const auto start = std::chrono::steady_clock::now();
    const AsdSpotPosition position = detector.DetectSpotPosition();
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();

    // Centre-of-mass error: each reported spot against the nearest true spot centre, RMS over the
    // spots; none reported (a saturated or empty frame) leaves no error to give.
    const bool reported = position != AsdSpotPosition::TooManySaturatedPixels &&
                          position != AsdSpotPosition::NoSignificantSpot &&
                          position != AsdSpotPosition::DetectionFailed;
    const int count = reported ? std::atoi(detector.GetProperty("Regions.Size").c_str()) : 0;
    double sumSquares = 0.0;
    long spotPixels = 0;
    SpotOverlay overlay;
    for (int i = 0; i < count; ++i) {
      const std::string key = "Region." + std::to_string(i);
      const auto number = [&](const std::string& field) {
        return std::atof(detector.GetProperty(key + "." + field).c_str());
      };
      const double x = number("CenterOfMassX"), y = number("CenterOfMassY");
      double nearest = std::numeric_limits<double>::infinity();
      for (const Testing::GaussianSpot& truth : scene.spots) {
        nearest = std::min(nearest, std::hypot(x - truth.centerX, y - truth.centerY));
      }
      sumSquares += nearest * nearest;
      overlay.spots.push_back({x, y, number("BoundingRect.X0"), number("BoundingRect.Y0"),
                               number("BoundingRect.X1"), number("BoundingRect.Y1")});
    }
    Core::IntMatrix2D ids;
    if (reported && detector.GetRegionIdMap(&ids)) spotPixels = static_cast<long>(ids.CountValid());

    DemoRow row;
    row.algorithm = scene.name;
    row.rows = row.cols = n;
    row.milliseconds = ms;
    row.rmsError = count > 0 ? std::sqrt(sumSquares / count) : std::numeric_limits<double>::quiet_NaN();
    row.errorUnit = "px";
    row.validFraction = static_cast<double>(spotPixels) / (static_cast<double>(n) * n);
    char note[200];
    std::snprintf(note, sizeof note, "%s (expected %s)%s, %d spot%s; valid = spot pixels",
                  position.ToString(), AsdSpotPosition(scene.expected).ToString(),
                  position == scene.expected ? "" : " MISMATCH", count, count == 1 ? "" : "s");
    row.note = note;
    context.rows.push_back(row);

    overlay.reticleX = overlay.reticleY = centre;
    overlay.obscurationRadius = obscuration;
    overlay.halfWidth = halfWidth;
    overlay.label = position.ToString();
    Core::IntMatrix2D foreground;
    if (position == AsdSpotPosition::TooManySaturatedPixels && detector.GetForeground(&foreground)) {
      overlay.foreground = &foreground;
      overlay.saturationLevel = static_cast<int>(scene.saturation);
    }
    WriteImage(context.OutPath("spot_" + scene.file + ".tif"), image);
    WritePng(context.OutPath("spot_" + scene.file + ".png"), RenderSpotOverlay(image, overlay));
  }
}

[[maybe_unused]] const bool registered = RegisterDemoSection({40, "spot", RunSpotDemo});

}  // namespace

}  // namespace Quarn::Qphase

// Demo section: the alignment spot detector on synthetic camera frames.
//
// An 8-bit camera (background 20 counts with a ramp of 0.02 counts per pixel across it, 1.5 counts
// of read noise) looks at a reticle whose centre is the frame's centre, with an obscuration of 5 %
// of the frame's side and a square of interest of 80 %. Each scene has a known truth: where the
// spot is (its quadrant or the obscuration, or that no single spot can be named) and the spot's
// exact centre, against which the detected centre of mass is measured. A spot behind the
// obscuration is half hidden: the centre of mass of its visible light lies off the spot's centre
// (about 0.9 px at 512, 3.6 px at 2048), so that row measures against the centre of mass of the
// noise-free light over the detector's own spot pixels, and its note gives the offset.
#include <algorithm>
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
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticSpot.h"
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
  bool partlyHidden = false;  // measured against the centre of mass of the visible light
};

// The centre of mass the detector would find without noise: the scene's intensity (background
// included, as the detector weights raw counts) over the pixels of region `id` in the region map.
void NoiseFreeCentre(const Core::IntMatrix2D& ids, int id, const Testing::SpotScene& model, double& x,
                     double& y) {
  double sum = 0.0, sx = 0.0, sy = 0.0;
  for (int r = 0; r < ids.GetRows(); ++r) {
    for (int c = 0; c < ids.GetColumns(); ++c) {
      if (ids(r, c) != id) continue;
      const double px = ids.GetStartCol() + c, py = ids.GetStartRow() + r;
      const double w = model.Intensity(px, py);
      sum += w, sx += w * px, sy += w * py;
    }
  }
  x = sx / sum;
  y = sy / sum;
}

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
  // Spot sizes grow with the frame, but stay a few pixels wide in a small one (the saturated spot must
  // still clip more than the 32 pixels the detector tolerates).
  const double s = std::max(n / 512.0, 0.5);
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
       AsdSpotPosition::SpotBehindObscuration,
       true},
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

    // Centre-of-mass error: each reported spot against the nearest true spot centre (or, for a
    // partly hidden spot, the centre of mass of its visible light), RMS over the spots; none reported
    // (a saturated or empty frame) leaves no error to give. Full precision: the properties' six
    // digits would quantise the error to 0.01 px in a 2048-pixel frame.
    const bool reported = position != AsdSpotPosition::TooManySaturatedPixels &&
                          position != AsdSpotPosition::NoSignificantSpot &&
                          position != AsdSpotPosition::DetectionFailed;
    const std::vector<Alignment::AsdSpotInfo> spots =
        reported ? detector.GetSpots() : std::vector<Alignment::AsdSpotInfo>();
    const int count = static_cast<int>(spots.size());
    Core::IntMatrix2D ids;
    const bool haveIds = reported && detector.GetRegionIdMap(&ids);
    double sumSquares = 0.0, hiddenShift = 0.0;
    SpotOverlay overlay;
    for (const Alignment::AsdSpotInfo& spot : spots) {
      const double x = spot.CenterOfMassX(), y = spot.CenterOfMassY();
      double nearest = std::numeric_limits<double>::infinity();
      if (scene.partlyHidden) {
        double vx = std::numeric_limits<double>::quiet_NaN(), vy = vx;
        if (haveIds) NoiseFreeCentre(ids, spot.GetId(), model, vx, vy);
        nearest = std::hypot(x - vx, y - vy);
        hiddenShift = std::hypot(vx - scene.spots[0].centerX, vy - scene.spots[0].centerY);
      } else {
        for (const Testing::GaussianSpot& truth : scene.spots)
          nearest = std::min(nearest, std::hypot(x - truth.centerX, y - truth.centerY));
      }
      sumSquares += nearest * nearest;
      overlay.spots.push_back({x, y, spot.GetX0(), spot.GetY0(), spot.GetX1(), spot.GetY1()});
    }
    const long spotPixels = haveIds ? static_cast<long>(ids.CountValid()) : 0;

    DemoRow row;
    row.algorithm = scene.name;
    row.rows = row.cols = n;
    row.milliseconds = ms;
    row.rmsError = count > 0 ? std::sqrt(sumSquares / count) : std::numeric_limits<double>::quiet_NaN();
    row.errorUnit = std::isfinite(row.rmsError) ? "px" : "(no spot reported)";
    row.validFraction = static_cast<double>(spotPixels) / (static_cast<double>(n) * n);
    char note[300];
    std::snprintf(note, sizeof note, "%s (expected %s)%s, %d spot%s; valid = spot pixels",
                  position.ToString(), AsdSpotPosition(scene.expected).ToString(),
                  position == scene.expected ? "" : " MISMATCH", count, count == 1 ? "" : "s");
    row.note = note;
    if (scene.partlyHidden && count > 0) {
      std::snprintf(note, sizeof note,
                    "; error against the centre of mass of the visible light, which the hidden core "
                    "moves %.2f px from the spot's centre",
                    hiddenShift);
      row.note += note;
    }
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

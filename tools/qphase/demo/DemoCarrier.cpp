// Demo section: carrier fringes, one frame per measurement.
//
// The scene: a surface of defocus and astigmatism (about 3.5 radians peak to valley) under a
// carrier of 4 pixels per fringe on an 8-bit camera (bias 110, amplitude 80 counts, Gaussian noise
// of 1.5 counts), with a central obscuration that shows 20 counts and no fringes, as a telescope's
// secondary mirror does. The frame is made with the carrier of each quadrant in turn and read with
// that quadrant's kernel; the phase must come back everywhere but in the obscuration and its rim.
//
// Then the four-quadrant evaluation: a surface with a known 45-degree astigmatism (x y) measured in
// every quadrant, each measurement with a lateral shear of 4 pixels along its carrier's diagonal
// (an error that changes sign between opposite quadrants). Q1 + Q3 must cancel the shear, keep the
// astigmatism, measure its PV and ask for four quadrants; all four must give the surface.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <string>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/Units.h"
#include "Demo.h"
#include "MapPreview.h"
#include "Psi/Kinephase/FourQuadrantEvaluator.h"
#include "Psi/Kinephase/KinephaseAlgorithm.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticCarrier.h"
#include "TiffIO.h"

namespace Quarn::Qphase {

namespace {

namespace Kinephase = ::Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase;
namespace Units = Core::Units;

constexpr int kPixelsPerFringe = 4;
constexpr double kWavelengthNm = 632.8;
// 25 % of half the 8-bit range (32 counts): the filter smears the fringe modulation a pixel or two
// into the obscuration, and this keeps the smeared edge out.
constexpr double kThresholdPercent = 25.0;

struct CarrierDemoScene {
  int size;
  double Phase(int r, int c) const {
    const double x = (c - size / 2.0) / size, y = (r - size / 2.0) / size;
    return 2.0 * std::numbers::pi * (0.5 * (x * x + y * y) + 0.35 * x * y) - 0.8;
  }
  bool Obscured(int r, int c) const { return std::hypot(r - size / 2.0, c - size / 2.0) < 0.08 * size; }
  // Pixels at least 8 from the frame edge and from the obscuration, where the filter does not ring.
  bool Interior(int r, int c) const {
    return r >= 8 && c >= 8 && r < size - 8 && c < size - 8 &&
           std::hypot(r - size / 2.0, c - size / 2.0) > 0.08 * size + 8;
  }
};

// RMS of (phase - truth) over the valid pixels the filter accepts, after removing the mean (a
// constant the method cannot know). Differences are wrapped for phase in radians.
struct Error {
  double rms = 0.0, piston = 0.0;
  long valid = 0;
};

template <typename Truth, typename Include>
Error ErrorOf(const Core::DoubleMatrix2D& map, Truth truth, Include include, double wrap) {
  double sum = 0.0, sumSquares = 0.0;
  Error e;
  for (int r = 0; r < map.GetRows(); ++r) {
    for (int c = 0; c < map.GetColumns(); ++c) {
      if (Core::IsNoDataValue(map(r, c)) || !include(r, c)) continue;
      double d = map(r, c) - truth(r, c);
      if (wrap > 0.0) d = std::remainder(d, wrap);
      sum += d;
      sumSquares += d * d;
      ++e.valid;
    }
  }
  if (e.valid == 0) return e;
  e.piston = sum / static_cast<double>(e.valid);
  e.rms = std::sqrt(std::max(0.0, sumSquares / static_cast<double>(e.valid) - e.piston * e.piston));
  return e;
}

void RunCarrierQuadrants(DemoContext& context) {
  const int n = context.size;
  const CarrierDemoScene scene{n};
  for (int quadrant = 1; quadrant <= 4; ++quadrant) {
    Testing::CarrierScene fringes;
    fringes.phase = [&](int r, int c) { return scene.Phase(r, c); };
    fringes.quadrant = quadrant;
    fringes.pixelsPerFringe = kPixelsPerFringe;
    fringes.noiseSigma = 1.5;
    fringes.obscured = [&](int r, int c) { return scene.Obscured(r, c); };
    fringes.obscuredLevel = 20.0;
    Core::FrameBuffer frame;
    frame.Allocate(Core::Window2D(0, 0, n, n), 1, Core::FrameBuffer::kRes8Bit);
    Testing::SeededRandom random(300 + quadrant);
    Testing::FillCarrierFrame(frame, 0, fringes, &random);

    Kinephase::KinephaseAlgorithm kinephase;
    kinephase.SelectKernel(Kinephase::KpKernelSelector(kPixelsPerFringe, quadrant));
    kinephase.SetModulationThreshold(kThresholdPercent);
    Core::DoubleMatrix2D phase, modulation;
    kinephase.SetIntensity(frame, 0);
    kinephase.Process(phase, modulation);  // warm-up: plans, filter, pool threads, first touch of the maps
    const auto start = std::chrono::steady_clock::now();
    kinephase.SetIntensity(frame, 0);
    kinephase.Process(phase, modulation);
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();

    const auto truth = [&](int r, int c) { return scene.Phase(r, c); };
    const Error all = ErrorOf(
        phase, truth, [](int, int) { return true; }, 2.0 * std::numbers::pi);
    const Error interior = ErrorOf(
        phase, truth, [&](int r, int c) { return scene.Interior(r, c); }, 2.0 * std::numbers::pi);
    long keptObscured = 0;
    for (int r = 0; r < n; ++r) {
      for (int c = 0; c < n; ++c)
        keptObscured += scene.Obscured(r, c) && !Core::IsNoDataValue(phase(r, c)) ? 1 : 0;
    }
    DemoRow row;
    row.algorithm = "Kinephase Q" + std::to_string(quadrant) + " (4 px/fringe)";
    row.rows = row.cols = n;
    row.milliseconds = ms;
    row.rmsError = all.rms;
    row.errorUnit = "rad";
    row.validFraction = static_cast<double>(all.valid) / (static_cast<double>(n) * n);
    char note[200];
    const std::string obscuration =
        keptObscured ? std::to_string(keptObscured) + " obscured pixels KEPT" : "obscuration rejected";
    std::snprintf(note, sizeof note, "1 frame, 1.5 counts noise; %.4f rad 8 px inside edges; %s%s",
                  interior.rms, obscuration.c_str(),
                  kinephase.GetStatus().IsOk() ? "" : ", status not clean");
    row.note = note;
    context.rows.push_back(row);

    if (quadrant == 2) {
      WriteTiffStack(context.OutPath("carrier_q2_frame.tif"), frame);
      WriteFloatTiff(context.OutPath("carrier_q2_phase.tif"), phase);
      WritePreviewPng(
          context.OutPath("carrier_q2_phase.png"), phase,
          PreviewStyle{"carrier phase, quadrant 2", "rad", true, -std::numbers::pi, std::numbers::pi});
      WritePreviewPng(context.OutPath("carrier_q2_modulation.png"), modulation,
                      PreviewStyle{"modulation", "counts"});
    }
  }
}

// The shear of quadrant q: the image-plane direction (column, row) of its carrier's lobe.
void ShearOf(int quadrant, double& dc, double& dr) {
  dc = (quadrant == 1 || quadrant == 4) ? 1.0 : -1.0;
  dr = (quadrant == 3 || quadrant == 4) ? 1.0 : -1.0;
}

void RunFourQuadrants(DemoContext& context) {
  const int n = context.size;
  const CarrierDemoScene pupil{n};
  // Heights in nanometres: 45-degree astigmatism of 120 nm PV over the square plus some defocus,
  // within a quarter wave of zero so that no phase wraps.
  const double astigmatismNm = 240.0;
  const auto surface = [n, astigmatismNm](double r, double c) {
    const double x = (c - (n - 1) / 2.0) / n, y = (r - (n - 1) / 2.0) / n;
    return astigmatismNm * x * y + 60.0 * (x * x + y * y) - 10.0;
  };
  const double shearPx = 4.0;
  const double nmPerRadian = kWavelengthNm / (4.0 * std::numbers::pi);
  const Core::LinearConverter nanometres(Units::kNanometers, kWavelengthNm);

  // Errors are taken 8 pixels and more inside the edges, where the single-frame method's ringing
  // (the same in every quadrant) does not hide what the combination does.
  const auto interior = [&](int r, int c) { return pupil.Interior(r, c); };
  Core::DoubleMatrix2D measured[5];
  double milliseconds = 0.0;
  Error singleQuadrant;
  for (int quadrant = 1; quadrant <= 4; ++quadrant) {
    double dc = 0.0, dr = 0.0;
    ShearOf(quadrant, dc, dr);
    Testing::CarrierScene fringes;
    fringes.phase = [&](int r, int c) { return surface(r + shearPx * dr, c + shearPx * dc) / nmPerRadian; };
    fringes.quadrant = quadrant;
    fringes.pixelsPerFringe = kPixelsPerFringe;
    fringes.noiseSigma = 1.5;
    fringes.obscured = [&](int r, int c) { return pupil.Obscured(r, c); };
    fringes.obscuredLevel = 20.0;
    Core::FrameBuffer frame;
    frame.Allocate(Core::Window2D(0, 0, n, n), 1, Core::FrameBuffer::kRes8Bit);
    Testing::SeededRandom random(400 + quadrant);
    Testing::FillCarrierFrame(frame, 0, fringes, &random);
    Kinephase::KinephaseAlgorithm kinephase;
    kinephase.SelectKernel(Kinephase::KpKernelSelector(kPixelsPerFringe, quadrant));
    kinephase.SetModulationThreshold(kThresholdPercent);
    kinephase.SetIntensity(frame, 0);
    // A map in nanometres with the wavelength: the pipeline writes surface height.
    measured[quadrant].GetUnitManager().SetConverter(Core::UnitAxis::kValue, nanometres);
    kinephase.Process(measured[quadrant]);
    if (quadrant == 1) {
      singleQuadrant = ErrorOf(measured[1], surface, interior, 0.0);
    }
  }

  const auto timed = [&](auto&& run) {
    const auto start = std::chrono::steady_clock::now();
    run();
    milliseconds =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  };
  const double x0 = (n - 1) / 2.0;
  const double truePv = astigmatismNm / (static_cast<double>(n) * n) * 2.0 * x0 * x0;

  Core::DoubleMatrix2D final, calibration(n, n);
  calibration.SetAll(Core::DoubleMatrix2D::NoData());  // the evaluation leaves pixels without data alone
  Kinephase::FourQuadrantEvaluator evaluator;
  evaluator.SetMeasurementQ1(&measured[1]);
  evaluator.SetMeasurementQ3(&measured[3]);
  evaluator.SetFinalPhaseMap(&final);
  evaluator.SetCalibrationMap(&calibration);
  bool required = false;
  timed([&] {
    evaluator.EvaluateTwo();
    required = evaluator.AreRequiredFourQuadrants();
  });
  const double pv = evaluator.GetAstigmatismPV().GetValue(Units::kNanometers);
  const Error two = ErrorOf(final, surface, interior, 0.0);
  DemoRow row;
  row.algorithm = "Four-quadrant: Q1 + Q3";
  row.rows = row.cols = n;
  row.milliseconds = milliseconds;
  row.rmsError = two.rms;
  row.errorUnit = "nm";
  row.validFraction = static_cast<double>(final.CountValid()) / (static_cast<double>(n) * n);
  char note[220];
  std::snprintf(note, sizeof note,
                "8 px inside edges; astigmatism PV %.2f nm (truth %.2f), four quadrants %s (tolerance 10 "
                "nm); Q1 alone %.2f nm%s",
                pv, truePv, required ? "required" : "NOT required", singleQuadrant.rms,
                evaluator.GetStatus().IsOk() ? "" : ", status not clean");
  row.note = note;
  context.rows.push_back(row);
  WriteFloatTiff(context.OutPath("quadrants_two_final.tif"), final);
  WritePreviewPng(context.OutPath("quadrants_two_final.png"), final, PreviewStyle{"Q1 + Q3 final", "nm"});
  WritePreviewPng(context.OutPath("quadrants_two_calibration.png"), calibration,
                  PreviewStyle{"(Q1 - Q3) / 2: the shear", "nm", true, -2.0, 2.0});

  evaluator.Clear();
  evaluator.SetMeasurementQ1(&measured[1]);
  evaluator.SetMeasurementQ2(&measured[2]);
  evaluator.SetMeasurementQ3(&measured[3]);
  evaluator.SetMeasurementQ4(&measured[4]);
  evaluator.SetFinalPhaseMap(&final);
  evaluator.SetCalibrationMap(&calibration);
  timed([&] { evaluator.EvaluateFour(); });
  const Error four = ErrorOf(final, surface, interior, 0.0);
  row.algorithm = "Four-quadrant: all four";
  row.milliseconds = milliseconds;
  row.rmsError = four.rms;
  row.validFraction = static_cast<double>(final.CountValid()) / (static_cast<double>(n) * n);
  std::snprintf(note, sizeof note, "8 px inside edges; the 4 px shear of each quadrant cancels%s",
                evaluator.GetStatus().IsOk() ? "" : ", status not clean");
  row.note = note;
  context.rows.push_back(row);
  WriteFloatTiff(context.OutPath("quadrants_four_final.tif"), final);
  WritePreviewPng(context.OutPath("quadrants_four_final.png"), final,
                  PreviewStyle{"four-quadrant final", "nm"});
}

void RunCarrierDemo(DemoContext& context) {
  RunCarrierQuadrants(context);
  RunFourQuadrants(context);
}

[[maybe_unused]] const bool registered = RegisterDemoSection({30, "carrier", RunCarrierDemo});

}  // namespace

}  // namespace Quarn::Qphase

// Demo section: phase-shifting interferometry on a tilted sphere.
//
// The scene: about ten fringes of tilt and defocus on an 8-bit camera (bias 110, amplitude 80
// counts, Gaussian noise of 1.5 counts), a phase shifter that moves 3 % too far, a bright patch
// (bias 230) whose pixels clip at 255 in the frames near their fringe maximum, so that each of them
// has a saturated sample, and a dark rectangle whose fringes are modulated by only 16 counts (below
// the default 15 % of 255). Each algorithm sees the stack its kernel is designed for and must
// return the surface phase everywhere except in the patch and the rectangle.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <string>
#include <vector>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Demo.h"
#include "MapPreview.h"
#include "Psi/Convert13.h"
#include "Psi/Convert20.h"
#include "Psi/Convert7.h"
#include "Psi/ConvertSliding13.h"
#include "Psi/ConverterGenerator.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticPsi.h"
#include "TiffIO.h"

namespace Quarn::Qphase {

namespace {

namespace Psi = ::Quarn::Metrology::PhaseProcessing::Core::Psi;

constexpr double kGainError = 0.03;

struct PsiScene {
  int size;
  double Phase(int r, int c) const {
    const double x = (c - size / 2.0) / size, y = (r - size / 2.0) / size;
    return 2.0 * std::numbers::pi * (6.0 * x + 3.0 * y + 5.0 * (x * x + y * y));
  }
  bool InSaturatedPatch(int r, int c) const {
    const double dx = c - 0.75 * size, dy = r - 0.25 * size;
    return dx * dx + dy * dy < (0.08 * size) * (0.08 * size);
  }
  bool InLowModulationArea(int r, int c) const {
    return r > 0.65 * size && r < 0.85 * size && c > 0.15 * size && c < 0.45 * size;
  }
  Testing::PixelFringe Fringe(int r, int c) const {
    if (InSaturatedPatch(r, c)) return {230.0, 80.0, Phase(r, c)};
    if (InLowModulationArea(r, c)) return {110.0, 8.0, Phase(r, c)};
    return {110.0, 80.0, Phase(r, c)};
  }
};

struct PsiAlgorithm {
  std::string name;
  std::string file;
  Psi::Converter* converter;
  std::vector<double> shifts;
};

void RunPsiDemo(DemoContext& context) {
  const int n = context.size;
  const PsiScene scene{n};
  Psi::Convert7 seven;
  Psi::Convert13 thirteen;
  Psi::Convert20 twenty;
  Psi::ConvertSliding13 sliding;
  const std::vector<PsiAlgorithm> algorithms = {
      {"PSI Convert7", "convert7", &seven, Testing::ShiftsFor7(kGainError)},
      {"PSI Convert13", "convert13", &thirteen, Testing::ShiftsFor13(kGainError)},
      {"PSI Convert20", "convert20", &twenty, Testing::ShiftsFor20(kGainError)},
      {"PSI ConvertSliding13 (24)", "sliding13", &sliding, Testing::ShiftsForSliding13(24, kGainError)},
  };
  for (const PsiAlgorithm& algorithm : algorithms) {
    Core::FrameBuffer frames;
    frames.Allocate(Core::Window2D(0, 0, n, n), static_cast<int>(algorithm.shifts.size()),
                    Core::FrameBuffer::kRes8Bit);
    Testing::SeededRandom random(42);
    Testing::FillPsiStack(
        frames, algorithm.shifts, [&](int r, int c) { return scene.Fringe(r, c); }, 1.5, &random);

    Psi::ConverterGenerator generator;
    generator.SetAlgorithm(algorithm.converter);
    Core::DoubleMatrix2D phase(n, n), modulation(n, n);
    generator.Process(frames, phase, &modulation);  // warm-up: pool threads, first touch of the maps
    const auto start = std::chrono::steady_clock::now();
    generator.Process(frames, phase, &modulation);
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();

    // Error against the truth over the valid pixels: a constant offset (piston) says nothing about the
    // surface and is reported apart; the RMS is that of what remains. Every pixel of the clipped patch
    // and of the weak rectangle should have been rejected.
    double sum = 0.0, sumSquares = 0.0;
    long valid = 0, keptSaturated = 0, keptWeak = 0;
    for (int r = 0; r < n; ++r) {
      for (int c = 0; c < n; ++c) {
        const double p = phase(r, c);
        if (Core::IsNoDataValue(p)) continue;
        ++valid;
        keptSaturated += scene.InSaturatedPatch(r, c) ? 1 : 0;
        keptWeak += scene.InLowModulationArea(r, c) ? 1 : 0;
        const double e = std::remainder(p - scene.Phase(r, c), 2.0 * std::numbers::pi);
        sum += e;
        sumSquares += e * e;
      }
    }
    const double piston = valid > 0 ? sum / static_cast<double>(valid) : 0.0;
    DemoRow row;
    row.algorithm = algorithm.name;
    row.rows = row.cols = n;
    row.milliseconds = ms;
    row.rmsError =
        valid > 0 ? std::sqrt(std::max(0.0, sumSquares / static_cast<double>(valid) - piston * piston)) : 0.0;
    row.errorUnit = "rad";
    row.validFraction = static_cast<double>(valid) / (static_cast<double>(n) * n);
    char note[200];
    std::snprintf(note, sizeof note,
                  "%zu frames, +3%% gain, piston %.3f rad, clipped patch %s, weak area %s%s",
                  algorithm.shifts.size(), piston, keptSaturated ? "KEPT" : "rejected",
                  keptWeak ? "kept (kernel gain grows with frames)" : "rejected",
                  generator.GetStatus().IsOk() ? "" : ", status not clean");
    row.note = note;
    context.rows.push_back(row);

    WriteFloatTiff(context.OutPath("psi_" + algorithm.file + "_phase.tif"), phase);
    WritePreviewPng(
        context.OutPath("psi_" + algorithm.file + "_phase.png"), phase,
        PreviewStyle{"phase " + algorithm.file, "rad", true, -std::numbers::pi, std::numbers::pi});
    if (algorithm.file == "convert13") {
      WriteFloatTiff(context.OutPath("psi_convert13_modulation.tif"), modulation);
      WritePreviewPng(context.OutPath("psi_convert13_modulation.png"), modulation,
                      PreviewStyle{"modulation", "counts"});
      WriteTiffStack(context.OutPath("psi_stack13.tif"), frames);
    }
  }
}

[[maybe_unused]] const bool registered = RegisterDemoSection({10, "psi", RunPsiDemo});

}  // namespace

}  // namespace Quarn::Qphase

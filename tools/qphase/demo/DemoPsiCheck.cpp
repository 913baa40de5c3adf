// Demo section: checking the phase shifter.
//
// The scene: fringes of tilt and defocus on an 8-bit camera (bias 110, amplitude 80 counts,
// Gaussian noise of 1 count), taken by a shifter that moves 5 % too little, exactly right, or 5 %
// too far. The step-value maps of the 7- and 13-frame checks must scatter around 256 cos(step) of
// the true step, and the gain corrections must follow the error in sign and size: positive for a
// shifter that moves too little, zero for a calibrated one, negative for one that moves too far.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <numbers>
#include <string>
#include <vector>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Demo.h"
#include "MapPreview.h"
#include "Psi/Corvane13.h"
#include "Psi/Corvane7.h"
#include "Psi/CorvaneCalculator.h"
#include "Psi/GainCorrectionCalculator.h"
#include "Psi/GainCorrectionPmi.h"
#include "Psi/GainCorrectionSinPsi.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticPsi.h"
#include "TiffIO.h"

namespace Quarn::Qphase {

namespace {

namespace Psi = ::Quarn::Metrology::PhaseProcessing::Core::Psi;

double ScenePhase(int r, int c, int size) {
  const double x = (c - size / 2.0) / size, y = (r - size / 2.0) / size;
  return 2.0 * std::numbers::pi * (5.0 * x - 2.0 * y + 4.0 * (x * x + y * y));
}

Core::FrameBuffer MakeStack(int size, const std::vector<double>& shifts, std::uint64_t seed) {
  Core::FrameBuffer frames;
  frames.Allocate(Core::Window2D(0, 0, size, size), static_cast<int>(shifts.size()),
                  Core::FrameBuffer::kRes8Bit);
  Testing::SeededRandom random(seed);
  Testing::FillPsiStack(
      frames, shifts,
      [&](int r, int c) {
        return Testing::PixelFringe{110.0, 80.0, ScenePhase(r, c, size)};
      },
      1.0, &random);
  return frames;
}

std::string Signed(const char* format, double value) {
  char text[32];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

double GainOf(Psi::GainCorrection& algorithm, Core::FrameBuffer& frames, double* milliseconds = nullptr) {
  Psi::GainCorrectionCalculator calculator;
  calculator.SetAlgorithm(&algorithm);
  calculator.Calculate(frames);  // warm-up: pool threads
  const auto start = std::chrono::steady_clock::now();
  calculator.Calculate(frames);
  if (milliseconds) {
    *milliseconds =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  }
  return calculator.GetStatus().IsOk() ? calculator.GetGainCorrection()
                                       : std::numeric_limits<double>::quiet_NaN();
}

void RunPsiCheckDemo(DemoContext& context) {
  const int n = context.size;
  for (const double error : {-0.05, 0.0, 0.05}) {
    const std::string errorText = Signed("%+.0f%%", 100.0 * error);
    // The checked step: between frames (7) or frame pairs (13), nominally a quarter period.
    const double stepRad = std::numbers::pi / 2 * (1.0 + error);
    const double truth = 256.0 * std::cos(stepRad);

    for (const int frameCount : {7, 13}) {
      Core::FrameBuffer frames = MakeStack(
          n, frameCount == 7 ? Testing::ShiftsFor7(error) : Testing::ShiftsFor13(error), 1500 + frameCount);
      Psi::Corvane7 seven;
      Psi::Corvane13 thirteen;
      Psi::CorvaneCalculator calculator;
      calculator.SetAlgorithm(frameCount == 7 ? static_cast<Psi::CorvaneAlgorithm*>(&seven) : &thirteen);
      Core::DoubleMatrix2D steps(n, n);
      calculator.Calculate(frames, steps);  // warm-up: pool threads, first touch of the map
      const auto start = std::chrono::steady_clock::now();
      calculator.Calculate(frames, steps);
      const double ms =
          std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();

      double sum = 0.0, sumSquares = 0.0;
      long valid = 0;
      for (std::int64_t i = 0; i < steps.GetCount(); ++i) {
        if (Core::IsNoDataValue(steps.At(i))) continue;
        const double e = steps.At(i) - truth;
        sum += steps.At(i);
        sumSquares += e * e;
        ++valid;
      }
      const double mean = valid > 0 ? sum / static_cast<double>(valid) : 0.0;
      Psi::GainCorrectionPmi pmi;
      const double gain = GainOf(pmi, frames);

      DemoRow row;
      row.algorithm = std::string(frameCount == 7 ? "Corvane7" : "Corvane13") + ", shifter " + errorText;
      row.rows = row.cols = n;
      row.milliseconds = ms;
      row.rmsError = valid > 0 ? std::sqrt(sumSquares / static_cast<double>(valid)) : 0.0;
      row.errorUnit = "step";
      row.validFraction = static_cast<double>(valid) / (static_cast<double>(n) * n);
      char note[220];
      std::snprintf(
          note, sizeof note,
          "mean step value %.2f (true %.2f): %.2f deg (true %.2f) between %s; Pmi gain correction %+.4f "
          "(256 cos / 316 = %+.4f)%s",
          mean, truth, std::acos(mean / 256.0) * 180.0 / std::numbers::pi, stepRad * 180.0 / std::numbers::pi,
          frameCount == 7 ? "frames" : "pairs", gain, truth / 316.0,
          calculator.GetStatus().IsOk() ? "" : ", status not clean");
      row.note = note;
      context.rows.push_back(row);

      if (frameCount == 7 && error > 0.0) {
        WriteFloatTiff(context.OutPath("psicheck_corvane7_plus5_step.tif"), steps);
        WritePreviewPng(context.OutPath("psicheck_corvane7_plus5_step.png"), steps,
                        PreviewStyle{"step value, shifter +5 %", "", true, -80.0, 80.0});
      }
    }

    // A sinusoidally driven shifter: 20 frames, the gain estimate only. It has no closed-form
    // truth to compare with, so the error column stays empty; the note shows sign and size.
    Core::FrameBuffer twenty = MakeStack(n, Testing::ShiftsFor20(error), 1520);
    Psi::GainCorrectionSinPsi sinPsi;
    double ms = 0.0;
    const double gain = GainOf(sinPsi, twenty, &ms);
    DemoRow row;
    row.algorithm = "GainSinPsi20, shifter " + errorText;
    row.rows = row.cols = n;
    row.milliseconds = ms;
    row.rmsError = std::numeric_limits<double>::quiet_NaN();
    row.errorUnit = "(no model)";
    row.validFraction =
        static_cast<double>(sinPsi.GetContributingPixelCount()) / (static_cast<double>(n) * n);
    row.note = "20 frames, gain correction " + Signed("%+.4f", gain) + " for a shifter " +
               (error == 0.0 ? "without error" : errorText + " off");
    context.rows.push_back(row);
  }
}

[[maybe_unused]] const bool registered = RegisterDemoSection({15, "psi-check", RunPsiCheckDemo});

}  // namespace

}  // namespace Quarn::Qphase

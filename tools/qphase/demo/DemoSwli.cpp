// Demo section: white-light scanning interferometry of a step next to a sphere.
//
// The scene: a 400 nm step (a raised rectangle on the left) next to a gentle spherical cap 1.2 um
// high (on the right), scanned through 128 frames of 80 nm with light of 600 nm centre wavelength
// and 100 nm bandwidth (fringes of 300 nm under a coherence envelope 1.6 um wide), on an 8-bit
// camera: bias 100, fringe amplitude 60 counts, Gaussian noise of 1.5 counts. The tool's coherence
// discriminator finds each pixel's peak frame; the centroid and the frequency-domain analysis
// evaluate the scan, and their heights are compared with the surface.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/Threading/CpuCounter.h"
#include "Analysis/Core/UnitNumber.h"
#include "Demo.h"
#include "MapPreview.h"
#include "Swli/CoherenceDiscriminator.h"
#include "Swli/PhaseAlgorithmCentroid.h"
#include "Swli/PhaseAlgorithmFda.h"
#include "Swli/PhaseGenerator.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticScan.h"
#include "TiffIO.h"

namespace Quarn::Qphase {

namespace {

namespace Swli = ::Quarn::Metrology::PhaseProcessing::Core::Swli;

constexpr double kStepNm = 80.0;
constexpr int kFrames = 128;

struct SwliScene {
  int size;
  // The base plane sits at frame 60 of the scan; the cap rises to frame 75, the step to frame 65.
  double Height(int r, int c) const {
    const double base = 60.0 * kStepNm;
    if (c < size / 2) {
      const bool raised = r >= size / 4 && r < 3 * size / 4 && c >= size / 8 && c < 3 * size / 8;
      return base + (raised ? 400.0 : 0.0);
    }
    const double dx = c - 0.75 * size, dy = r - 0.5 * size, radius = 0.22 * size;
    const double d2 = (dx * dx + dy * dy) / (radius * radius);
    return base + (d2 < 1.0 ? 1200.0 * (1.0 - d2) : 0.0);
  }
};

void RunSwliDemo(DemoContext& context) {
  const int n = context.size;
  const SwliScene scene{n};
  Testing::ScanSettings settings;
  settings.rows = settings.cols = n;
  settings.framesScanned = kFrames;
  settings.scanStepNm = kStepNm;
  settings.light = Testing::ScanLight{600.0, 100.0};
  settings.biasCounts = 100.0;
  settings.modulationCounts = 60.0;
  settings.noiseSigmaCounts = 1.5;
  Testing::SeededRandom random(44);
  Core::FrameBuffer frames;
  Testing::MakeSyntheticScan(
      frames, settings, [&](int r, int c) { return scene.Height(r, c); }, &random);

  const int threads = Core::Threading::CpuCounter::Instance().GetNumberOfProcessors();
  Core::IntMatrix2D peaks, auxiliary(n, n);
  Swli::FindPeakFrames(frames, peaks, threads);
  auxiliary.SetAll(0);

  Core::DoubleMatrix2D truth(n, n);
  for (int r = 0; r < n; ++r) {
    for (int c = 0; c < n; ++c)
      truth(r, c) = scene.Height(r, c);
  }
  WriteFloatTiff(context.OutPath("swli_truth.tif"), truth);
  WritePreviewPng(context.OutPath("swli_truth.png"), truth, PreviewStyle{"true surface", "nm"});

  Swli::PhaseAlgorithmCentroid centroid;
  Swli::PhaseAlgorithmFda fda;
  struct Run {
    const char* name;
    const char* file;
    Swli::PhaseAlgorithm* algorithm;
  };
  for (const Run& run : {Run{"SWLI centroid", "centroid", &centroid}, Run{"SWLI FDA", "fda", &fda}}) {
    run.algorithm->SetScanIncrement(
        Core::UnitNumber(kStepNm, Core::LinearConverter(Core::Units::kNanometers)));
    Swli::PhaseGenerator generator(run.algorithm);
    generator.SetAllowMultiThreads(true);
    Core::DoubleMatrix2D height(n, n);
    height.SetAll(0.0);
    generator.SetMaxNumThreads(threads);
    generator.Process(frames, peaks, auxiliary, height);  // warm-up: pool threads, first touch of the maps
    height.SetAll(0.0);
    generator.SetMaxNumThreads(threads);
    const auto start = std::chrono::steady_clock::now();
    generator.Process(frames, peaks, auxiliary, height);
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();

    // Error against the truth over the valid pixels; the constant part (piston) is reported apart,
    // since the centroid counts scan positions from one and sits a step above by design.
    double sum = 0.0, sumSquares = 0.0;
    long valid = 0;
    Core::DoubleMatrix2D error(n, n);
    for (std::int64_t i = 0; i < height.GetCount(); ++i) {
      error.At(i) = Core::DoubleMatrix2D::NoData();
      if (!Core::DoubleMatrix2D::IsDataValid(height.At(i))) continue;
      const double e = height.At(i) - truth.At(i);
      error.At(i) = e;
      sum += e;
      sumSquares += e * e;
      ++valid;
    }
    const double piston = valid > 0 ? sum / static_cast<double>(valid) : 0.0;
    DemoRow row;
    row.algorithm = run.name;
    row.rows = row.cols = n;
    row.milliseconds = ms;
    row.rmsError =
        valid > 0 ? std::sqrt(std::max(0.0, sumSquares / static_cast<double>(valid) - piston * piston)) : 0.0;
    row.errorUnit = "nm";
    row.validFraction = static_cast<double>(valid) / (static_cast<double>(n) * n);
    char note[200];
    if (run.algorithm == &fda) {
      std::snprintf(note, sizeof note, "%d frames of 80 nm, piston %.2f nm, lambda_eq %.1f nm, gap %.2f nm%s",
                    kFrames, piston, fda.GetWaveLength(), fda.GetAverageGap(),
                    generator.GetStatus().IsOk() ? "" : ", status not clean");
    } else {
      std::snprintf(note, sizeof note, "%d frames of 80 nm, piston %.1f nm (one step by convention)%s",
                    kFrames, piston, generator.GetStatus().IsOk() ? "" : ", status not clean");
    }
    row.note = note;
    context.rows.push_back(row);

    const std::string stem = std::string("swli_") + run.file;
    WriteFloatTiff(context.OutPath(stem + "_height.tif"), height);
    WritePreviewPng(context.OutPath(stem + "_height.png"), height,
                    PreviewStyle{std::string(run.file) + " height", "nm"});
    WritePreviewPng(context.OutPath(stem + "_error.png"), error,
                    PreviewStyle{std::string(run.file) + " error", "nm"});
  }
}

[[maybe_unused]] const bool registered = RegisterDemoSection({20, "swli", RunSwliDemo});

}  // namespace

}  // namespace Quarn::Qphase

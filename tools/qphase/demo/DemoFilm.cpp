// Demo section: model-based analysis of a transparent film.
//
// The scene: SiO2 on crystalline Si whose thickness grows across the image from 0.1 to 2 µm (left to
// right) under a tilted top surface (about six frames from corner to corner), scanned through 128
// frames of 80 nm with the example source (10.47 rad/µm centre, 1.2 rad/µm width) at NA 0.2, on a
// 16-bit camera with Gaussian noise of 1 % of each pixel's fringe amplitude. The scan is
// synthesised from the generator's spectra of each column's thickness; the library (0.05 to 2.5 µm
// by 2 nm, 1,226 signals) is searched with the Linear and the Fast search. Rows: thickness RMS
// error from 0.3 µm, with the height RMS error from 0.3 µm and the thickness RMS error near 0.1 µm
// in the note.
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <string>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/Threading/CpuCounter.h"
#include "Demo.h"
#include "MapPreview.h"
#include "SwliMba/LibDef/Library.h"
#include "SwliMba/LibDef/LibraryJson.h"
#include "SwliMba/LibGen/LibraryGenerator.h"
#include "SwliMba/Search/LibrarySearch.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticFilm.h"
#include "TiffIO.h"

namespace Quarn::Qphase {

namespace {

namespace LibDef = ::Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef;
namespace LibGen = ::Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen;
namespace Search = ::Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search;

constexpr double kStepNm = 80.0;
constexpr int kFrames = 128;

std::string Stack(double fromUm, double toUm, double stepUm) {
  char vary[160];
  std::snprintf(vary, sizeof vary,
                R"([{"layer": 0, "kind": "Thickness", "from_um": %.9g, "to_um": %.9g, "step_um": %.9g}])",
                fromUm, toUm, stepUm);
  return std::string(
             R"({"materials": {"SiO2": {"model": "Complex-Cauchy/um", "parameters": [1.4485, 0.00354, 0, 0, 0, 0]}},
 "ambient": "Air", "layers": [{"material": "SiO2", "thickness_um": 1.0}], "substrate": "Si",
 "source": [{"amplitude": 1.0, "centre_rad_per_um": 10.47, "width_rad_per_um": 1.2}],
 "numerical_aperture": 0.2, "vary": )") +
         vary + "}";
}

// The generator's spectra of a stack; false (with the reason printed) when it fails.
bool Generate(const std::string& stack, Core::DoubleMatrix2D& matrix,
              Core::Array<std::complex<double>>* mirror) {
  LibDef::Library library;
  LibDef::LibraryJson reader;
  LibGen::LibraryGenerator generator;
  if (!reader.Read(stack, library)) {
    std::printf("film demo: %s\n", reader.GetStatus().GetPrintString().c_str());
    return false;
  }
  library.GetSpecifications().SetNumberOfSamples(kFrames);
  library.GetSpecifications().GetRampSlope().SetValue(kStepNm);
  if (!generator.Generate(library)) {
    std::printf("film demo: %s\n", generator.GetStatus().GetPrintString().c_str());
    return false;
  }
  library.GetSpectra().GetAsDoubleMatrix2D(matrix);
  if (mirror) *mirror = library.GetSpectra().GetPerfectMirrorSpectrum();
  return true;
}

void RunFilmDemo(DemoContext& context) {
  const int n = context.size;
  auto thicknessUm = [n](int c) { return 0.1 + 1.9 * c / (n - 1); };
  auto heightFrames = [n](int r, int c) { return -3.0 + 6.0 * (r + c) / (2.0 * (n - 1)); };

  Core::DoubleMatrix2D columns, library;
  Core::Array<std::complex<double>> mirror;
  const double columnStep = 1.9 / (n - 1);
  if (!Generate(Stack(0.1, 0.1 + columnStep * (n - 1.5), columnStep), columns, nullptr) ||
      !Generate(Stack(0.05, 2.5, 0.002), library, &mirror))
    return;
  Testing::SeededRandom random(14);
  Core::FrameBuffer frames;
  Testing::RecordScanFromSpectra(
      columns, n, n, [](int, int c) { return c; }, heightFrames, 20000.0, 20000.0, 0.01, &random, frames);

  Core::DoubleMatrix2D truth(n, n);
  for (int r = 0; r < n; ++r)
    for (int c = 0; c < n; ++c)
      truth(r, c) = 1000.0 * thicknessUm(c);
  WritePreviewPng(context.OutPath("film_truth_thickness.png"), truth, PreviewStyle{"true thickness", "nm"});

  Core::DoubleMatrix2D linearSignal;
  for (const char* mode : {"Linear", "Fast"}) {
    Search::LibrarySearch search;
    search.SetSearchMode(mode);
    search.SetAllowMultiThreads(true);
    search.SetNumberOfThreads(Core::Threading::CpuCounter::Instance().GetNumberOfProcessors());
    search.SetPerfectMirrorSignal(mirror);
    search.SetLibrary(library, 0.05, 0.002, 0);
    search.SetFrameBuffer(frames);
    Core::DoubleMatrix2D height, thickness, signal;
    search.SetHeightMap(&height);
    search.SetThicknessMap(&thickness);
    search.SetBestSignalIdMap(&signal);
    const auto start = std::chrono::steady_clock::now();
    search.Execute();
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();

    double thickSq = 0.0, heightSq = 0.0, thinSq = 0.0;
    long thick = 0, thin = 0, valid = 0, same = 0;
    for (int r = 0; r < n; ++r) {
      for (int c = 0; c < n; ++c) {
        if (!Core::DoubleMatrix2D::IsDataValid(thickness(r, c))) continue;
        ++valid;
        const double dt = 1000.0 * (thickness(r, c) - thicknessUm(c));
        const double dh = (height(r, c) - heightFrames(r, c)) * kStepNm;
        thickness(r, c) *= 1000.0;
        if (thicknessUm(c) >= 0.3) {
          thickSq += dt * dt;
          heightSq += dh * dh;
          ++thick;
        } else if (thicknessUm(c) < 0.15) {
          thinSq += dt * dt;
          ++thin;
        }
        if (linearSignal.GetCount() == signal.GetCount() && linearSignal(r, c) == signal(r, c)) ++same;
      }
    }
    DemoRow row;
    row.algorithm = std::string("Film ") + mode;
    row.rows = row.cols = n;
    row.milliseconds = ms;
    row.rmsError = thick > 0 ? std::sqrt(thickSq / thick) : NAN;
    row.errorUnit = "nm";
    row.validFraction = static_cast<double>(valid) / (static_cast<double>(n) * n);
    char note[240];
    std::snprintf(note, sizeof note,
                  "thickness RMS from 0.3 um; height RMS %.2f nm (from 0.3 um), thickness RMS %.2f nm at "
                  "0.1-0.15 um%s%s",
                  thick > 0 ? std::sqrt(heightSq / thick) : NAN, thin > 0 ? std::sqrt(thinSq / thin) : NAN,
                  linearSignal.GetCount() == signal.GetCount() ? ", same signal as Linear: " : "",
                  linearSignal.GetCount() == signal.GetCount()
                      ? (std::to_string(100.0 * same / std::max(valid, 1L)).substr(0, 5) + " %").c_str()
                      : "");
    if (search.GetStatus().IsError())
      std::snprintf(note, sizeof note, "%s", search.GetStatus().GetPrintString().c_str());
    row.note = note;
    context.rows.push_back(row);
    if (std::string(mode) == "Linear") linearSignal = signal;
    const std::string stem = std::string("film_") + (std::string(mode) == "Linear" ? "linear" : "fast");
    WriteFloatTiff(context.OutPath(stem + "_thickness.tif"), thickness);
    WritePreviewPng(context.OutPath(stem + "_thickness.png"), thickness,
                    PreviewStyle{std::string(mode) + " thickness", "nm"});
  }
}

[[maybe_unused]] const bool registered = RegisterDemoSection({60, "film", RunFilmDemo});

}  // namespace

}  // namespace Quarn::Qphase

#pragma once

#include <atomic>
#include <complex>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Jobs/JobData.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {
class Library;
}

namespace Quarn::Jobs {

namespace LibDef = ::Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef;

// A varied parameter of a film library: its kind ("Thickness", ... "Undefined" for an unused
// variable 2, with one value), the layer it belongs to, its first value, step and number of values,
// in the library's units (micrometres for a thickness).
struct FilmVariable {
  std::string kind = "Undefined";
  int layer = 0;
  double from = 0.0;
  double step = 0.0;
  int count = 1;
};

// What a generated film library was computed for besides its matrix (one row per modelled signal,
// real and imaginary parts of bin j in columns 2j and 2j + 1): the scan's sampling, the bins inside
// the light source's band, the perfect-mirror spectrum and the varied variables. Signal s has
// variable 1 at index s / count2 and variable 2 at index s % count2.
struct FilmLibraryInfo {
  int samples = 0;
  double scanStepNm = 0.0;
  int firstValidBin = 0;
  int lastValidBin = 0;
  std::vector<std::complex<double>> perfectMirror;
  FilmVariable variable1, variable2;
};

// Film options, with the tool's defaults.
struct FilmOptions {
  double scanStepNm = 0.0;            // required: the distance the scan moves between frames
  std::string search = "fast";        // "linear" (every signal), "fast" (coarse to fine) or "magonly"
  double minModulation = 5.0;         // percent of each pixel's mean level
  double correlationThreshold = 0.0;  // pixels whose merit is below this get no result
  bool reverse = false;               // frame k was taken at (frames - k) x the scan step
  int maxValue = 0;                   // saturation level (0: the sample type's maximum)
  int threads = -1;                   // -1: all processors; 0 or 1: the calling thread only
  // Progress of the search: called by the worker that finished a row, with the rows finished so
  // far and the rows of the scan. Several workers call it at once: it must be thread-safe and quick.
  std::function<void(int done, int rows)> progress;
};

struct FilmRecord : JobRecord {
  int frames = 0;
  int signals = 0;             // library signals searched
  std::string variable1Kind;   // "Thickness", ...
  bool variable1InNm = false;  // a thickness, given in nanometres in the maps
  double meanVariable1 = 0.0;  // over the valid pixels, in the map's unit
  std::string variable2Kind;   // "Undefined" for a one-dimensional library
  int maxValue = 0;
};

// The number of samples of a library for a scan of `frames` frames: the next multiple of four (the
// library's spectra then have an odd number of bins); frames beyond the scan's end count as zero
// fringe signal.
QUARN_PP_EXPORT int FilmLibrarySamples(int frames);

// Generates the library of a film-stack definition for a scan of `samples` frames of `scanStepNm`
// (the definition's sampling is set to it, its spectra generated: the host's definition changes).
// Failures name the definition by `name` in the tool's words (bad input).
QUARN_PP_EXPORT bool GenerateFilmLibrary(LibDef::Library& definition, const std::string& name, int samples,
                                         double scanStepNm, Core::DoubleMatrix2D& matrix,
                                         FilmLibraryInfo& info, JobRecord& record);
// The same from a film-stack description (STACK.json text).
QUARN_PP_EXPORT bool GenerateFilmLibrary(const std::string& stackJson, const std::string& name, int samples,
                                         double scanStepNm, Core::DoubleMatrix2D& matrix,
                                         FilmLibraryInfo& info, JobRecord& record);
// A library computed for another sampling, resampled to `samples` frames of `scanStepNm` in place
// (nothing happens when it already has that sampling).
QUARN_PP_EXPORT bool ResampleFilmLibrary(Core::DoubleMatrix2D& matrix, FilmLibraryInfo& info,
                                         const std::string& name, int samples, double scanStepNm,
                                         JobRecord& record);

// Library spectra are plain transforms of samples 0 … N-1 at ζ_j = (j - N/2)·step. Resampling
// between samplings interpolates across bins, which needs spectra referred to ζ = 0 (the middle
// sample): bin m times (-1)^m converts one into the other, both ways.
QUARN_PP_EXPORT void ToggleSpectrumOrigin(Core::DoubleMatrix2D& matrix);

// FilmJob
//
// A white-light scan of a transparent film matched pixel by pixel against the model library of its
// film stack (the library search): the height of the zero-height layer's top in nanometres along the
// scan (frame k of a forward scan at k x the scan step, as for the white-light heights), the values
// of the varied parameters at the best match (variable 1: "thickness", nanometres for a thickness;
// variable 2, NaN for a one-dimensional library) and the merit (normalised correlation with the
// matched signal, 0 .. 1). Pixels whose fringes are modulated less than `minModulation` percent of
// their mean level, whose merit is below the threshold or with a sample at the saturation level get
// no result. A scan needs at least 8 frames; the library is generated (or resampled) for
// `FilmLibrarySamples(frames)` samples of the scan step.
class QUARN_PP_EXPORT FilmJob {
 public:
  // Checks the options and the scan's frame count (in the tool's order: before any library is read).
  static bool CheckScan(const Core::FrameBuffer& frames, const FilmOptions& options, const std::string& name,
                        JobRecord& record);
  // With a library already computed for this scan's sampling (`FilmLibrarySamples`, the scan step).
  FilmRecord Run(Core::FrameBuffer& frames, const Core::DoubleMatrix2D& library, const FilmLibraryInfo& info,
                 const FilmOptions& options, const std::string& name);
  // With the library generated from a definition or from STACK.json text named `stackName`.
  FilmRecord Run(Core::FrameBuffer& frames, LibDef::Library& definition, const std::string& stackName,
                 const FilmOptions& options, const std::string& name);
  FilmRecord Run(Core::FrameBuffer& frames, const std::string& stackJson, const std::string& stackName,
                 const FilmOptions& options, const std::string& name);

  const Core::DoubleMatrix2D& GetHeight() const { return height_; }
  const Core::DoubleMatrix2D& GetThickness() const { return thickness_; }
  const Core::DoubleMatrix2D& GetVariable2() const { return variable2_; }
  const Core::DoubleMatrix2D& GetMerit() const { return merit_; }
  Core::DoubleMatrix2D TakeHeight() { return std::move(height_); }
  Core::DoubleMatrix2D TakeThickness() { return std::move(thickness_); }
  Core::DoubleMatrix2D TakeVariable2() { return std::move(variable2_); }
  Core::DoubleMatrix2D TakeMerit() { return std::move(merit_); }
  // Rows the running search has finished (readable from another thread while Run works).
  int GetRowsDone() const { return rowsDone_.load(std::memory_order_relaxed); }

 private:
  Core::DoubleMatrix2D height_, thickness_, variable2_, merit_, signal_;
  Core::DoubleMatrix2D library_;  // generated or resampled for the run
  std::atomic<int> rowsDone_{0};
};

// The job on a host array (frames x rows x columns) with the library generated from STACK.json text
// named `stackName`; the maps that are not empty are filled (NaN: no result).
QUARN_PP_EXPORT FilmRecord RunFilm(const ArrayView& scan, const std::string& stackJson,
                                   const std::string& stackName, const FilmOptions& options,
                                   const MapView& height, const MapView& thickness = {},
                                   const MapView& variable2 = {}, const MapView& merit = {});

}  // namespace Quarn::Jobs

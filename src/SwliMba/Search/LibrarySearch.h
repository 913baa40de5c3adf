#pragma once

#include <complex>
#include <functional>
#include <string>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"
#include "SwliMba/Search/LsBoard.h"
#include "SwliMba/Search/LsController.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

// LibrarySearch
//
// Matches the white-light scan signal of every pixel of a frame buffer against libraries of
// modelled spectra and writes per-pixel maps: height, thickness (variable 1), merit, confidence,
// modulation, best library id and best signal id. A library arrives as a matrix, one signal per
// row with its spectrum's bins interleaved real/imaginary (the layout of
// `Spectra::GetAsDoubleMatrix2D`), plus three numbers (see LsLibrary): the value of variable 1 at
// signal 0, its step, and the number of values of variable 2 (signals ordered with variable 2
// fastest; 0 or 1 for a one-dimensional library).
//
// Conventions: heights are in frames, positive up (towards later frames for scan direction +1;
// the trace is reversed for -1), zero where the library's own height zero sits (the middle frame
// of its scan). Signals equal to a library signal shifted by a whole number of frames give that
// library, that signal and that shift. Merit is a normalised correlation in [0, 1]; modulation is
// the fringe contrast in percent of the pixel's mean level. No-data pixels hold the largest finite
// double. A pixel with a sample at the frame buffer's saturation level (`GetMaxValue`; the host
// sets it with `FrameBuffer::SetMaxValue` before `Execute`, e.g. 4095 for a 12-bit camera in 16-bit
// frames) is clipped and gets no-data in every map, modulation included. How the three search modes work is
// described in LsPixelProcessor.
//
//   LibrarySearch search;
//   search.SetPerfectMirrorSignal(mirror);
//   search.SetLibrary(library, 0.05, 0.002, 0);   // thickness 0.05 µm + 0.002 µm per signal
//   search.SetFrameBuffer(frames);
//   search.SetHeightMap(&height);
//   search.SetThicknessMap(&thickness);
//   search.Execute();
//   if (search.GetStatus().IsError()) ...
//
// Failures are recorded in the status (codes 20, 21, 22, 6, 3, 2 as the messages say) and stop
// the operation; no exception leaves the class.
class QUARN_PP_EXPORT LibrarySearch {
 public:
  static constexpr const char* kSource = "SwliMba\\Search\\LibrarySearch";

  LibrarySearch();
  LibrarySearch(const LibrarySearch&) = delete;
  LibrarySearch& operator=(const LibrarySearch&) = delete;
  virtual ~LibrarySearch();

  bool GetAllowMultiThreads() const { return board_.allowMultiThreads; }
  void SetAllowMultiThreads(bool allow) { board_.allowMultiThreads = allow; }
  // Workers used when multi-threading is allowed (-1: one per processor).
  int GetNumberOfThreads() const { return board_.numberOfThreads; }
  void SetNumberOfThreads(int n) { board_.numberOfThreads = n; }
  bool GetUseFullCorrelation() const { return board_.useFullCorrelation; }
  void SetUseFullCorrelation(bool use) { board_.useFullCorrelation = use; }
  bool GetUseAggressiveExclusion() const { return board_.useAggressiveExclusion; }
  void SetUseAggressiveExclusion(bool use) { board_.useAggressiveExclusion = use; }
  int GetScanDirection() const { return board_.scanDirection; }
  void SetScanDirection(int direction) { board_.scanDirection = direction; }
  double GetCorrelationThreshold() const { return board_.correlationThreshold; }
  void SetCorrelationThreshold(double threshold);
  double GetModulationThreshold() const { return board_.modulationThreshold; }
  void SetModulationThreshold(double percent);
  std::string GetSearchMode() const;
  void SetSearchMode(const std::string& mode);
  std::string GetProperty(const std::string& key) const;
  void SetProperty(const std::string& key, const std::string& value);

  // Called with each row's index by the worker that finished it, in Execute and
  // CalculateModulationOnly: a host's progress counter. Workers call it concurrently, so it must be
  // thread-safe, and quick (it runs between rows). An empty function removes it.
  void SetRowDoneCallback(std::function<void(int row)> callback) { board_.rowDone = std::move(callback); }
  void SetFrameBuffer(Analysis::Core::FrameBuffer& frames) { board_.frameBuffer = &frames; }
  void SetSearchRegions(Analysis::Core::RegionIdMatrix2D* regions) { board_.searchRegions = regions; }
  void SetHeightMap(Analysis::Core::DoubleMatrix2D* map) { board_.heightMap = map; }
  void SetThicknessMap(Analysis::Core::DoubleMatrix2D* map) { board_.thicknessMap = map; }
  void SetMetricMap(Analysis::Core::DoubleMatrix2D* map) { board_.metricMap = map; }
  void SetConfidenceMap(Analysis::Core::DoubleMatrix2D* map) { board_.confidenceMap = map; }
  void SetModulationMap(Analysis::Core::DoubleMatrix2D* map) { board_.modulationMap = map; }
  void SetBestLibraryIdMap(Analysis::Core::DoubleMatrix2D* map) { board_.bestLibraryIdMap = map; }
  void SetBestSignalIdMap(Analysis::Core::DoubleMatrix2D* map) { board_.bestSignalIdMap = map; }
  void SetPerfectMirrorSignal(Analysis::Core::Array<std::complex<double>>& signal);

  void SetLibrary(Analysis::Core::DoubleMatrix2D& matrix, double a, double b, double c);
  void AddLibrary(Analysis::Core::DoubleMatrix2D& matrix, double a, double b, double c);
  void RemoveLibrary(int id);
  void ClearLibraries() { board_.libraries.Clear(); }
  int GetNumberOfLibraries() const { return board_.libraries.Size(); }

  void AddRegionAssociation(int regionId, int libraryId) {
    board_.regionAssociations.Add(regionId, libraryId);
  }
  void ClearRegionAssociations() { board_.regionAssociations.Clear(); }

  void Execute();
  void CalculateModulationOnly();
  void ProcessSinglePixel(int row, int column);

  // The spectrum of one library signal (diagnostics).
  void GetLibrarySignal(int ilib, int isignal, Analysis::Core::Array<std::complex<double>>& out);

  const Analysis::Core::Status& GetStatus() const { return board_.status; }

 private:
  void Fail(unsigned code, unsigned line, const std::string& message);
  bool Admissible(const Analysis::Core::DoubleMatrix2D& matrix);
  void Add(Analysis::Core::DoubleMatrix2D& matrix, double a, double b, double c, bool replace);

  LsBoard board_;
  LsController controller_{board_};
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search

#pragma once

#include <complex>
#include <functional>
#include <string>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/Point3DArray.h"
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

  // Diagnostics
  //
  // Each runs one step of the search for one library signal or one pixel (row and column within
  // the frame-buffer window) and leaves its results in the board's scratch arrays, 4 real and 4
  // complex ones, read with GetDoubleArray / GetComplexArray (index 0 … 3). B is the library's bin
  // count, N = 2B - 2 its samples, S its number of signals, ω_j = 2πj/N rad per frame; heights
  // and shifts are in frames, positive up as in the height map. A pixel step prepares the search
  // as Execute does and fails as it does.
  //
  // GetLibrarySignal: complex 0 = the signal's B bins.
  void GetLibrarySignal(int ilib, int isignal);
  // GetShiftedLibrarySignal: the signal of a surface `shift` frames higher. Complex 0 = its bins
  // L_j exp(-i ω_j shift); double 0 = the N-sample trace they transform back to (the library
  // signal's trace moved `shift` frames along the scan, circularly).
  void GetShiftedLibrarySignal(int ilib, int isignal, double shift);
  // GetLibraryBinTrace: complex 0 = bin `ibin` of every signal (S values); double 0 = the value of
  // variable 1 at each signal, a + b · (signal / values of variable 2).
  void GetLibraryBinTrace(int ilib, int ibin);
  // SignalComparison (row, column): the candidate stage against the pixel's library, the one
  // Execute matches it against: its search region's when region associations are set, else the
  // first. Complex 0 = the pixel's spectrum (B bins); double 0 = the shift-invariant score of
  // every signal of that library, in [0, 1]. A pixel outside every search region has no library
  // ("Call to GetLibrary failed"); a region without an association, or tied to a library since
  // removed, fails as Execute does.
  void SignalComparison(int row, int column);
  // SignalComparison (row, column, ilib, isignal): the fit stage against one signal. Double 0 =
  // {merit, height, gain}; complex 0 = the pixel's spectrum; complex 1 = the fitted signal
  // gain · L_j exp(-i ω_j height) in the band of the perfect-mirror signal, 0 outside it.
  void SignalComparison(int row, int column, int ilib, int isignal);
  // CalculateMeritX: the fit against every signal of library `ilib` (the merit along variable 1
  // whose peak the search interpolates). Double 0 = merit, double 1 = height, double 2 = value of
  // variable 1, one per signal.
  void CalculateMeritX(int row, int column, int ilib);
  // SpatialCorrelation: the pixel against signal `isignal` of the pixel's library (chosen as in
  // SignalComparison) along the scan.
  // Complex 0 = the analytic cross-correlation over the band at the circular shifts k = i - N/2
  // (see LsSignalProcessor::Correlate), double 0 = its real part, the correlation coefficient of
  // the two band-passed traces; complex 1 = the library signal's bins.
  void SpatialCorrelation(int row, int column, int isignal);
  // PeakVersusSignal: the spatial correlation's peak against every signal of library `ilib` (-1:
  // all libraries, one run of indices, each library's block after the signals of those before
  // it). Per signal: complex 0 = the complex correlation at the peak of its real part, double 0 =
  // the peak position minus N/2 (the whole-frame shift), double 1 = the phase there, wrapped into
  // -π … π by φ - 2π floor((φ + π) / 2π).
  void PeakVersusSignal(int row, int column, int ilib);
  // RoundTripTransform: complex 0 (set with SetComplexArray, B >= 2 bins) through the search's own
  // transform pair: double 0 = the N real samples it transforms back to, complex 1 = their
  // forward transform again (equal to complex 0 where bins 0 and N/2 are real).
  void RoundTripTransform();
  // Dummy: the pixel's trace as points, one per frame in the signal's order (reversed for scan
  // direction -1): x = frame, y = sample, z = the fringe envelope there (the trace band-passed to
  // the library's band). Double 0 = envelope, double 1 = its cumulative distribution (N each);
  // complex 0 = the analytic signal.
  void Dummy(int row, int column, Analysis::Core::Point3DArray& points);

  void GetDoubleArray(int index, Analysis::Core::Array<double>& out);
  void GetComplexArray(int index, Analysis::Core::Array<std::complex<double>>& out);
  void SetComplexArray(int index, const Analysis::Core::Array<std::complex<double>>& in);

  const Analysis::Core::Status& GetStatus() const { return board_.status; }

 private:
  void Fail(unsigned code, unsigned line, const std::string& message);
  bool Admissible(const Analysis::Core::DoubleMatrix2D& matrix);
  // Argument checks of the diagnostics; false with the status set.
  bool CheckLibrary(int ilib);
  bool CheckFirstLibrary();
  bool CheckSignal(int ilib, int isignal);
  bool CheckScratch(int index);
  // The library a pixel diagnostic compares against (see SignalComparison); false with the status
  // set when the pixel has none. The search must be prepared (PreparePixel) first.
  bool PixelLibrary(int row, int column, int& ilib);
  // Sizes scratch arrays (zeroed); false with `failure` recorded (code 6) when one cannot be had.
  bool SizeDoubles(int index, int n, const char* failure = "Call to doubleArrays.Resize failed");
  bool SizeComplexes(int index, int n, const char* failure = "Call to complexArrays.Resize failed");
  void Add(Analysis::Core::DoubleMatrix2D& matrix, double a, double b, double c, bool replace);

  LsBoard board_;
  LsController controller_{board_};
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search

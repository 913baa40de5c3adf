#pragma once

#include <complex>
#include <memory>
#include <vector>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/Status.h"
#include "Analysis/Core/Threading/ThreadDispatcher.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

// LibraryResampler
//
// Converts a library matrix computed for one scan sampling to the bins of another, so that a
// library generated once can be searched against scans with a different frame count or scan step,
// and normalises library rows to unit energy.
//
// A library matrix holds one signal per row and, per row, the complex spectrum of a real scan of
// N samples: bins = N / 2 + 1, the real part of bin j in column 2j, the imaginary part in 2j + 1.
// Bin j of a scan of N samples at ramp slope s (the scan step) is the spatial frequency
// j / (N s); the same frequency sits at the fractional bin
//
//   x = j · s_in · N_in / (s_out · N_out)
//
// of the input, and is interpolated there with a four-point Lagrange cubic over the row's valid
// bins F … L (found on the first row: the lowest and highest bin with a non-zero magnitude).
// Outside F … L the output is 0; the first and last valid intervals extrapolate the nearest full
// stencil so that every value uses four real bins.
//
// The ramp slopes only enter as their ratio, so any one length unit serves for both. The number of
// output samples defaults to that of the input (then only the slope changes the bins).
//
//   LibraryResampler resampler;
//   resampler.SetInputRampSlope(0.080);       // library generated at 80 nm per frame
//   resampler.SetOutputRampSlope(0.070);      // scan taken at 70 nm per frame
//   resampler.SetNumberOfOutputSamples(256);  // with 256 frames
//   resampler.Execute(library, resampled);
//   resampler.NormalizeLibrary(resampled);
//
// Failures are recorded in the status (wiring code 6, admissibility and odd sample counts code 21,
// a missing dispatcher code 3) and stop the call; no exception leaves the class.
class QUARN_PP_EXPORT LibraryResampler {
 public:
  static constexpr const char* kSource = "SwliMba\\Search\\LibraryResampler";

  LibraryResampler();
  LibraryResampler(const LibraryResampler& other);
  LibraryResampler& operator=(const LibraryResampler& other);
  virtual ~LibraryResampler();

  // n must be even (the scans are real and the bin count is n / 2 + 1); otherwise code 21 and
  // nothing changes.
  void SetNumberOfOutputSamples(int n);
  int GetNumberOfOutputSamples() const { return numberOfOutputSamples_; }
  int GetNumberOfOutputBins() const { return numberOfOutputBins_; }

  void SetInputRampSlope(double slope) { inputRampSlope_ = slope; }
  double GetInputRampSlope() const { return inputRampSlope_; }
  void SetOutputRampSlope(double slope) { outputRampSlope_ = slope; }
  double GetOutputRampSlope() const { return outputRampSlope_; }

  void SetAllowMultiThreads(bool allow) { allowMultiThreads_ = allow; }
  bool GetAllowMultiThreads() const { return allowMultiThreads_; }

  // The valid input bins found by the last Execute (0 before any).
  int GetFirstValidInputBin() const { return firstValidInputBin_; }
  int GetLastValidInputBin() const { return lastValidInputBin_; }

  const Analysis::Core::Status& GetStatus() const { return status_; }

  // Resamples every row of the input into the output (resized to the input's rows and
  // 2 × output bins columns).
  void Execute(Analysis::Core::DoubleMatrix2D& input, Analysis::Core::DoubleMatrix2D& output);

  // Divides every row by its complex L2 norm (a zero row stays zero), reading the bins within the
  // valid bounds of the last Execute; the bins outside them are written back as 0.
  void NormalizeLibrary(Analysis::Core::DoubleMatrix2D& library);

  // The interpolated value at fractional bin x of a row whose valid bins are F … L (`bins` holds
  // the whole row, so that a stencil reaching past F … L reads what lies there). Public for tests.
  static std::complex<double> Interpolate(const std::complex<double>* bins, int numberOfBins, int first,
                                          int last, double x);

 private:
  using Dispatcher = Analysis::Core::Threading::ThreadDispatcher<LibraryResampler>;

  void Fail(unsigned code, unsigned line, const char* message);
  bool CheckAdmissible(const Analysis::Core::DoubleMatrix2D& matrix);
  bool PrepareWorkers();
  void ResampleRows(int thread, int first, int end);
  void NormalizeRows(int thread, int first, int end);
  // Reads bins F … L of a row into the thread's working array (other entries 0).
  std::complex<double>* LoadRow(int thread, const double* row);

  bool allowMultiThreads_ = true;
  int firstValidInputBin_ = 0;
  int lastValidInputBin_ = 0;
  int numberOfRows_ = 0;
  int numberOfInputBins_ = 0;
  int numberOfInputSamples_ = 0;
  int numberOfOutputBins_ = 0;
  int numberOfOutputSamples_ = 0;
  double inputRampSlope_;
  double outputRampSlope_;
  Analysis::Core::DoubleMatrix2D* input_ = nullptr;
  Analysis::Core::DoubleMatrix2D* output_ = nullptr;
  Analysis::Core::Status status_;
  std::unique_ptr<Dispatcher> dispatcher_;
  std::vector<std::vector<std::complex<double>>> work_;  // one working row per thread
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search

#pragma once

#include <string>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/Status.h"
#include "Analysis/Core/Threading/ThreadDispatcher.h"
#include "Psi/Converter.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

// ConverterGenerator
//
// Classic phase-shifting interferometry: turns a `FrameBuffer` of phase-shifted frames into a
// wrapped-phase map and, optionally, a modulation map, pixel by pixel, with one `Converter`.
//
// Per pixel (samples of all frames, frame 0 first):
//   - saturated: any sample >= the frame buffer's `GetMaxValue()`          -> no data;
//   - N, D from the converter (or from re-weighted frames, see below);
//   - magnitude M = N^2 + D^2 (or |N| + |D| when estimating the magnitude);
//   - M below the threshold m^2 (m x 1.2071... when estimating), with
//     m = saturation level x minimum modulation x the converter's modulation scale -> no data;
//   - otherwise phase = atan2(N, D) x (radians-to-map-unit factor) x phase sign, in [-pi, pi] for a
//     map in radians (a kernel may give N = -0.0, and atan2(-0.0, D < 0) is -pi), and modulation = sqrt(M) /
//     modulation scale (M / 1.2071... / scale when estimating).
// No-data pixels hold the largest finite double in both maps. The minimum modulation is set in
// percent of the saturation level (default 15 %).
//
// The maps are not resized: they must hold one element per pixel of the frame buffer's allocated
// window, row-major. The phase map's unit manager, asked for radians (unit 91), gives the factor
// into the map's unit (1 for a map in radians or without units).
//
// Frame weights (optional, one per frame, all > 0) re-weight the converter's kernel: frame i's
// weights are multiplied by mean(w) / w_i, so a frame known to be brighter counts less.
//
// Status: code 1 when no pixel of the run (the first window-size elements of the phase map) is
// valid. The status is not reset by `Process`, so an earlier failure stays until a later one
// overwrites it. Input that would make the run read or write out of bounds, or give meaningless
// phases, is refused with code 20 or 21 and a message naming the problem (no converter, maps smaller
// than the frame window, fewer frames than the converter reads, a ring buffer, bad frame weights, a
// map unit that cannot hold a phase, a phase sign of 0). A failure inside a worker
// reaches the caller as a thrown `Status` (the dispatcher's contract).
//
// Threads: pixel ranges are spread over the workers of the embedded dispatcher (one per processor
// by default); maps are identical for every thread count.
//
// Fast path: for the built-in converters (and frame weights) a block of pixels is processed at
// once from the frame planes with vector instructions and a vector atan2 (SLEEF's 3.5-ulp kernel,
// twice as fast as its 1-ulp one; 3.5 ulp of a phase is some 1e-15 rad, far below the noise of any
// measured phase and below the float32 resolution of a written map). N, D, the validity and the
// modulation are bit-identical to the per-pixel path; the phase agrees with the scalar atan2 (1 ulp
// from exact) to within 4 ulp. `SetUseFastPath(false)` runs the plain per-pixel reference.
//
//   FrameBuffer frames;   // 13 phase-shifted frames
//   DoubleMatrix2D phase(rows, cols), modulation(rows, cols);
//   Convert13 converter;
//   ConverterGenerator generator;
//   generator.SetAlgorithm(&converter);
//   generator.SetMinimumModulation(10.0);
//   generator.Process(frames, phase, &modulation);
//   if (generator.GetStatus().IsError()) ...
class QUARN_PP_EXPORT ConverterGenerator {
 public:
  ConverterGenerator();
  ConverterGenerator(const ConverterGenerator& other);
  ConverterGenerator& operator=(const ConverterGenerator& other);
  ~ConverterGenerator();

  void Process(Analysis::Core::FrameBuffer& frames, Analysis::Core::DoubleMatrix2D& phase);
  void Process(Analysis::Core::FrameBuffer& frames, Analysis::Core::DoubleMatrix2D& phase,
               Analysis::Core::DoubleMatrix2D* modulation);
  void Process(Analysis::Core::FrameBuffer& frames, Analysis::Core::DoubleMatrix2D& phase,
               Analysis::Core::DoubleMatrix2D* modulation, Analysis::Core::Array<double>* frameWeights);

  void SetAlgorithm(Converter* converter) { converter_ = converter; }
  Converter* GetAlgorithm() const { return converter_; }

  double GetMinimumModulation() const { return minimumModulation_ * 100.0; }
  void SetMinimumModulation(double percent) { minimumModulation_ = percent / 100.0; }
  bool GetEstimateMagnitude() const { return estimateMagnitude_; }
  void SetEstimateMagnitude(bool estimate) { estimateMagnitude_ = estimate; }
  int GetPhaseSign() const { return phaseSign_; }
  void SetPhaseSign(int sign) { phaseSign_ = sign; }
  bool GetAllowMultiThreads() const { return allowMultiThreads_; }
  void SetAllowMultiThreads(bool allow) { allowMultiThreads_ = allow; }
  int GetNumberOfThreads() const { return dispatcher_.GetNumberOfWorkers(); }
  void SetNumberOfThreads(int n) { dispatcher_.SetNumberOfWorkers(n); }
  bool GetUseFastPath() const { return useFastPath_; }
  void SetUseFastPath(bool use) { useFastPath_ = use; }

  Analysis::Core::Status& GetStatus() { return status_; }

 private:
  // How the quadrature of a pixel is formed in this run; decided once per `Process`.
  enum class Kernel { kConverter, kSeven, kThirteen, kTwenty, kWeights };
  // The block kernel of the set converter, whether it is the sliding one, and the samples it reads
  // per pixel (0: unknown).
  struct ConverterClass {
    Kernel kernel = Kernel::kConverter;
    bool sliding = false;
    int framesRead = 0;
  };
  static ConverterClass Classify(const Converter& converter);
  bool ReweightFrames(const Analysis::Core::Array<double>& frameWeights);
  // Records a failure of the run's inputs and returns false.
  bool Fail(unsigned code, unsigned line, const std::string& message);
  bool CheckFrameWeights(const Analysis::Core::Array<double>& frameWeights);

  bool CheckInputs(const Analysis::Core::FrameBuffer& frames, const Analysis::Core::DoubleMatrix2D& phase,
                   const Analysis::Core::DoubleMatrix2D* modulation,
                   const Analysis::Core::Array<double>* frameWeights, const ConverterClass& converterClass);
  void ConvertPixels(int thread, int first, int end);
  template <typename Stored, typename Sample>
  void ConvertPixelsReference(int thread, int first, int end);
  template <typename Stored>
  void ConvertPixelsFast(int first, int end);

  Converter* converter_ = nullptr;
  double phaseScale_ = 1.0;
  double modulationScale_ = 1.0;
  double minimumModulation_ = 0.15;
  double estimateFactor_ = 1.2071067811865475;  // mean of (|a| + |b|) / sqrt(a^2 + b^2)
  bool estimateMagnitude_ = false;
  int numberOfPixels_ = 0;
  int numberOfFrames_ = 0;
  bool allowMultiThreads_ = true;
  int phaseSign_ = 1;
  bool weighted_ = false;
  Analysis::Core::Array<double> weightedNumerator_;
  Analysis::Core::Array<double> weightedDenominator_;
  const double* numeratorWeights_ = nullptr;
  const double* denominatorWeights_ = nullptr;
  Analysis::Core::FrameBuffer* frameBuffer_ = nullptr;
  Analysis::Core::DataMatrix2D<double>* phaseData_ = nullptr;
  Analysis::Core::DataMatrix2D<double>* modulationData_ = nullptr;
  double modulationThreshold_ = 0.0;
  int saturationLevel_ = 0;
  Analysis::Core::Threading::ThreadDispatcher<ConverterGenerator> dispatcher_;
  Analysis::Core::Status status_;
  Kernel kernel_ = Kernel::kConverter;
  bool useFastPath_ = true;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

#pragma once

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"
#include "Swli/ScanSampling.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

class PhaseAlgorithm;

// SubsampledEvaluation
//
// A white-light scan sampled much more finely than the algorithms' four frames per fringe,
// evaluated as `factor` interleaved scans: subsample o holds frames o, o + factor, o + 2 factor, ...
// of the scan (lent, not copied), a scan of factor x the step with fringes of about four frames.
// Each is evaluated on its own (peak frames, then the algorithm through `PhaseGenerator`; the
// frequency-domain analysis with the band for the subsample's period), its heights are moved to the
// scan's own frame positions (subsample o's frame k is the scan's frame o + factor k), and each
// pixel's height is the mean over the subsamples that gave it one. A subsample's frequency-domain
// height may sit whole equivalent wavelengths from another's where their fringe orders were chosen
// differently; such heights are first moved by whole wavelengths to within half a wavelength of the
// first subsample's before they are averaged.
//
// Averaging `factor` independent estimates divides the noise by about sqrt(factor), and a pixel has
// a height when any subsample gives it one: the fine scan is never worse than the subsample a user
// would otherwise keep. A factor of 1 is a single plain evaluation.
//
// Heights follow PhaseAlgorithm's conventions (nanometres along the scan, frame f at f x step; a
// reversed scan's frame f at (F - f) x step). The surface is resized to the frame window; pixels
// without a height hold the no-data value. The algorithm's intensity map holds the last subsample's.
//
// Status: the first failing subsample's failure other than "no valid pixel" (code 6, naming the
// call); code 1 when no subsample gave any pixel a height.
//
//   ScanSampling sampling;
//   sampling.Measure(frames, peaks);
//   SubsampledEvaluation evaluation;
//   evaluation.Process(frames, sampling.SubsampleFactor(frames.GetNumberOfFrames()), 20.0, fda, sampling,
//   threads, surface);
class QUARN_PP_EXPORT SubsampledEvaluation {
 public:
  SubsampledEvaluation();

  Analysis::Core::Status& Process(Analysis::Core::FrameBuffer& frames, int factor, double scanStepNm,
                                  PhaseAlgorithm& algorithm, const ScanSampling& sampling, int threads,
                                  Analysis::Core::DoubleMatrix2D& surface);

  // Subsamples of the last run that gave at least one pixel a height.
  int GetSubsamplesWithResult() const { return subsamplesWithResult_; }
  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  Analysis::Core::Status status_;
  int subsamplesWithResult_ = 0;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

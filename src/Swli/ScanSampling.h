#pragma once

#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

class PhaseAlgorithmFda;

// ScanSampling
//
// How finely a white-light scan samples its fringes, and the evaluation settings that follow. A
// surface point sees the path difference 2 (z - H), so its fringes repeat every half centre
// wavelength of scan: the fringe period is P = lambda / (2 x step) frames (3.75 frames for 600 nm
// light at 80 nm steps, 15 at 20 nm). The algorithms' defaults are written for about four frames
// per fringe; a scan sampled more finely or more coarsely needs
//
// - for the frequency-domain analysis, a band of bins around where the fringes land, k0 = q / P
//   (the default band 13 .. 21 of a 64-sample transform is the band for k0 = 17, and is scaled with
//   k0); at many frames per fringe the fringes of a 64-sample window fill too few bins for a phase
//   fit, and the scan is better evaluated as interleaved subsamples of about four frames per
//   fringe (`SubsampleFactor`, SubsampledEvaluation): measured on synthetic scans, at 15 and 20 nm
//   steps for 600 nm light the subsamples' mean is good to 0.2 nm where one evaluation with a scaled
//   band loses half the pixels or the fringe order, and at 30 and 40 nm both are alike;
// - for the centroid, a threshold scaled to the sampling. Its modulation measure, built from
//   differences of samples one and two frames apart, is 4 A (|cos phi| sin^2 w + |sin phi| sin w)
//   for fringes of amplitude A and phase phi at the peak, w = 2 pi / P: 4 A to 5.7 A at four frames
//   per fringe, but 0.66 A to 1.8 A at fifteen. `ScaledMinimumModulation` multiplies a percentage
//   meant for four frames per fringe by sin^2 w / 0.95, the measure's smallest share at P relative
//   to its share at 3.5 frames per fringe, and at most by 1 (so from 3.5 to 4.7 frames per fringe,
//   where the share is above 0.95, the threshold stands as given): fringes of the amplitude that
//   passed at about four frames per fringe pass at any phase and any step, and a surface keeps about
//   the same valid fraction whatever the step.
//
// The period comes from the light (`SetFromWavelength`) or from the scan itself (`Measure`): the
// power spectra of the signal windows around the peak frames of up to 256 pixels spread over the
// field are summed, and the strongest bin, refined by a parabola through its neighbours, gives the
// period. Before either, the period is unknown (0) and the settings are the algorithms' defaults.
//
// Status: code 21 for a scan too short to measure (no more than 64 frames, or a ring), code 1 when no
// pixel with a complete window shows fringes.
//
//   ScanSampling sampling;
//   FindPeakFrames(frames, peaks, threads);
//   if (sampling.Measure(frames, peaks).IsError()) ...;
//   sampling.ApplyTo(fda);                                   // the band
//   centroid.SetMinimumModulation(sampling.ScaledMinimumModulation(15.0));
class QUARN_PP_EXPORT ScanSampling {
 public:
  ScanSampling();

  // Measures the fringe period from the windows of 64 samples (128 when the scan has more than 128
  // frames, for a finer spectrum) centred on the pixels' peak frames (`peakFrames` covers the frame window;
  // pixels whose window leaves the scan are skipped).
  Analysis::Core::Status& Measure(const Analysis::Core::FrameBuffer& frames,
                                  const Analysis::Core::IntMatrix2D& peakFrames);
  // The period of fringes of the given centre wavelength at the given scan step (both nanometres,
  // above zero).
  void SetFromWavelength(double wavelengthNm, double scanStepNm);

  // A period known otherwise (frames per fringe, above 0; 0 or less: unknown).
  void SetFromPeriod(double framesPerFringe) {
    periodFrames_ = framesPerFringe > 0.0 ? framesPerFringe : 0.0;
  }

  // Frames per fringe; 0 while unknown.
  double GetFringePeriodFrames() const { return periodFrames_; }
  bool IsKnown() const { return periodFrames_ > 0.0; }

  // The band of bins for a transform of `signalSize` samples: 13 .. 21 scaled by k0 / 17, at least
  // three bins, within 1 .. q/2 - 2 (a band reaching q/2 - 1 fits no slope). The defaults while the
  // period is unknown.
  void FdaBand(int signalSize, int& firstBin, int& lastBin) const;
  // How many interleaved subsamples bring these fringes back to about four frames per fringe
  // (3.75, 600 nm light at 80 nm), for SubsampledEvaluation: round(P / 3.75), 1 while unknown or
  // below 5.6 frames per fringe, and no more than leaves each subsample of a scan of `framesScanned`
  // frames the 65 frames a 64-sample window needs.
  int SubsampleFactor(int framesScanned) const;
  // Sets the band of `fda` for its signal size.
  void ApplyTo(PhaseAlgorithmFda& fda) const;

  // The centroid's minimum modulation (percent of saturation) that asks of these fringes what
  // `percent` asks at four frames per fringe; `percent` unchanged while the period is unknown.
  double ScaledMinimumModulation(double percent) const;

  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  template <typename Stored>
  bool SumSpectra(const Analysis::Core::FrameBuffer& frames, const Analysis::Core::IntMatrix2D& peakFrames,
                  int q, double* power);

  Analysis::Core::Status status_;
  double periodFrames_ = 0.0;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

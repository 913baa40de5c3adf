#pragma once

#include <string>
#include <utility>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "Jobs/JobData.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Jobs {

// White-light options, with the tool's defaults.
struct SwliOptions {
  std::string algorithm = "centroid";  // "centroid" or "fda"
  double scanStepNm = 0.0;             // required: the distance the scan moves between frames
  // Percent of the saturation level. The centroid's default is 15 % at four frames per fringe,
  // scaled to the scan's sampling (a finer scan spreads the same fringes over more frames, each
  // less modulated); with `minModulationGiven` the value is used as it stands.
  double minModulation = 15.0;
  bool minModulationGiven = false;
  // Centre wavelength of the light (nanometres): sets the fringe period, half the wavelength over
  // the step. 0: the period is measured from the scan.
  double wavelengthNm = 0.0;
  std::string fringeRemoval = "standard";  // "standard", "64full" or "none" (no intensity map)
  bool reverse = false;                    // frame k was taken at (frames - k) x the scan step
  int maxValue = 0;
  int threads = -1;  // -1: all processors; 0 or 1: the calling thread only
  bool wantIntensity = false;
};

struct SwliRecord : JobRecord {
  // The fringe period in frames (0 when it could not be measured) and where it came from.
  double framesPerFringe = 0.0;
  bool periodFromWavelength = false;
  // The threshold used (percent) and whether it is the default scaled to the sampling.
  double minModulation = 0.0;
  bool minModulationScaled = false;
  // fda: the band of bins fitted (of 64), the interleaved subsamples evaluated (1: the scan as
  // it is), the equivalent wavelength and the average gap.
  int firstBandBin = 0;
  int lastBandBin = 0;
  int subsamples = 1;
  double equivalentWavelengthNm = 0.0;
  double averageGapNm = 0.0;
  int maxValue = 0;
};

// SwliJob
//
// Surface heights (nanometres along the scan: frame k of a forward scan at k x the scan step) from a
// white-light scan, one frame per scan position. Each pixel's peak frame (where its fringes are
// strongest) is found by the coherence discriminator unless the host gives its own; a 64-frame
// window around it is evaluated by the envelope centroid (robust, any step; heights count positions
// from one) or the frequency-domain analysis (fda: phase of the fringe spectrum). The fringe period
// is measured from the scan (or set from the wavelength); it chooses the band of bins the fda fits
// and, for a scan finer than about 5.6 frames per fringe, evaluates it as interleaved subsamples of
// about four frames per fringe whose heights are averaged; it also scales the centroid's default
// threshold. Steps from about a fortieth to a fifth of the centre wavelength are evaluated. The
// fringe-free intensity (counts) comes with it.
class QUARN_PP_EXPORT SwliJob {
 public:
  // `frames` must carry the scan direction of `options.reverse`. `peaks` (stored frames, the
  // frame buffer's window) replaces the coherence discriminator when given.
  SwliRecord Run(Core::FrameBuffer& frames, const SwliOptions& options, const std::string& name,
                 Core::IntMatrix2D* peaks = nullptr);
  const Core::DoubleMatrix2D& GetHeight() const { return height_; }
  const Core::IntMatrix2D& GetIntensity() const { return intensity_; }
  // The maps moved out of the job, for a host that keeps them without a copy (no data still the
  // library's; `NoDataToNan` converts in place).
  Core::DoubleMatrix2D TakeHeight() { return std::move(height_); }

 private:
  Core::DoubleMatrix2D height_;
  Core::IntMatrix2D intensity_;
  Core::IntMatrix2D peaks_;  // the coherence discriminator's, when the host gives none
};

// The job on a host array (frames x rows x columns); `intensity` is filled when not empty (and asked
// for through `options.wantIntensity`, set here from it).
QUARN_PP_EXPORT SwliRecord RunSwli(const ArrayView& scan, const SwliOptions& options, const MapView& height,
                                   const MapView& intensity = {});

}  // namespace Quarn::Jobs

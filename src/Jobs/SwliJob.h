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
  std::string algorithm = "centroid";      // "centroid" or "fda"
  double scanStepNm = 0.0;                 // required: the distance the scan moves between frames
  double minModulation = 15.0;             // percent of the saturation level
  std::string fringeRemoval = "standard";  // "standard", "64full" or "none" (no intensity map)
  bool reverse = false;                    // frame k was taken at (frames - k) x the scan step
  int maxValue = 0;
  int threads = -1;  // -1: all processors; 0 or 1: the calling thread only
  bool wantIntensity = false;
};

struct SwliRecord : JobRecord {
  double wavelengthNm = 0.0;  // fda: the equivalent wavelength
  double averageGapNm = 0.0;  // fda: the average gap
  int maxValue = 0;
};

// SwliJob
//
// Surface heights (nanometres along the scan: frame k of a forward scan at k x the scan step) from a
// white-light scan, one frame per scan position. Each pixel's peak frame (where its fringes are
// strongest) is found by the coherence discriminator unless the host gives its own; a 64-frame
// window around it is evaluated by the envelope centroid (robust, any step; heights count positions
// from one) or the frequency-domain analysis (fda: phase of the fringe spectrum; a step of about a
// tenth to a sixth of the centre wavelength). The fringe-free intensity (counts) comes with it.
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

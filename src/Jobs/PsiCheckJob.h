#pragma once

#include <string>
#include <utility>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Jobs/JobData.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Jobs {

// Phase-shifter check options, with the tool's defaults.
struct PsiCheckOptions {
  std::string method;           // "corvane", "gain"; empty: every check the frame count allows
  int scanPeriod = 1;           // check every N-th pixel
  double minModulation = 15.0;  // percent of the saturation level
  int firstFrame = 0;
  int frameCount = 0;  // 0: every frame from the first one on
  int maxValue = 0;
  int threads = -1;
  // The step map is asked for (the tool's -o or --png): a run that cannot make it has no result.
  bool mapWanted = false;
};

struct PsiCheckRecord : JobRecord {
  std::string description;     // "mirror.tif" or "frames 2-8 of mirror.tif"
  int frameCount = 0;          // frames of the run checked
  bool corvaneRan = false;     // the step-value check was run ...
  bool corvaneResult = false;  // ... and produced its map
  double stepValueMean = 0.0;  // 256 cos(step), mean over the valid pixels
  double stepValueMedian = 0.0;
  double stepDegreesMean = 0.0;  // the phase step the mean implies, degrees (nominal 90)
  double stepDegreesMedian = 0.0;
  bool stepBetweenPairs = false;  // 13 frames: the step between frame pairs
  bool gainRan = false;
  bool gainResult = false;
  double gainCorrection = 0.0;  // 0 for a calibrated shifter, negative when it moves too far
  bool gainSinusoidal = false;  // the sinusoidal 20-frame estimate on frames 0-19 of the run
  double gainFraction = 0.0;    // pixels contributing to the gain, over all pixels
};

// PsiCheckJob
//
// Checks the phase shifter on a phase-shifted stack (or the run of frames `firstFrame` ..
// `firstFrame + frameCount - 1`). The Corvane check maps each pixel's step value 256 cos(step) (0 at
// the nominal quarter-period step; between frames for 7 frames, between frame pairs for 13) and its
// mean and median; the gain check gives one gain correction (7-sample estimate on 7 or 13 frames,
// the sinusoidal estimate on frames 0-19 of 20 or more). `validFraction` is the step map's.
//
// Outcome: success when a check produced its result (and the step map, when wanted); a check without
// a usable pixel is then a warning. No result when no check produced one, or the wanted map is
// missing. The pixels of a mask (non-zero) are the only ones checked.
class QUARN_PP_EXPORT PsiCheckJob {
 public:
  // The frames the options pick and the checks their count allows, with the refusals of `Run` for
  // them (no check fits, the map asked for cannot be made); the record names the run
  // (`description`, `frameCount`). `Run` plans first itself; a host that reads further inputs (a
  // mask) only for a run that can go ahead plans before.
  PsiCheckRecord Plan(Core::FrameBuffer& frames, const PsiCheckOptions& options, const std::string& name);
  PsiCheckRecord Run(Core::FrameBuffer& frames, const PsiCheckOptions& options, const std::string& name,
                     Core::RegionIdMatrix2D* mask = nullptr, const std::string& maskName = "");
  // 256 cos(step) per pixel, no data where the check had no result.
  const Core::DoubleMatrix2D& GetStepValues() const { return steps_; }
  // The maps moved out of the job, for a host that keeps them without a copy (no data still the
  // library's; `NoDataToNan` converts in place).
  Core::DoubleMatrix2D TakeStepValues() { return std::move(steps_); }

 private:
  Core::DoubleMatrix2D steps_;
  Core::FrameBuffer part_;               // the frames of a run that is not the whole stack (borrowed)
  Core::FrameBuffer* run_ = nullptr;     // the planned run's frames
  bool corvane_ = false, gain_ = false;  // the planned checks
};

// The job on a host array; `steps` (when not empty) receives the step-value map, NaN for no data
// (all NaN when the Corvane check did not run). `mask` (when its data is not null) is a 2-D array of
// the stack's size.
QUARN_PP_EXPORT PsiCheckRecord RunPsiCheck(const ArrayView& stack, const PsiCheckOptions& options,
                                           const MapView& steps, const ArrayView& mask = {});

}  // namespace Quarn::Jobs

#pragma once

#include <string>
#include <utility>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Jobs/JobData.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Jobs {

// Carrier-fringe options, with the tool's defaults.
struct CarrierOptions {
  int quadrant = 2;         // quadrant of the frequency plane holding the lobe: 1 right-up .. 4 right-down
  int pixelsPerFringe = 4;  // carrier period in pixels
  double threshold = 10.0;  // percent of half the saturation level
  int minRegion = 10;       // no-data areas of at least this many pixels lose a one-pixel rim
  bool keepCarrier = false;
  int maxValue = 0;
  int threads = -1;
};

struct CarrierRecord : JobRecord {
  double thresholdCounts = 0.0;  // the modulation threshold in counts
};

// CarrierJob
//
// Phase (radians, carrier removed unless kept) and modulation (counts: a fringe a + b cos reads
// about b) of one frame of carrier fringes: the lobe in the chosen quadrant is filtered out of the
// spectrum, transformed back and the carrier removed.
//
// The pipeline's board keeps its own copy of the frame, so `frames` is released as soon as the copy
// is made: a large frame is then held once, not twice, while the spectrum is filtered. Without
// `wantModulation` no modulation map is made at all (one map of doubles less at the peak).
class QUARN_PP_EXPORT CarrierJob : public PhaseAndModulationMaps {
 public:
  // The frame is frame 0 of `frames`, which holds no frames any more once the job has run (whether
  // or not it succeeded; a run refused for its options or page count leaves it as it was).
  CarrierRecord Run(Core::FrameBuffer& frames, const CarrierOptions& options, const std::string& name,
                    bool wantModulation = true);
};

// The job on a host image (rows x columns, or one frame); `modulation` is filled when not empty.
QUARN_PP_EXPORT CarrierRecord RunCarrier(const ArrayView& frame, const CarrierOptions& options,
                                         const MapView& phase, const MapView& modulation = {});

}  // namespace Quarn::Jobs

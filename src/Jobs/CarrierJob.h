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
class QUARN_PP_EXPORT CarrierJob {
 public:
  // The frame is frame 0 of `frames`.
  CarrierRecord Run(Core::FrameBuffer& frames, const CarrierOptions& options, const std::string& name);
  const Core::DoubleMatrix2D& GetPhase() const { return phase_; }
  const Core::DoubleMatrix2D& GetModulation() const { return modulation_; }
  // The maps moved out of the job, for a host that keeps them without a copy (no data still the
  // library's; `NoDataToNan` converts in place).
  Core::DoubleMatrix2D TakePhase() { return std::move(phase_); }
  Core::DoubleMatrix2D TakeModulation() { return std::move(modulation_); }

 private:
  Core::DoubleMatrix2D phase_;
  Core::DoubleMatrix2D modulation_;
};

// The job on a host image (rows x columns, or one frame); `modulation` is filled when not empty.
QUARN_PP_EXPORT CarrierRecord RunCarrier(const ArrayView& frame, const CarrierOptions& options,
                                         const MapView& phase, const MapView& modulation = {});

}  // namespace Quarn::Jobs

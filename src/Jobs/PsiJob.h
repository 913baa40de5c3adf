#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Jobs/JobData.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Jobs {

// PSI options, with the tool's defaults.
struct PsiOptions {
  std::string algorithm;        // "7", "13", "20", "sliding13"; empty: chosen from the frame count
  double minModulation = 15.0;  // percent of the saturation level
  bool estimateMagnitude = false;
  int phaseSign = 1;
  std::vector<double> frameWeights;  // relative brightness of each frame; empty: all equal
  int maxValue = 0;                  // saturation level in counts; 0: the sample type's maximum
  int threads = -1;                  // -1: all processors; 0: the calling thread only
};

struct PsiRecord : JobRecord {
  std::string algorithm;  // the algorithm that ran
  int maxValue = 0;       // the saturation level used
};

// PsiJob
//
// Wrapped phase (radians, -pi .. pi, times the phase sign) and modulation (counts) of every pixel of
// a phase-shifted frame stack, from the frame-to-phase converter the frame count selects (7, 13 or 20
// frames; more than 13 and not 20: the sliding 13-frame kernel). Pixels with a saturated sample or a
// modulation below `minModulation` percent of the saturation level have no data.
//
//   PsiJob job;
//   const PsiRecord record = job.Run(frames, options, "stack.tif", true);
//   if (record.Ok()) use(job.GetPhase(), job.GetModulation());
class QUARN_PP_EXPORT PsiJob : public PhaseAndModulationMaps {
 public:
  // The maps stay in the job (library no-data convention) until the next run. The frame buffer's
  // saturation level is set from `options.maxValue`.
  PsiRecord Run(Core::FrameBuffer& frames, const PsiOptions& options, const std::string& name,
                bool wantModulation);
  // The same run a band of rows at a time, for a host that streams the maps out (a file writer) and
  // so never holds them whole: `band` gets, in order from the top, each band's first row and its
  // phase and modulation (null unless wanted), `bandRows` rows each (the last may have fewer), valid
  // during the call. The maps are bit for bit those of Run, and so is the record; the job keeps no
  // maps. A band without a valid pixel is handed on like any other; an exception thrown by `band`
  // ends the run and passes through.
  using BandSink = std::function<void(int firstRow, const Core::DoubleMatrix2D& phase,
                                      const Core::DoubleMatrix2D* modulation)>;
  PsiRecord RunInBands(Core::FrameBuffer& frames, const PsiOptions& options, const std::string& name,
                       bool wantModulation, int bandRows, const BandSink& band);
};

// The job on a host array: `stack` is frames x rows x columns of 8- or 16-bit samples, `phase` and
// (when not empty) `modulation` are filled with NaN for no data.
QUARN_PP_EXPORT PsiRecord RunPsi(const ArrayView& stack, const PsiOptions& options, const MapView& phase,
                                 const MapView& modulation = {});

}  // namespace Quarn::Jobs

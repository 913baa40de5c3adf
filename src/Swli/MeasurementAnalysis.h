#pragma once

#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

// MeasurementAnalysis
//
// The root of the white-light analyses: a status record and the two questions every analysis
// answers, how to go back to its state before a run (`Reset`) and whether its per-pixel work may
// run on several threads at once (`IsMultThreadable`, true unless an analysis says otherwise).
// Analyses own working matrices and per-thread buffers, so they are not copyable.
class QUARN_PP_EXPORT MeasurementAnalysis {
 public:
  MeasurementAnalysis(unsigned line, const char* source);
  MeasurementAnalysis(const MeasurementAnalysis&) = delete;
  MeasurementAnalysis& operator=(const MeasurementAnalysis&) = delete;
  virtual ~MeasurementAnalysis();

  virtual void Reset() = 0;
  virtual bool IsMultThreadable() const { return true; }

  Analysis::Core::Status& GetStatus() { return status_; }
  const Analysis::Core::Status& GetStatus() const { return status_; }

 protected:
  Analysis::Core::Status status_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

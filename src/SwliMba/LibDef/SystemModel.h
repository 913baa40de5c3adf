#pragma once

#include <string>

#include "Analysis/Core/NoData.h"
#include "QuarnPhaseProcessingExport.h"
#include "SwliMba/LibDef/Dispersion.h"
#include "SwliMba/LibDef/PolarizationType.h"
#include "SwliMba/LibDef/PupilIntensity.h"
#include "SwliMba/LibDef/PupilRollOff.h"
#include "SwliMba/LibDef/Source.h"
#include "SwliMba/LibDef/Tau.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// SystemModel
//
// The instrument a library is computed for: objective magnification and type, illumination
// polarisation, the source spectrum, the pupil (illumination models and roll-off), and the
// objective's arm mismatch (`Tau`) and dispersion; last, the objective's numerical aperture, up to
// which the library generator fills the pupil uniformly (0 means on-axis light only; not set: the
// largest finite double).
//
// Copies are full copies except that the pupil intensity's model list is shared.
class QUARN_PP_EXPORT SystemModel {
 public:
  SystemModel();

  double GetObjectiveMagnification() const { return objectiveMagnification_; }
  void SetObjectiveMagnification(double m) { objectiveMagnification_ = m; }
  PolarizationType GetPolarization() const { return polarization_; }
  void SetPolarization(PolarizationType p) { polarization_ = p; }
  const std::string& GetObjectiveType() const { return objectiveType_; }
  void SetObjectiveType(const std::string& type) { objectiveType_ = type; }
  double GetNumericalAperture() const { return numericalAperture_; }
  void SetNumericalAperture(double na) { numericalAperture_ = na; }

  Dispersion& GetDispersion() { return dispersion_; }
  const Dispersion& GetDispersion() const { return dispersion_; }
  PupilIntensity& GetPupilIntensity() { return pupilIntensity_; }
  const PupilIntensity& GetPupilIntensity() const { return pupilIntensity_; }
  PupilRollOff& GetPupilRollOff() { return pupilRollOff_; }
  const PupilRollOff& GetPupilRollOff() const { return pupilRollOff_; }
  Source& GetSource() { return source_; }
  const Source& GetSource() const { return source_; }
  Tau& GetTau() { return tau_; }
  const Tau& GetTau() const { return tau_; }

  // Back to the defaults; the source's cut-off is kept.
  void Clear();

 private:
  double objectiveMagnification_ = Analysis::Core::kNoDataDouble;
  PolarizationType polarization_;
  std::string objectiveType_;
  Dispersion dispersion_;
  PupilIntensity pupilIntensity_;
  PupilRollOff pupilRollOff_;
  Source source_;
  Tau tau_;
  double numericalAperture_ = Analysis::Core::kNoDataDouble;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

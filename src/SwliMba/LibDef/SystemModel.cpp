#include "SwliMba/LibDef/SystemModel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

SystemModel::SystemModel() {
  source_.SetCutOff(0.02);
  Clear();
}

void SystemModel::Clear() {
  objectiveMagnification_ = Analysis::Core::kNoDataDouble;
  polarization_ = PolarizationType::CircularlyPolarized;
  objectiveType_.clear();
  dispersion_.Clear();
  pupilIntensity_.Clear();
  pupilRollOff_.Clear();
  source_.Clear();
  tau_.Clear();
  numericalAperture_ = Analysis::Core::kNoDataDouble;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

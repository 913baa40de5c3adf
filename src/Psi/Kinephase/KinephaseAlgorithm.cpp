#include "Psi/Kinephase/KinephaseAlgorithm.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {

void KinephaseAlgorithm::SelectKernel(const KpKernelSelector& selector) {
  if (selector == board_.kernelSelector) return;
  board_.kernelSelector = selector;
  board_.filterValid = false;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase

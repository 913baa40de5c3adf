#pragma once

#include "Psi/Kinephase/KpQuadrant.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {

// KpKernelSelector
//
// Which frequency-domain filter the carrier-fringe pipeline uses: the carrier period in pixels per
// fringe (default 4) and the quadrant of the kept lobe (default 2, left-up). Two selectors are equal
// when both fields are; selecting an equal kernel again keeps the filter already built.
class KpKernelSelector {
 public:
  KpKernelSelector() = default;
  KpKernelSelector(int pixelsPerFringe, KpQuadrant orientation)
      : pixelsPerFringe_(pixelsPerFringe), orientation_(orientation) {}
  KpKernelSelector(const KpKernelSelector&) = default;
  KpKernelSelector& operator=(const KpKernelSelector&) = default;
  virtual ~KpKernelSelector() = default;

  int GetPixelsPerFringe() const { return pixelsPerFringe_; }
  void SetPixelsPerFringe(int pixelsPerFringe) { pixelsPerFringe_ = pixelsPerFringe; }
  KpQuadrant GetOrientation() const { return orientation_; }
  void SetOrientation(KpQuadrant orientation) { orientation_ = orientation; }

  bool operator==(const KpKernelSelector& other) const {
    return pixelsPerFringe_ == other.pixelsPerFringe_ &&
           static_cast<int>(orientation_) == static_cast<int>(other.orientation_);
  }
  bool operator!=(const KpKernelSelector& other) const { return !(*this == other); }

 private:
  int pixelsPerFringe_ = 4;
  KpQuadrant orientation_ = KpQuadrant::Quadrant2;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase

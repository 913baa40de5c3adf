#pragma once

#include "QuarnPhaseProcessingExport.h"
#include "Swli/PhaseAlgorithm.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

// PhaseAlgorithmNone
//
// The trivial white-light algorithm: a pixel's height is its peak frame times the scan increment
// (nanometres), as the upstream discriminator found it, with no look at the fringes; the
// fringe-free intensity is still estimated. Useful as a quick coherence-only map and to see what
// the generator hands to an algorithm. It needs the discriminator only when it makes an intensity
// map (a fringe-removal method other than kNone).
//
//   PhaseAlgorithmNone none;
//   none.SetScanIncrement(UnitNumber(80.0, LinearConverter(Units::kNanometers)));
//   PhaseGenerator generator(&none);
//   generator.Process(frames, peakFrames, auxiliary, surface);  // surface = 80 nm x peak frame
class QUARN_PP_EXPORT PhaseAlgorithmNone : public PhaseAlgorithm {
 public:
  PhaseAlgorithmNone();
  ~PhaseAlgorithmNone() override;

  using PhaseAlgorithm::Initialize;
  void Initialize(int pass, int numberFrames, int qSize, const Analysis::Core::Window2D& window) override;
  int ProcessPixel(int thread, int pixel, int peakFrame, int auxiliary) override;
  void PostProcess() override;
  bool NeedDiscriminator() const override;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

#pragma once

#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/UnitNumber.h"
#include "Analysis/Core/Units.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// Specifications
//
// The scan sampling a library is computed for: the number of samples (frames) and the ramp slope,
// the scan distance per frame, as a `UnitNumber` in nanometres per frame (unit code 5), default
// 0.03. A real scan of N samples has N / 2 + 1 non-negative frequency bins.
//
//   Specifications s;
//   s.SetNumberOfSamples(128);
//   s.GetRampSlope().SetValue(80.0);                       // 80 nm per frame
//   s.GetRampSlope().GetValue(Units::kMicrometersPerFrame); // 0.08
//   s.GetNumberOfBins();                                   // 65
class QUARN_PP_EXPORT Specifications {
 public:
  Specifications() = default;

  int GetNumberOfSamples() const { return numberOfSamples_; }
  void SetNumberOfSamples(int n) { numberOfSamples_ = n; }
  Analysis::Core::UnitNumber& GetRampSlope() { return rampSlope_; }
  const Analysis::Core::UnitNumber& GetRampSlope() const { return rampSlope_; }
  int GetNumberOfBins() const { return numberOfSamples_ / 2 + 1; }
  void Clear() {
    numberOfSamples_ = 0;
    rampSlope_.SetValue(kDefaultRampSlope);
  }

 private:
  static constexpr double kDefaultRampSlope = 0.03;
  int numberOfSamples_ = 0;
  Analysis::Core::UnitNumber rampSlope_{
      kDefaultRampSlope, Analysis::Core::LinearConverter(Analysis::Core::Units::kNanometersPerFrame)};
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

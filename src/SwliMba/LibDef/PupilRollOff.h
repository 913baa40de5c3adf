#pragma once

#include "Analysis/Core/Array.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// PupilRollOff
//
// The relative transmission of the objective's pupil against the polar angle α (rad), one of six
// piecewise models chosen by number, with parameters p0..p6. With s = sin α, c = cos α and negative
// results clamped to 0 where marked:
//
//   model 1 (cosine space):  c ≤ p0: clamp(p1 − p2 (c − p0)²);  p0 < c ≤ p3: p1;  c > p3: 0
//   model 2:  s < p0: clamp(p2 − p3 |s − p0|);  p0 ≤ s < p1: p2;  s ≥ p1: clamp(p2 − p4 |s − p1|³)
//   model 3:  s < p0: clamp(p2 − p6 |p0 − p5| − p3 |s − p0|);  s < p5: p2 − p6 |s − p5|;
//             s < p1: p2;  else clamp(p2 − p4 |s − p1|³)            (compared in this order)
//   model 4:  as model 2 with a linear outer flank clamp(p2 − p4 |s − p1|)
//   model 5:  model 2 inside p5 ≤ s ≤ p6, 0 outside
//   model 6:  inside p5 ≤ s ≤ p6: s < p0: clamp(p2 − p3 |s − p0|);  p0 ≤ s < p1: p2;
//             s ≥ p1: clamp(p2 (½ cos(min(p4 |s − p1|, π)) + ½));  0 outside
//   model 0 and any other: 0.
//
// p0 and p1 bound the flat top of level p2; p3 and p4 are the slopes of the inner and outer
// flanks; p5 and p6 bound the aperture in sine space (models 5 and 6). The default is model 6 with
// all parameters 0; the library generator applies the roll-off only when a parameter is not 0.
class QUARN_PP_EXPORT PupilRollOff {
 public:
  static constexpr int kNumberOfModels = 7;
  static constexpr int kNumberOfParameters = 7;

  PupilRollOff() = default;

  int GetModelNumber() const { return modelNumber_; }
  // Accepts 0 ≤ n < 7; any other value is ignored.
  void SetModelNumber(int n);
  // Length 1 to 6: the first n parameters (the others unchanged); any other length: exactly 7
  // elements, which the caller must provide.
  void SetParameters(const Analysis::Core::Array<double>& p);
  void GetParameters(Analysis::Core::Array<double>& p) const;
  double GetParameter(int i) const { return p_[i]; }
  void Clear();
  // True when every parameter is 0 (the default, which the library generator treats as not set).
  bool IsUnset() const;

  double Model(double alpha) const;
  double GetAlphaMin() const;
  double GetAlphaMax() const;

  // The angles below αmax at which the curve changes formula, ascending, closed by αmax (empty
  // when the aperture closes below αmax; for models 5 and 6 the list ends at the aperture edge
  // asin(p6) when that lies below αmax).
  void GetTransitions(double alphaMax, Analysis::Core::Array<double>& out) const;
  // Sorts `candidates` ascending in place, appends those strictly below αmax to `out`, then αmax.
  static void GetTransitions(Analysis::Core::Array<double>& candidates, double alphaMax,
                             Analysis::Core::Array<double>& out);

 private:
  void GetTransitions1(double alphaMax, Analysis::Core::Array<double>& out) const;
  void GetTransitions2(double alphaMax, Analysis::Core::Array<double>& out) const;
  void GetTransitions3(double alphaMax, Analysis::Core::Array<double>& out) const;
  void GetTransitions4(double alphaMax, Analysis::Core::Array<double>& out) const;
  void GetTransitions5(double alphaMax, Analysis::Core::Array<double>& out) const;
  void GetTransitions6(double alphaMax, Analysis::Core::Array<double>& out) const;
  double Model2(double s) const;

  int modelNumber_ = 6;
  double p_[kNumberOfParameters] = {};
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

#pragma once

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

// FrequencyScan
//
// The host's description of how the scan samples the fringe frequencies. kEqualSteps (0, the
// default) is a scan of equal steps, the only kind the frequency-domain analysis evaluates: its
// bins are equally spaced in wavenumber because the scan steps are. The value is stored and
// returned as set; no other value changes how a pixel is evaluated.
class FrequencyScan {
 public:
  static constexpr int kEqualSteps = 0;

  constexpr FrequencyScan(int value = kEqualSteps) : value_(value) {}  // NOLINT: implicit on purpose
  constexpr int GetValue() const { return value_; }
  constexpr operator int() const { return value_; }  // NOLINT: compares with plain ints

 private:
  int value_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

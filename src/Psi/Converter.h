#pragma once

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

// Converter
//
// One fixed phase-shifting algorithm: it turns the intensity samples of one pixel, one sample per
// phase-shifted frame (frame 0 first, contiguous), into a quadrature pair
//   numerator   ~ b sin(phi),   denominator ~ b cos(phi),
// so that the wrapped phase is atan2(numerator, denominator) in (-pi, pi] and the quadrature
// magnitude sqrt(N^2 + D^2) divided by `GetModulationScale()` is the fringe modulation.
//
// A converter is defined by two columns of frame weights, a phase sign (already applied to the
// numerator that `Convert` returns), a modulation scale and its nominal phase excursion (the total
// phase shift spanned by the frames, radians). It never tests for saturation: the caller does.
// Converters hold no per-pixel state, so one instance is shared read-only by all worker threads;
// `Initialize` (called once per run, before any `Convert`) is the only mutating operation.
//
// The interface has no data and deliberately no virtual destructor: converters are owned by
// value by whoever selects them, never deleted through this interface.
//
// The four converters of this library are final. Where their `Convert` multiplies by
// `GetPhaseSign()` (all but `Convert20`), the compiler then folds the sign into a constant; opened for
// subclassing, the call costs a type test per pixel (about 0.5 ns, 1 to 3 % of the generator's plain
// per-pixel path). The converter generator also recognises them by type to run its block kernels,
// which would skip an overridden `Convert`. A host that needs another sign or other weights
// implements `Converter` itself.
class Converter {
 public:
  virtual void Initialize(int numberOfFrames) = 0;
  virtual double GetModulationScale() const = 0;
  virtual void Convert(double& numerator, double& denominator, const int* samples) const = 0;
  virtual void Convert(double& numerator, double& denominator, const unsigned char* samples) const = 0;
  virtual const double* GetNumerator() const = 0;
  virtual const double* GetDenominator() const = 0;
  virtual double GetPhaseSign() const = 0;
  virtual double GetPhaseExcursion() const = 0;

 protected:
  Converter() = default;
  Converter(const Converter&) = default;
  Converter& operator=(const Converter&) = default;
  ~Converter() = default;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

#pragma once

#include <complex>
#include <memory>

#include "Analysis/Core/QuarnCoreExport.h"
#include "Analysis/Core/Status.h"

namespace Quarn::Metrology::Analysis::Core {

// Fft1DReal
//
// Forward discrete Fourier transform of n real samples into the n/2 + 1 bins of non-negative
// frequency, bin k holding
//
//   X[k] = sum over j = 0 .. n-1 of x[j] exp(-2 pi i j k / n),   k = 0 .. n/2,
//
// unnormalised, with the usual sign of the exponent (that of FFTW and numpy's rfft). Bin 0 is the
// sum of the samples; a sample sequence cos(2 pi k0 j / n) puts (n/2) exp(0 i) into bin k0. Code
// whose formulas are written for the opposite kernel exp(+2 pi i j k / n) takes the complex
// conjugate of the bins it reads (X+[k] = conj(X[k]) for real input).
//
// An instance owns its input and output arrays (aligned for vector instructions) and the transform
// plan for its size: the plan is made once, in the constructor or `Resize`, and `Forward()` only
// executes it, so a per-pixel loop transforms without allocating, planning or locking. Planning is
// serialised with every other transform of the library; executing is not, so each thread uses an
// instance of its own. Plans are made in FFTW's estimate mode, so that every instance of a size
// computes the same sums in the same order: results are identical from thread to thread.
//
//   Fft1DReal fft(64);
//   double* x = fft.Input();              // fill 64 samples
//   fft.Forward();
//   std::complex<double> x17 = fft.Output()[17];
class QUARN_CORE_EXPORT Fft1DReal {
 public:
  Fft1DReal();
  // Plans for `size` samples; on failure the status holds the reason and `GetSize()` is 0.
  explicit Fft1DReal(int size);
  Fft1DReal(const Fft1DReal&) = delete;
  Fft1DReal& operator=(const Fft1DReal&) = delete;
  Fft1DReal(Fft1DReal&& other) noexcept;
  Fft1DReal& operator=(Fft1DReal&& other) noexcept;
  ~Fft1DReal();

  // Re-plans for `size` samples (nothing is done when the size is unchanged). Fails with code 20
  // for a size below 1 and with code 3 when the arrays or the plan cannot be made; the instance is
  // then empty.
  bool Resize(int size);

  int GetSize() const;
  int GetNumberOfBins() const;  // size / 2 + 1

  // The n input samples; `Forward()` leaves them unchanged.
  double* Input();
  const double* Input() const;
  // The n/2 + 1 output bins of the last `Forward()`.
  std::complex<double>* Output();
  const std::complex<double>* Output() const;

  // Transforms Input() into Output(). Does nothing on an empty instance.
  void Forward();
  // Transforms n samples at `input` into n/2 + 1 bins at `output` with the same plan, reading the
  // samples where they lie (no copy when both arrays are 16-byte aligned, as heap arrays of doubles
  // are): the bins are bit for bit those that Forward() gives for the same samples. Neither Input()
  // nor Output() is touched then. Does nothing on an empty instance.
  void Forward(const double* input, std::complex<double>* output);

  Status& GetStatus() { return status_; }
  const Status& GetStatus() const { return status_; }

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
  Status status_;
};

}  // namespace Quarn::Metrology::Analysis::Core

#pragma once

#include <cstddef>
#include <vector>

#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// BandTransform
//
// The bins first .. last of the discrete Fourier transform of n real samples (n a multiple of 4),
// written as the frequency-domain analysis reads them: for bin k
//
//   re = (-1)^k sum_j x_j cos(2 pi j k / n),   im = (-1)^k sum_j x_j sin(2 pi j k / n),
//
// that is the bin of the kernel exp(+2 pi i j k / n) with the phase origin moved to sample n/2 (the
// complex conjugate of FFTW's bin, negated for odd k). A band of a few bins costs far less this way
// than a whole transform: the samples are first folded about n/2 and n/4, using
//
//   cos(2 pi (n - j) k / n) = cos(2 pi j k / n),     sin(2 pi (n - j) k / n) = -sin(2 pi j k / n),
//   cos(2 pi (n/2 - j) k / n) = (-1)^k cos(...),     sin(2 pi (n/2 - j) k / n) = -(-1)^k sin(...),
//
// into four sequences of n/4 sums (one pair for the even bins, one for the odd), and each bin is then
// a sum of n/4 products per part: 16 for n = 64, against 64 in the plain sum. For integer
// samples (all the loaders deliver) the folded sums are exact, so a bin carries the roundings of its
// 16 products and additions only, with twiddle factors rounded once from extended precision: at
// least as accurate as a whole FFT, which rounds through log2 n stages of butterflies and twiddles
// (the test measures both against an extended-precision sum).
//
// Bins k and n/2 - k share their twiddles up to the sign (-1)^j (cos(pi j - a) = (-1)^j cos a,
// sin(pi j - a) = -(-1)^j sin a, and (-1)^k is the same for both): where both lie in the band only the
// lower is summed, its terms of even and of odd j apart, and the upper is their difference. The
// default band 13 .. 21 of 64 samples thus takes 6 bins' sums for its 9.
//
// The bins of one parity are evaluated four at a time in vector lanes (GCC's vector extensions):
// with AVX2 and FMA where the processor has them (each product added with one rounding), else in
// SSE2 pairs (product and sum rounded apart); QUARN_SWLI_ISA=sse2 caps the choice.
struct QUARN_PP_EXPORT BandTransform {
  // Builds the tables for bins first .. last of n samples; false (and an empty transform) unless
  // n is a multiple of 4 from 8 to kMaxSize and 0 <= first <= last <= n / 2.
  bool Plan(int n, int first, int last);
  bool IsPlanned() const { return size > 0; }

  static constexpr int kMaxSize = 256;
  static constexpr int kMaxTerms = kMaxSize / 4;
  static constexpr int kLanes = 4;

  int size = 0;
  int paddedTerms = 0;  // n/4 rounded up to a multiple of 4
  int first = 0;
  int last = -1;
  // Per parity p (0 even, 1 odd): the bins evaluated in lanes (`bins`; each with the band bin
  // n/2 - k it also gives, or -1, in `mirrors`), the number of vectors of four they fill, and the
  // twiddles as [vector][j - 1][lane] for j = 1 .. paddedTerms (sign (-1)^k included, halved at
  // j = n/4, 0 for padding lanes and terms).
  std::vector<int> bins[2];
  std::vector<int> mirrors[2];
  int vectors[2] = {0, 0};
  std::vector<double> cosines[2];
  std::vector<double> sines[2];
};

// Writes bin first + b of the n samples at `x` to re[b * stride] and im[b * stride].
using BandBinsFunction = void (*)(const BandTransform& transform, const double* x, double* re, double* im,
                                  std::ptrdiff_t stride);

QUARN_PP_EXPORT void BandBinsSse2(const BandTransform& transform, const double* x, double* re, double* im,
                                  std::ptrdiff_t stride);
QUARN_PP_EXPORT void BandBinsAvx2(const BandTransform& transform, const double* x, double* re, double* im,
                                  std::ptrdiff_t stride);

// The widest implementation this processor runs. (Exported, like the kernels, for their test.)
QUARN_PP_EXPORT BandBinsFunction SelectBandBins();

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

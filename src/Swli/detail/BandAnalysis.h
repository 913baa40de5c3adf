#pragma once

#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// The frequency-domain analysis of a block of pixels' bands, across the pixels: the arrays hold
// the band's bins row after row (bin b of lane i at b x kBandLanes + i), so that each step runs on
// vectors of pixels. For every lane:
// - power = re^2 + im^2 where that exceeds the threshold, else 0 (an empty bin);
// - the strongest bin `at` (the first of equal powers; -1 when every bin is empty) and its power;
// - the phase unwrapped outwards from the strongest bin, downwards then upwards, each direction
//   stopping at its first empty bin (a step of more than pi from the inner neighbour takes 2 pi
//   off, of less than -pi adds 2 pi), and the run's ends lower .. upper (bin indices within the
//   band; bins outside the run get phase 0);
// - the power-weighted line fit of phase y against bin number k = first + b over the run: with
//   sw = sum w, sk = sum w k, skk = sum w k k, sy = sum w y, sky = sum w y k and
//   D = skk sw - sk^2, intercept = (sy skk - sky sk) / D and slope = (sky sw - sy sk) / D;
// - k0 = first + at + (P[at-1] - P[at+1]) / (2 (P[at+1] + P[at-1] - 2 P[at])), the strongest bin
//   refined by a parabola through the powers.
// k0, intercept and slope mean something only where the run has bins on both sides of `at` (the
// caller's test).
// Every step is the scalar path's arithmetic in the same order, a select where the scalar path
// branches: bins outside a lane's run enter the sums with weight 0, adding exact zeros, so each
// lane's results are those of the pixel-by-pixel unwrapping and fit bit for bit (no contraction of
// products into fused multiply-adds in either build).
inline constexpr int kBandLanes = 32;

struct BandAnalysisBlock {
  int bins = 0;      // the band's bins (rows)
  int firstBin = 0;  // bin number of row 0
  double threshold = 0.0;
  const double* re = nullptr;
  const double* im = nullptr;
  double* power = nullptr;          // written by AnalysePowers
  const double* wrapped = nullptr;  // the bins' phases, read by UnwrapAndSum
  double* phase = nullptr;          // written by UnwrapAndSum
  // Per lane (kBandLanes each), written by UnwrapAndSum; bin indices as doubles.
  double* top = nullptr;
  double* at = nullptr;
  double* lower = nullptr;
  double* upper = nullptr;
  double* k0 = nullptr;
  double* intercept = nullptr;
  double* slope = nullptr;
};

// `powers`: the powers and each lane's strongest bin; `unwrapAndSum` (after the caller has filled
// `wrapped`): the unwrapping, the fit and k0.
struct BandAnalysisFunctions {
  void (*powers)(const BandAnalysisBlock& block);
  void (*unwrapAndSum)(const BandAnalysisBlock& block);
};

QUARN_PP_EXPORT BandAnalysisFunctions BandAnalysisSse2();
QUARN_PP_EXPORT BandAnalysisFunctions BandAnalysisAvx2();
QUARN_PP_EXPORT BandAnalysisFunctions BandAnalysisAvx512();
// The widest implementation this processor runs (QUARN_SWLI_ISA=avx2 or sse2 caps the choice).
QUARN_PP_EXPORT BandAnalysisFunctions SelectBandAnalysis();

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

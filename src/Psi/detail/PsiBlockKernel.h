#pragma once

#include <cstdint>

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail {

// The quadrature kernels the block path knows. Each reproduces the arithmetic of one per-pixel
// path exactly: the 7- and 13-frame integer sums, the paired 20-frame sums, and double weights
// accumulated in frame order (the sliding 13-frame converter and re-weighted frames).
enum class PsiBlockKernelKind { kSeven, kThirteen, kTwenty, kWeights };

// Everything one run of the block path needs; plain data so that it can cross into the
// instruction-set-specific translation units without pulling library headers into them.
struct PsiBlockParams {
  const void* const* planes = nullptr;  // one pointer per frame to its samples (pixel 0 first)
  int frames = 0;
  int sampleBytes = 1;  // 1: uint8, 2: uint16, 4: int32
  PsiBlockKernelKind kind = PsiBlockKernelKind::kWeights;
  const double* numeratorWeights = nullptr;    // kWeights only
  const double* denominatorWeights = nullptr;  // kWeights only
  double numeratorSign = 1.0;                  // the converter's phase sign, applied to N
  bool applySign = true;                       // false for the 20-frame kernel (its sign is +1)
  int saturationLevel = 0;
  double modulationThreshold = 0.0;
  bool estimateMagnitude = false;
  double estimateFactor = 1.0;
  double modulationScale = 1.0;
  double phaseScale = 1.0;
  double noData = 0.0;
  double* phase = nullptr;
  double* modulation = nullptr;  // may be null
};

// Converts the pixels [first, end).
using PsiBlockFunction = void (*)(const PsiBlockParams& params, int first, int end);

// Implementations per instruction set; only call one the processor supports.
void ConvertBlockSse2(const PsiBlockParams& params, int first, int end);
void ConvertBlockAvx2(const PsiBlockParams& params, int first, int end);
void ConvertBlockAvx512(const PsiBlockParams& params, int first, int end);

// The widest implementation this processor runs.
PsiBlockFunction SelectPsiBlockFunction();

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail

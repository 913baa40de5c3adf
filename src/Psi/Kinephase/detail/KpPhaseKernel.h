#pragma once

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail {

// One row of the phase extraction: the complex signal z (real and imaginary parts interleaved)
// becomes modulation 2 |z| everywhere and phase atan2(Im z, Re z) x scale where the modulation is
// not below the threshold (no data elsewhere). Before that, with `rotators` (cos, sin interleaved,
// one per pixel), each z is rotated in place to (Re z cos - Im z sin, Re z sin + Im z cos), the
// carrier removal's arithmetic; after it, with `noDataIds`, each pixel's id is 0 where the phase is
// no data and the invalid region id elsewhere, the trim's marking. Plain data, so that it crosses
// into the instruction-set-specific translation unit without library headers. Without a modulation
// row (null) the modulation is formed for the threshold and not stored.
struct KpPhaseRow {
  double* z = nullptr;
  int columns = 0;
  double threshold = 0.0;
  double scale = 1.0;
  double noData = 0.0;
  double* phase = nullptr;
  double* modulation = nullptr;
  const double* rotators = nullptr;
  int* noDataIds = nullptr;
  int invalidId = 0;
  // The outputs bypass the cache (where they are aligned for it): for a caller that writes far
  // more than the cache holds before it reads them back.
  bool stream = false;
};

using KpPhaseRowFunction = void (*)(const KpPhaseRow& row);

// The reference: libm's atan2, one pixel at a time.
void PhaseRowReference(const KpPhaseRow& row);
// Four pixels at a time with SLEEF's 3.5-ulp atan2 (twice as fast as its 1-ulp one; libm's is
// within 1 ulp of exact): the rotated signal, the modulation, the validity and the ids are
// bit-identical to the reference, the phase within 4 ulp of it. Only call where AVX2 and FMA run.
void PhaseRowAvx2(const KpPhaseRow& row);

// The AVX2 row when `fast` is set and the processor runs it, the reference otherwise.
KpPhaseRowFunction SelectPhaseRow(bool fast);

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail

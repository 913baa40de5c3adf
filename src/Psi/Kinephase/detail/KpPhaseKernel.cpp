#include <cmath>

#include "Psi/Kinephase/detail/KpPhaseKernel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail {

void PhaseRowReference(const KpPhaseRow& row) {
  if (row.rotators) {
    for (int c = 0; c < row.columns; ++c) {
      const double re = row.z[2 * c], im = row.z[2 * c + 1];
      const double cosine = row.rotators[2 * c], sine = row.rotators[2 * c + 1];
      row.z[2 * c] = re * cosine - im * sine;
      row.z[2 * c + 1] = re * sine + im * cosine;
    }
  }
  for (int c = 0; c < row.columns; ++c) {
    const double re = row.z[2 * c], im = row.z[2 * c + 1];
    const double m = 2.0 * std::sqrt(re * re + im * im);
    if (row.modulation) row.modulation[c] = m;
    row.phase[c] = row.threshold > m ? row.noData : std::atan2(im, re) * row.scale;
  }
  if (row.noDataIds) {
    for (int c = 0; c < row.columns; ++c)
      row.noDataIds[c] = row.phase[c] >= row.noData ? 0 : row.invalidId;
  }
}

KpPhaseRowFunction SelectPhaseRow(bool fast) {
  __builtin_cpu_init();
  if (fast && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return &PhaseRowAvx2;
  return &PhaseRowReference;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail

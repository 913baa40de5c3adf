// The band transform's tables, its kernel on the x86-64 baseline (SSE2) and the choice of kernel; see
// BandTransform.h.
#include "Swli/detail/BandTransform.h"
#include "Swli/detail/IsaCap.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numbers>

namespace {
#include "Swli/detail/BandTransformBody.inc"
}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

namespace {
// cos and sin of 2 pi m / n (n a multiple of 4), each rounded once to double from extended
// precision. The angle is reduced to the first octant by whole quadrants and the complement, exact
// reflections, so that values the exact transform has equal (up to sign) are equal here, and the
// quadrant angles give exact 0 and 1.
void Twiddle(long long m, int n, double& cosine, double& sine) {
  m %= n;
  if (m < 0) m += n;
  const long long quarter = n / 4;
  const long long quadrant = m / quarter;
  const long long r = m % quarter;
  const auto angle = [n](long long k) {
    return 2.0L * std::numbers::pi_v<long double> * static_cast<long double>(k) / static_cast<long double>(n);
  };
  long double c, s;
  if (2 * r <= quarter) {
    c = std::cos(angle(r));
    s = std::sin(angle(r));
  } else {
    c = std::sin(angle(quarter - r));
    s = std::cos(angle(quarter - r));
  }
  const double cd = static_cast<double>(c), sd = static_cast<double>(s);
  const double rotated[4][2] = {{cd, sd}, {-sd, cd}, {-cd, -sd}, {sd, -cd}};
  cosine = rotated[quadrant][0];
  sine = rotated[quadrant][1];
}
}  // namespace

bool BandTransform::Plan(int n, int firstBin, int lastBin) {
  *this = BandTransform();
  if (n < 8 || n > kMaxSize || n % 4 != 0 || firstBin < 0 || lastBin < firstBin || lastBin > n / 2)
    return false;
  size = n;
  first = firstBin;
  last = lastBin;
  const int terms = n / 4;
  paddedTerms = (terms + 3) / 4 * 4;
  const int half = n / 2;
  for (int k = first; k <= last; ++k) {
    const int mirror = half - k;
    if (mirror >= first && mirror <= last && mirror < k) continue;  // given by its lower mirror
    bins[k % 2].push_back(k);
    mirrors[k % 2].push_back(mirror > k && mirror <= last ? mirror : -1);
  }
  for (int p = 0; p < 2; ++p) {
    const int count = static_cast<int>(bins[p].size());
    vectors[p] = (count + kLanes - 1) / kLanes;
    const std::size_t lanes = static_cast<std::size_t>(vectors[p]) * kLanes;
    cosines[p].assign(lanes * static_cast<std::size_t>(paddedTerms), 0.0);
    sines[p].assign(lanes * static_cast<std::size_t>(paddedTerms), 0.0);
    for (int i = 0; i < count; ++i) {
      const int k = bins[p][static_cast<std::size_t>(i)];
      const double binSign = (k % 2 == 0) ? 1.0 : -1.0;
      const int v = i / kLanes, l = i % kLanes;
      for (int j = 1; j <= terms; ++j) {
        double c = 0.0, s = 0.0;
        Twiddle(static_cast<long long>(j) * k, n, c, s);
        // The n/4 sample enters the folded sums twice (paired with itself): half its twiddle.
        const double weight = j == terms ? 0.5 * binSign : binSign;
        const std::size_t at =
            (static_cast<std::size_t>(v) * paddedTerms + static_cast<std::size_t>(j - 1)) * kLanes +
            static_cast<std::size_t>(l);
        cosines[p][at] = weight * c;
        sines[p][at] = weight * s;
      }
    }
  }
  return true;
}

void BandBinsSse2(const BandTransform& transform, const double* x, double* re, double* im,
                  std::ptrdiff_t stride) {
  BandBinsBody(transform, x, re, im, stride);
}

BandBinsFunction SelectBandBins() {
  const bool allowAvx2 = ReadIsaCap().avx2;
  __builtin_cpu_init();
  if (allowAvx2 && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return &BandBinsAvx2;
  return &BandBinsSse2;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

// Built with -mavx2: only reached through SelectCentroidBlockSums8 on a processor that has it.
#include <immintrin.h>

#include <algorithm>

#include "Swli/detail/CentroidBlockKernel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

namespace {
constexpr int kGroup = 16;  // lanes of 16-bit integers in one register
// A window start that no frame of the copy reaches: f - start, taken unsigned, is never below q.
constexpr short kUnused = 0x4000;
}  // namespace

// 8-bit samples. Bounds that keep every lane within its integer width (q <= 128, 8-bit samples, frameCount <=
// 2q): D <= 128 x 255 = 32640 and |q d - D| <= 32640 fit 16 bits; the sums over frames are 32-bit, with sum
// (j + 1) |q d - D| <= 257 x 128 x 32640 < 2^31.
void CentroidBlockSums8Avx2(const CentroidBlockInput<std::uint8_t>& in, CentroidBlockSums& out) {
  const int frames = in.frameCount;
  const int q = in.q;
  const __m128i shift = _mm_cvtsi32_si128(q == 128 ? 7 : 6);
  const __m256i lastOffset = _mm256_set1_epi16(static_cast<short>(q - 1));
  const __m256i ones = _mm256_set1_epi16(1);
  for (int group = 0; group < kCentroidLanes; group += kGroup) {
    alignas(32) short start[kGroup];
    // The core: frames inside every used lane's window, summed without masks.
    int coreLo = 0, coreHi = frames;
    bool used = false;
    for (int i = 0; i < kGroup; ++i) {
      const int s = in.start[group + i];
      if (s < 0) {
        start[i] = kUnused;
        continue;
      }
      start[i] = static_cast<short>(s);
      used = true;
      coreLo = std::max(coreLo, s);
      coreHi = std::min(coreHi, s + q);
    }
    if (!used) {
      for (int i = 0; i < kGroup; ++i)
        out.samples[group + i] = out.deviations[group + i] = out.moments[group + i] = 0;
      continue;
    }
    if (coreHi <= coreLo) coreLo = coreHi = frames;  // no frame common to all: mask every one
    const __m256i windowStart = _mm256_load_si256(reinterpret_cast<const __m256i*>(start));
    // All ones in the lanes whose window holds frame f: 0 <= f - start <= q - 1, taken unsigned.
    const auto inWindow = [&](int f) {
      const __m256i offset = _mm256_sub_epi16(_mm256_set1_epi16(static_cast<short>(f)), windowStart);
      return _mm256_cmpeq_epi16(_mm256_min_epu16(offset, lastOffset), offset);
    };
    const std::uint8_t* column = in.frames + group;
    const auto row = [column](int f) {
      return _mm256_cvtepu8_epi16(_mm_loadu_si128(
          reinterpret_cast<const __m128i*>(column + static_cast<std::ptrdiff_t>(f) * kCentroidLanes)));
    };

    __m256i sum = _mm256_setzero_si256();
    for (int f = 0; f < coreLo; ++f)
      sum = _mm256_add_epi16(sum, _mm256_and_si256(row(f), inWindow(f)));
    for (int f = coreLo; f < coreHi; ++f)
      sum = _mm256_add_epi16(sum, row(f));
    for (int f = coreHi; f < frames; ++f)
      sum = _mm256_add_epi16(sum, _mm256_and_si256(row(f), inWindow(f)));

    // |q d - D| of frame f, and the same masked to the lanes' windows.
    const auto deviation = [&](int f) {
      return _mm256_abs_epi16(_mm256_sub_epi16(_mm256_sll_epi16(row(f), shift), sum));
    };
    const auto maskedDeviation = [&](int f) { return _mm256_and_si256(deviation(f), inWindow(f)); };
    // Frames go in pairs, interleaved per lane so that one multiply-add of 16-bit pairs gives the two
    // frames' contribution as one 32-bit sum: the unpacks pair lanes 0-3 and 8-11 (low) and 4-7 and
    // 12-15 (high) of the group. The weight of frame f is f + 1 (one-based from the copy's start).
    __m256i deviationLow = _mm256_setzero_si256(), deviationHigh = _mm256_setzero_si256();
    __m256i momentLow = _mm256_setzero_si256(), momentHigh = _mm256_setzero_si256();
    for (int f = 0; f < frames; f += 2) {
      const bool core = f >= coreLo && f + 1 < coreHi;
      const __m256i a = core ? deviation(f) : maskedDeviation(f);
      const __m256i b = core ? deviation(f + 1) : maskedDeviation(f + 1);
      const __m256i low = _mm256_unpacklo_epi16(a, b), high = _mm256_unpackhi_epi16(a, b);
      const __m256i weights =
          _mm256_set1_epi32(static_cast<int>((static_cast<unsigned>(f + 2) << 16) | (f + 1)));
      deviationLow = _mm256_add_epi32(deviationLow, _mm256_madd_epi16(low, ones));
      deviationHigh = _mm256_add_epi32(deviationHigh, _mm256_madd_epi16(high, ones));
      momentLow = _mm256_add_epi32(momentLow, _mm256_madd_epi16(low, weights));
      momentHigh = _mm256_add_epi32(momentHigh, _mm256_madd_epi16(high, weights));
    }

    alignas(32) short sums[kGroup];
    alignas(32) int deviations[2][8], moments[2][8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(sums), sum);
    _mm256_store_si256(reinterpret_cast<__m256i*>(deviations[0]), deviationLow);
    _mm256_store_si256(reinterpret_cast<__m256i*>(deviations[1]), deviationHigh);
    _mm256_store_si256(reinterpret_cast<__m256i*>(moments[0]), momentLow);
    _mm256_store_si256(reinterpret_cast<__m256i*>(moments[1]), momentHigh);
    for (int i = 0; i < kGroup; ++i) {
      const int lane = group + i;
      if (start[i] == kUnused) {
        out.samples[lane] = out.deviations[lane] = out.moments[lane] = 0;
        continue;
      }
      // Lane i sits in half i / 8 of the registers, in the low (i % 8 < 4) or high unpack, at i % 4.
      const int half = (i % 8) / 4, slot = (i / 8) * 4 + i % 4;
      const std::int64_t dev = deviations[half][slot];
      out.samples[lane] = static_cast<std::uint16_t>(sums[i]);
      out.deviations[lane] = dev;
      // Weights counted from the copy's start; the lane's own count starts at its window.
      out.moments[lane] = moments[half][slot] - start[i] * dev;
    }
  }
}

// 16-bit samples: eight lanes of 32-bit integers at a time. D <= 128 x 65535 < 2^23 and
// |q d - D| < 2^23; their sum over a window stays below 2^30, and the weighted sums, up to
// 257 x 2^30, are 64-bit: the products of the even and of the odd lanes, each a 32 x 32-bit multiply.
void CentroidBlockSums16Avx2(const CentroidBlockInput<std::uint16_t>& in, CentroidBlockSums& out) {
  constexpr int kWide = 8;  // lanes of 32-bit integers in one register
  const int frames = in.frameCount;
  const int q = in.q;
  const __m128i shift = _mm_cvtsi32_si128(q == 128 ? 7 : 6);
  const __m256i lastOffset = _mm256_set1_epi32(q - 1);
  for (int group = 0; group < kCentroidLanes; group += kWide) {
    alignas(32) int start[kWide];
    int coreLo = 0, coreHi = frames;
    bool used = false;
    for (int i = 0; i < kWide; ++i) {
      const int s = in.start[group + i];
      if (s < 0) {
        start[i] = kUnused;
        continue;
      }
      start[i] = s;
      used = true;
      coreLo = std::max(coreLo, s);
      coreHi = std::min(coreHi, s + q);
    }
    if (!used) {
      for (int i = 0; i < kWide; ++i)
        out.samples[group + i] = out.deviations[group + i] = out.moments[group + i] = 0;
      continue;
    }
    if (coreHi <= coreLo) coreLo = coreHi = frames;
    const __m256i windowStart = _mm256_load_si256(reinterpret_cast<const __m256i*>(start));
    const auto inWindow = [&](int f) {
      const __m256i offset = _mm256_sub_epi32(_mm256_set1_epi32(f), windowStart);
      return _mm256_cmpeq_epi32(_mm256_min_epu32(offset, lastOffset), offset);
    };
    const std::uint16_t* column = in.frames + group;
    const auto row = [column](int f) {
      return _mm256_cvtepu16_epi32(_mm_loadu_si128(
          reinterpret_cast<const __m128i*>(column + static_cast<std::ptrdiff_t>(f) * kCentroidLanes)));
    };

    __m256i sum = _mm256_setzero_si256();
    for (int f = 0; f < coreLo; ++f)
      sum = _mm256_add_epi32(sum, _mm256_and_si256(row(f), inWindow(f)));
    for (int f = coreLo; f < coreHi; ++f)
      sum = _mm256_add_epi32(sum, row(f));
    for (int f = coreHi; f < frames; ++f)
      sum = _mm256_add_epi32(sum, _mm256_and_si256(row(f), inWindow(f)));

    __m256i deviationSum = _mm256_setzero_si256();
    __m256i momentEven = _mm256_setzero_si256(), momentOdd = _mm256_setzero_si256();
    for (int f = 0; f < frames; ++f) {
      __m256i a = _mm256_abs_epi32(_mm256_sub_epi32(_mm256_sll_epi32(row(f), shift), sum));
      if (f < coreLo || f >= coreHi) a = _mm256_and_si256(a, inWindow(f));
      const __m256i weight = _mm256_set1_epi64x(f + 1);
      deviationSum = _mm256_add_epi32(deviationSum, a);
      momentEven = _mm256_add_epi64(momentEven, _mm256_mul_epu32(a, weight));
      momentOdd = _mm256_add_epi64(momentOdd, _mm256_mul_epu32(_mm256_srli_epi64(a, 32), weight));
    }

    alignas(32) int sums[kWide], deviations[kWide];
    alignas(32) std::int64_t moments[2][4];
    _mm256_store_si256(reinterpret_cast<__m256i*>(sums), sum);
    _mm256_store_si256(reinterpret_cast<__m256i*>(deviations), deviationSum);
    _mm256_store_si256(reinterpret_cast<__m256i*>(moments[0]), momentEven);
    _mm256_store_si256(reinterpret_cast<__m256i*>(moments[1]), momentOdd);
    for (int i = 0; i < kWide; ++i) {
      const int lane = group + i;
      if (start[i] == kUnused) {
        out.samples[lane] = out.deviations[lane] = out.moments[lane] = 0;
        continue;
      }
      out.samples[lane] = sums[i];
      out.deviations[lane] = deviations[i];
      out.moments[lane] = moments[i % 2][i / 2] - static_cast<std::int64_t>(start[i]) * deviations[i];
    }
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

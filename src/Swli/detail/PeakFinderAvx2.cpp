// The vectorised peak-frame finder compiled for AVX2 (with FMA): the kernels of PeakFinderBytes.inc
// (8-bit scans) and PeakFinderNarrow.inc (16-bit scans below 2^14) on AVX2's vectors, and the kernel
// for 16-bit scans of any range in doubles; the generic body of PeakFinderBody.inc runs the last few
// pixels of a chunk that fill no vector.
#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>

#include "Swli/detail/PeakFinderKernel.h"

namespace {
#include "Swli/detail/PeakFinderBody.inc"

using Quarn::Metrology::PhaseProcessing::Core::Swli::detail::PeakFinderParams;

#include "Swli/detail/PeakFinderBytes.inc"

// AVX2's vectors for the 8-bit kernel.
struct Avx2Bytes {
  using Vec = __m256i;
  static constexpr int kLanes = 32;
  static Vec Load(const void* at) { return _mm256_load_si256(static_cast<const __m256i*>(at)); }
  static Vec LoadU(const void* at) { return _mm256_loadu_si256(static_cast<const __m256i*>(at)); }
  static void Store(void* at, Vec v) { _mm256_store_si256(static_cast<__m256i*>(at), v); }
  static Vec Zero() { return _mm256_setzero_si256(); }
  static Vec Broadcast(int v) { return _mm256_set1_epi32(v); }
  static void Difference(Vec after, Vec before, Vec& d0, Vec& d1) {
    const Vec weights = _mm256_set1_epi16(static_cast<short>(0xf010));  // bytes (16, -16)
    d0 = _mm256_maddubs_epi16(_mm256_unpacklo_epi8(after, before), weights);
    d1 = _mm256_maddubs_epi16(_mm256_unpackhi_epi8(after, before), weights);
  }
  static Vec PairLo(Vec a, Vec b) { return _mm256_unpacklo_epi16(a, b); }
  static Vec PairHi(Vec a, Vec b) { return _mm256_unpackhi_epi16(a, b); }
  static Vec Lead(Vec h, Vec p, Vec c) {
    const Vec flip = _mm256_set1_epi32(static_cast<int>(0x0001'ffffu));  // 16-bit lanes (-1, 1)
    return _mm256_max_epi32(_mm256_add_epi32(h, _mm256_madd_epi16(p, _mm256_sign_epi16(p, flip))), c);
  }
  static Vec AddSquares(Vec e, Vec q) { return _mm256_add_epi32(e, _mm256_madd_epi16(q, q)); }
};

// 16-bit scans of any range, eight pixels per step in doubles. Energies of nine 16-bit differences
// reach 9 x 65535^2 < 2^36, beyond 32 bits; doubles hold every multiple of 1/256 below 2^44 exactly,
// so their sums are as exact as the generic body's 64-bit integers, and unlike 64-bit integers they
// have a maximum instruction. The frame code takes the 8 bits below the point: a key E(k) + code(k)
// / 256, in blocks of 256 frames, as for 8-bit scans, and the same lead H = best key so far less the
// current energy is carried, H(k) = max(H(k-1) + d_old^2 - d_new^2, code(k) / 256), two fused
// multiply-adds (exact: every value is such a multiple) and a maximum per pixel and frame. The ring
// keeps the differences.
constexpr int kWordCodeBits = 8;
constexpr int kWordBlock = 1 << kWordCodeBits;
constexpr int kWordLanes = 8;
// Pixels per chunk: the chunk's ring of doubles (18 KB) stays in L1.
constexpr int kWordsChunk = 256;

template <bool kReversed>
void WordsChunk(const PeakFinderParams& p, std::int64_t start, int n) {
  alignas(32) double ring[kWindow][kWordsChunk];
  alignas(32) double lead[kWordsChunk];
  alignas(32) double bestEnergy[kWordsChunk];
  alignas(32) std::int32_t peak[kWordsChunk];
  for (auto& slot : ring)
    std::fill(slot, slot + n, 0.0);
  std::fill(bestEnergy, bestEnergy + n, 0.0);
  std::fill(peak, peak + n, 0);
  const int count = p.frames;
  const auto plane = [&](int f) { return static_cast<const std::uint16_t*>(p.planes[f]) + start; };
  // Difference j = s[j+1] - s[j-1] of eight pixels, four per half.
  const auto difference = [&](const std::uint16_t* before, const std::uint16_t* after, int i, __m256d& lo,
                              __m256d& hi) {
    const __m256i a = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(after + i)));
    const __m256i b = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(before + i)));
    const __m256i d = _mm256_sub_epi32(a, b);
    lo = _mm256_cvtepi32_pd(_mm256_castsi256_si128(d));
    hi = _mm256_cvtepi32_pd(_mm256_extracti128_si256(d, 1));
  };
  // Difference j of eight pixels into its ring slot, and the leads carried over it with code c.
  const auto step = [&](const std::uint16_t* before, const std::uint16_t* after, double* slot, int i,
                        __m256d c, __m256d& h0, __m256d& h1) {
    __m256d d0, d1;
    difference(before, after, i, d0, d1);
    const __m256d o0 = _mm256_load_pd(slot + i), o1 = _mm256_load_pd(slot + i + 4);
    _mm256_store_pd(slot + i, d0);
    _mm256_store_pd(slot + i + 4, d1);
    h0 = _mm256_max_pd(_mm256_fnmadd_pd(d0, d0, _mm256_fmadd_pd(o0, o0, h0)), c);
    h1 = _mm256_max_pd(_mm256_fnmadd_pd(d1, d1, _mm256_fmadd_pd(o1, o1, h1)), c);
  };

  int j = 1;
  for (; j < kWindow && j + 1 < count; ++j) {
    double* slot = ring[j % kWindow];
    for (int i = 0; i < n; i += kWordLanes) {
      __m256d d0, d1;
      difference(plane(j - 1), plane(j + 1), i, d0, d1);
      _mm256_store_pd(slot + i, d0);
      _mm256_store_pd(slot + i + 4, d1);
    }
  }
  while (j + 1 < count) {
    const int blockEnd = std::min(count - 1, j + kWordBlock);
    const int firstPeak = j - kHalfWindow;
    std::fill(lead, lead + n, -std::numeric_limits<double>::infinity());
    const auto code = [&](int difference) {
      const int c = difference - kHalfWindow - firstPeak;
      return _mm256_set1_pd((kReversed ? c : kWordBlock - 1 - c) / static_cast<double>(kWordBlock));
    };
    constexpr int kUnroll = 4;
    for (; j + kUnroll <= blockEnd; j += kUnroll) {
      const std::uint16_t* s[kUnroll + 2];
      for (int u = 0; u < kUnroll + 2; ++u)
        s[u] = plane(j - 1 + u);
      const std::uint16_t* ahead[kUnroll];
      for (int u = 0; u < kUnroll; ++u)
        ahead[u] = plane(std::min(j + kUnroll + 1 + u, count - 1));
      double* slot[kUnroll];
      __m256d c[kUnroll];
      for (int u = 0; u < kUnroll; ++u) {
        slot[u] = ring[(j + u) % kWindow];
        c[u] = code(j + u);
      }
      for (int i = 0; i < n; i += kWordLanes) {
        if (i % 32 == 0) {
          for (const std::uint16_t* f : ahead)
            _mm_prefetch(reinterpret_cast<const char*>(f + i), _MM_HINT_T0);
        }
        __m256d h0 = _mm256_load_pd(lead + i), h1 = _mm256_load_pd(lead + i + 4);
        for (int u = 0; u < kUnroll; ++u)
          step(s[u], s[u + 2], slot[u], i, c[u], h0, h1);
        _mm256_store_pd(lead + i, h0);
        _mm256_store_pd(lead + i + 4, h1);
      }
    }
    for (; j < blockEnd; ++j) {
      const __m256d c = code(j);
      for (int i = 0; i < n; i += kWordLanes) {
        __m256d h0 = _mm256_load_pd(lead + i), h1 = _mm256_load_pd(lead + i + 4);
        step(plane(j - 1), plane(j + 1), ring[j % kWindow], i, c, h0, h1);
        _mm256_store_pd(lead + i, h0);
        _mm256_store_pd(lead + i + 4, h1);
      }
    }
    // The block's best keys: the leads plus the energies of the last window, which the ring holds.
    for (int i = 0; i < n; i += 4) {
      __m256d e = _mm256_setzero_pd();
      for (const auto& slot : ring)
        e = _mm256_fmadd_pd(_mm256_load_pd(slot + i), _mm256_load_pd(slot + i), e);
      _mm256_store_pd(lead + i, _mm256_add_pd(_mm256_load_pd(lead + i), e));
    }
    for (int i = 0; i < n; ++i) {
      const double e = std::floor(lead[i]);
      const int c = static_cast<int>((lead[i] - e) * kWordBlock);
      const std::int32_t k = firstPeak + (kReversed ? c : kWordBlock - 1 - c);
      const bool better = kReversed ? (e >= bestEnergy[i]) & (e > 0) : e > bestEnergy[i];
      bestEnergy[i] = better ? e : bestEnergy[i];
      peak[i] = better ? k : peak[i];
    }
  }
  std::copy(peak, peak + n, p.peaks + start);
}

void WideRange(const PeakFinderParams& p, std::int64_t first, std::int64_t end) {
  for (std::int64_t start = first; start < end; start += kWordsChunk) {
    const int n = static_cast<int>(std::min<std::int64_t>(end - start, kWordsChunk));
    const int whole = n / kWordLanes * kWordLanes;
    if (whole > 0) {
      if (p.reversed) {
        WordsChunk<true>(p, start, whole);
      } else {
        WordsChunk<false>(p, start, whole);
      }
    }
    if (whole < n) Range<std::uint16_t, std::int64_t, std::int64_t>(p, start + whole, start + n);
  }
}

#include "Swli/detail/PeakFinderNarrow.inc"

// AVX2's vectors for the kernel of limited range.
struct Avx2Words {
  using Vec = __m256i;
  static constexpr int kLanes = 16;
  static Vec Load(const void* at) { return _mm256_load_si256(static_cast<const __m256i*>(at)); }
  static Vec LoadU(const void* at) { return _mm256_loadu_si256(static_cast<const __m256i*>(at)); }
  static void Store(void* at, Vec v) { _mm256_store_si256(static_cast<__m256i*>(at), v); }
  static Vec Zero() { return _mm256_setzero_si256(); }
  static Vec Broadcast(int v) { return _mm256_set1_epi32(v); }
  static Vec Or(Vec a, Vec b) { return _mm256_or_si256(a, b); }
  static Vec Sub16(Vec a, Vec b) { return _mm256_sub_epi16(a, b); }
  static bool Below(Vec seen, unsigned limit) {
    return _mm256_testz_si256(seen, _mm256_set1_epi16(static_cast<short>(0x10000u - limit))) != 0;
  }
  static Vec PairLo(Vec a, Vec b) { return _mm256_unpacklo_epi16(a, b); }
  static Vec PairHi(Vec a, Vec b) { return _mm256_unpackhi_epi16(a, b); }
  static Vec AddChange(Vec e, Vec p) {
    const Vec flip = _mm256_set1_epi32(static_cast<int>(0xffff'0001u));  // 16-bit lanes (1, -1)
    return _mm256_add_epi32(e, _mm256_madd_epi16(p, _mm256_sign_epi16(p, flip)));
  }
  template <bool kReversed>
  static void Track(Vec e, Vec k, Vec& best, Vec& at) {
    const Vec top = _mm256_max_epu32(best, e);
    at = kReversed ? _mm256_blendv_epi8(at, k, _mm256_cmpeq_epi32(top, e))
                   : _mm256_blendv_epi8(k, at, _mm256_cmpeq_epi32(top, best));
    best = top;
  }
};

}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

void FindPeaksAvx2Wide(const PeakFinderParams& params, std::int64_t first, std::int64_t end) {
  WideRange(params, first, end);
}

void FindPeaksAvx2(const PeakFinderParams& params, std::int64_t first, std::int64_t end) {
  if (params.sampleBytes == 1) {
    BytesRange<Avx2Bytes>(params, first, end);
  } else {
    WordsRange<Avx2Words>(params, first, end, &WideRange);
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

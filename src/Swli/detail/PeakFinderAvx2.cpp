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

#include "Swli/detail/PeakFinderWide.inc"

// AVX2's vectors for the kernel of any range: keys in doubles (AVX2 has no 64-bit maximum), four
// per vector, eight pixels per step, the ring keeping the differences. Each change is added by two
// fused multiply-adds, both exact.
struct Avx2Doubles {
  using Vec = __m256d;
  using Key = double;
  using Ring = double;
  static constexpr int kStep = 8;
  static constexpr int kChunk = 256;  // a ring of 18 KB
  static constexpr double kLowest = -std::numeric_limits<double>::infinity();
  static Vec LoadKeys(const double* at) { return _mm256_load_pd(at); }
  static void StoreKeys(double* at, Vec v) { _mm256_store_pd(at, v); }
  static Vec Code(int code) { return _mm256_set1_pd(code / static_cast<double>(kWordBlock)); }
  using Samples = __m256i;  // eight samples in 32-bit lanes
  static Samples Load(const std::uint16_t* at) {
    return _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(at)));
  }
  static void Differences(Samples before, Samples after, Vec& lo, Vec& hi) {
    const __m256i d = _mm256_sub_epi32(after, before);
    lo = _mm256_cvtepi32_pd(_mm256_castsi256_si128(d));
    hi = _mm256_cvtepi32_pd(_mm256_extracti128_si256(d, 1));
  }
  static void Fill(Samples before, Samples after, double* slot) {
    Vec d0, d1;
    Differences(before, after, d0, d1);
    _mm256_store_pd(slot, d0);
    _mm256_store_pd(slot + 4, d1);
  }
  static void Step(Samples before, Samples after, double* slot, Vec c, Vec& h0, Vec& h1) {
    Vec d0, d1;
    Differences(before, after, d0, d1);
    const Vec o0 = _mm256_load_pd(slot), o1 = _mm256_load_pd(slot + 4);
    _mm256_store_pd(slot, d0);
    _mm256_store_pd(slot + 4, d1);
    h0 = _mm256_max_pd(_mm256_fnmadd_pd(d0, d0, _mm256_fmadd_pd(o0, o0, h0)), c);
    h1 = _mm256_max_pd(_mm256_fnmadd_pd(d1, d1, _mm256_fmadd_pd(o1, o1, h1)), c);
  }
  static void AddWindow(const double* ring, double* k) {
    for (int half = 0; half < kStep; half += 4) {
      Vec e = _mm256_setzero_pd();
      for (int s = 0; s < kWindow; ++s) {
        const Vec d = _mm256_load_pd(ring + s * kChunk + half);
        e = _mm256_fmadd_pd(d, d, e);
      }
      _mm256_store_pd(k + half, _mm256_add_pd(_mm256_load_pd(k + half), e));
    }
  }
  static int Pixel(int e) { return e; }
  static void Decode(double key, double& energy, int& code) {
    energy = std::floor(key);
    code = static_cast<int>((key - energy) * kWordBlock);
  }
};

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

void FindPeaksAvx2(const PeakFinderParams& params, std::int64_t first, std::int64_t end) {
  if (params.sampleBytes == 1) {
    BytesRange<Avx2Bytes>(params, first, end);
  } else {
    WordsRange<Avx2Words>(params, first, end, &WideRange<Avx2Doubles>);
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

// The vectorised peak-frame finder compiled for AVX-512 (BW and VNNI): the 8-bit kernel of
// PeakFinderBytes.inc on 64 pixels per step and the 16-bit kernel of limited range of
// PeakFinderNarrow.inc on 32, each adding the energy change by one fused 16-bit
// multiply-add-accumulate; 16-bit chunks of any range take the kernel of PeakFinderWide.inc on 16,
// with keys in 64-bit integers.
#include <immintrin.h>

#include <algorithm>
#include <cstdint>
#include <memory>

#include "Swli/detail/PeakFinderKernel.h"

namespace {
#include "Swli/detail/PeakFinderBody.inc"

using Quarn::Metrology::PhaseProcessing::Core::Swli::detail::PeakFinderParams;

#include "Swli/detail/PeakFinderBytes.inc"

// AVX-512's vectors for the 8-bit kernel. Without a 16-bit sign instruction, the pair's first member
// is negated by a masked subtraction from zero.
struct Avx512Bytes {
  using Vec = __m512i;
  static constexpr int kLanes = 64;
  static Vec Load(const void* at) { return _mm512_load_si512(at); }
  static Vec LoadU(const void* at) { return _mm512_loadu_si512(at); }
  static void Store(void* at, Vec v) { _mm512_store_si512(at, v); }
  static Vec Zero() { return _mm512_setzero_si512(); }
  static Vec Broadcast(int v) { return _mm512_set1_epi32(v); }
  static void Difference(Vec after, Vec before, Vec& d0, Vec& d1) {
    const Vec weights = _mm512_set1_epi16(static_cast<short>(0xf010));  // bytes (16, -16)
    d0 = _mm512_maddubs_epi16(_mm512_unpacklo_epi8(after, before), weights);
    d1 = _mm512_maddubs_epi16(_mm512_unpackhi_epi8(after, before), weights);
  }
  static Vec PairLo(Vec a, Vec b) { return _mm512_unpacklo_epi16(a, b); }
  static Vec PairHi(Vec a, Vec b) { return _mm512_unpackhi_epi16(a, b); }
  static Vec Lead(Vec h, Vec p, Vec c) {
    const Vec flipped = _mm512_mask_sub_epi16(p, 0x5555'5555u, _mm512_setzero_si512(), p);
    // The zero-masked maximum with every lane enabled is the plain one; GCC 12 takes the plain
    // intrinsic's undefined pass-through vector for an uninitialised read.
    return _mm512_maskz_max_epi32(static_cast<__mmask16>(0xffff), _mm512_dpwssd_epi32(h, p, flipped), c);
  }
  static Vec AddSquares(Vec e, Vec q) { return _mm512_dpwssd_epi32(e, q, q); }
};

#include "Swli/detail/PeakFinderNarrow.inc"

// AVX-512's vectors for the kernel of limited range: the pair's second member negated by a masked
// subtraction, the best frame kept with a compare into a mask and a masked move.
struct Avx512Words {
  using Vec = __m512i;
  static constexpr int kLanes = 32;
  static Vec Load(const void* at) { return _mm512_load_si512(at); }
  static Vec LoadU(const void* at) { return _mm512_loadu_si512(at); }
  static void Store(void* at, Vec v) { _mm512_store_si512(at, v); }
  static Vec Zero() { return _mm512_setzero_si512(); }
  static Vec Broadcast(int v) { return _mm512_set1_epi32(v); }
  static Vec Or(Vec a, Vec b) { return _mm512_or_si512(a, b); }
  static Vec Sub16(Vec a, Vec b) { return _mm512_sub_epi16(a, b); }
  static bool Below(Vec seen, unsigned limit) {
    return _mm512_test_epi16_mask(seen, _mm512_set1_epi16(static_cast<short>(0x10000u - limit))) == 0;
  }
  static Vec PairLo(Vec a, Vec b) { return _mm512_unpacklo_epi16(a, b); }
  static Vec PairHi(Vec a, Vec b) { return _mm512_unpackhi_epi16(a, b); }
  static Vec AddChange(Vec e, Vec p) {
    return _mm512_dpwssd_epi32(e, p, _mm512_mask_sub_epi16(p, 0xaaaa'aaaau, _mm512_setzero_si512(), p));
  }
  template <bool kReversed>
  static void Track(Vec e, Vec k, Vec& best, Vec& at) {
    const __mmask16 take = kReversed ? _mm512_cmpge_epu32_mask(e, best) : _mm512_cmpgt_epu32_mask(e, best);
    at = _mm512_mask_mov_epi32(at, take, k);
    best = _mm512_mask_mov_epi32(best, take, e);
  }
};

#include "Swli/detail/PeakFinderWide.inc"

// AVX-512's vectors for the kernel of any range: keys in 64-bit integers, which AVX-512 can compare,
// eight per vector, sixteen pixels per step. The ring keeps the differences times 16 in 32 bits (at
// most 2^20), half the bytes of doubles, and the change 256 (d_old^2 - d_new^2) comes exact out of
// one signed 32-bit multiply into 64 bits, (16 d_old - 16 d_new)(16 d_old + 16 d_new), of the
// even and of the odd pixels: the first vector of keys holds the step's even pixels, the second its
// odd ones.
//
// GCC 12 takes the undefined pass-through vector of several plain AVX-512 intrinsics for an
// uninitialised read; their zero-masked forms with every lane enabled are the same instructions.
struct Avx512Int64 {
  static constexpr __mmask16 kAll32 = 0xffff;
  static constexpr __mmask8 kAll64 = 0xff;
  using Vec = __m512i;
  using Key = std::int64_t;
  using Ring = std::int32_t;
  static constexpr int kStep = 16;
  static constexpr int kChunk = 512;  // a ring of 18 KB
  static constexpr std::int64_t kLowest = -(std::int64_t{1} << 62);
  static Vec LoadKeys(const std::int64_t* at) { return _mm512_load_si512(at); }
  static void StoreKeys(std::int64_t* at, Vec v) { _mm512_store_si512(at, v); }
  static Vec Code(int code) { return _mm512_set1_epi64(code); }
  using Samples = __m512i;  // sixteen samples times 16 in 32-bit lanes
  static Samples Load(const std::uint16_t* at) {
    return _mm512_maskz_slli_epi32(
        kAll32, _mm512_maskz_cvtepu16_epi32(kAll32, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at))),
        4);
  }
  static void Fill(Samples before, Samples after, std::int32_t* slot) {
    _mm512_store_si512(slot, _mm512_sub_epi32(after, before));
  }
  static void Step(Samples before, Samples after, std::int32_t* slot, Vec c, Vec& h0, Vec& h1) {
    const Vec d = _mm512_sub_epi32(after, before);
    const Vec o = _mm512_load_si512(slot);
    _mm512_store_si512(slot, d);
    const Vec minus = _mm512_sub_epi32(o, d), plus = _mm512_add_epi32(o, d);
    h0 = _mm512_maskz_max_epi64(kAll64, _mm512_add_epi64(h0, _mm512_maskz_mul_epi32(kAll64, minus, plus)), c);
    h1 = _mm512_maskz_max_epi64(
        kAll64,
        _mm512_add_epi64(h1, _mm512_maskz_mul_epi32(kAll64, _mm512_maskz_srli_epi64(kAll64, minus, 32),
                                                    _mm512_maskz_srli_epi64(kAll64, plus, 32))),
        c);
  }
  static void AddWindow(const std::int32_t* ring, std::int64_t* k) {
    Vec even = _mm512_load_si512(k), odd = _mm512_load_si512(k + 8);
    for (int s = 0; s < kWindow; ++s) {
      const Vec d = _mm512_load_si512(ring + s * kChunk);
      const Vec high = _mm512_maskz_srli_epi64(kAll64, d, 32);
      even = _mm512_add_epi64(even, _mm512_maskz_mul_epi32(kAll64, d, d));
      odd = _mm512_add_epi64(odd, _mm512_maskz_mul_epi32(kAll64, high, high));
    }
    _mm512_store_si512(k, even);
    _mm512_store_si512(k + 8, odd);
  }
  static int Pixel(int e) { return e < 8 ? 2 * e : 2 * (e - 8) + 1; }
  static void Decode(std::int64_t key, std::int64_t& energy, int& code) {
    energy = key >> kWordCodeBits;
    code = static_cast<int>(key & (kWordBlock - 1));
  }
};

}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

void FindPeaksAvx512(const PeakFinderParams& params, std::int64_t first, std::int64_t end) {
  if (params.sampleBytes == 1) {
    BytesRange<Avx512Bytes>(params, first, end);
  } else {
    WordsRange<Avx512Words>(params, first, end, &WideRange<Avx512Int64>);
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

// The vectorised peak-frame finder compiled for AVX2: kernels written for 8- and 16-bit scans; the
// generic body of PeakFinderBody.inc runs the last few pixels of a chunk that fill no vector.
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

// 8-bit scans, thirty-two pixels per step, written for the instruction count (24 vector operations
// per 32 pixels and frame): the generic body spends most of its time widening 16-bit squares to 32
// bits and on a compare and two selects per pixel and frame, which keeps it well below the speed of
// memory.
//
// - The two-frame difference d = s[j+1] - s[j-1] of 32 pixels comes out of one byte interleave and
//   one unsigned-by-signed multiply-add per 16 pixels, already scaled by 16 (weights 16, -16; at most
//   16 x 255, no saturation). The ring keeps these 16-bit differences.
// - The change of the energy from one frame to the next, d_new^2 - d_old^2 (d_old the difference
//   leaving the window), is one 16-bit multiply-add of the pairs (16 d_new, 16 d_old) and
//   (-16 d_new, 16 d_old) straight into 32 bits, exact, and negated; the second pair is the first
//   with one sign flipped, which costs no multiplier.
// - The energies are thus scaled by 256, and the frame is coded into the 8 low bits: a key
//   K(k) = 256 E(k) + code(k) whose code falls with k for a forward scan and rises for a reversed
//   one, so that the largest key is the largest energy and, among equal energies, the frame the scan
//   met first. 256 E < 2^28 for nine 8-bit differences, so keys fit 32 bits.
// - The energies themselves are never summed frame by frame. What is carried is the best key so far
//   less the current energy, H(k) = max over i <= k of K(i) - 256 E(k), which follows from the
//   energy change alone: H(k) = max(H(k-1) - 256 (E(k) - E(k-1)), code(k)), one add and one maximum
//   per pixel and frame. The best key is H + 256 E at the end, where E is summed once from the ring.
// - A code has 256 values, so the keys run over blocks of at most 256 frames; at the end of each,
//   the block's best energy and frame are decoded and merged with those of the earlier blocks under
//   the plain path's rule (a later block must be strictly better forward, at least as good
//   reversed, and any peak needs energy above 0).
// The interleaves work within 128-bit halves: of the 32 pixels of a step, the four vectors of
// results hold pixels 0-3 and 16-19, 4-7 and 20-23, 8-11 and 24-27, 12-15 and 28-31. The chunk's
// keys stay in that order and only the peaks are put back in pixel order.
constexpr int kCodeBits = 8;
constexpr int kBlock = 1 << kCodeBits;
constexpr int kLanes = 32;
// Pixels per chunk: 4096 bytes of each frame are 64 cache lines read in a row, which the hardware
// prefetcher follows well, while the chunk's ring (9 x 2 bytes per pixel) and keys (4 bytes per
// pixel) stay in L2.
#ifndef QUARN_PEAK_BYTES_CHUNK
#define QUARN_PEAK_BYTES_CHUNK 4096
#endif
constexpr int kBytesChunk = QUARN_PEAK_BYTES_CHUNK;
#ifndef QUARN_PEAK_AHEAD
#define QUARN_PEAK_AHEAD 1
#endif
constexpr int kAheadPasses = QUARN_PEAK_AHEAD;
// The position in a step of 32 pixels whose result sits at element e of the step's results.
constexpr int BytePixel(int e) {
  return (e % 8 < 4 ? 0 : 16) + 4 * (e / 8) + e % 4;
}
// Below every key minus every energy that a block can meet, and far enough above the smallest int
// that subtracting an energy change leaves it there.
constexpr std::int32_t kNoKey = -(1 << 30);

// A chunk's working arrays (some 120 KB: on the heap, once per range, rather than on a thread's stack).
struct BytesScratch {
  alignas(32) std::int16_t ring[kWindow][kBytesChunk];
  alignas(32) std::int32_t lead[kBytesChunk];  // H: the best key less the energy
  alignas(32) std::int32_t bestEnergy[kBytesChunk];
  alignas(32) std::int32_t peak[kBytesChunk];
};

template <bool kReversed>
void BytesChunk(const PeakFinderParams& p, std::int64_t start, int n, BytesScratch& scratch) {
  auto& ring = scratch.ring;
  auto& lead = scratch.lead;
  auto& bestEnergy = scratch.bestEnergy;
  auto& peak = scratch.peak;
  for (auto& slot : ring)
    std::fill(slot, slot + n, std::int16_t{0});
  std::fill(bestEnergy, bestEnergy + n, 0);
  std::fill(peak, peak + n, 0);
  const int count = p.frames;
  const auto plane = [&](int f) { return static_cast<const std::uint8_t*>(p.planes[f]) + start; };
  const auto load = [](const void* at) { return _mm256_load_si256(static_cast<const __m256i*>(at)); };
  const auto loadu = [](const void* at) { return _mm256_loadu_si256(static_cast<const __m256i*>(at)); };
  const auto store = [](void* at, __m256i v) { _mm256_store_si256(static_cast<__m256i*>(at), v); };
  // Bytes (16, -16) and 16-bit lanes (-1, 1).
  const __m256i weights = _mm256_set1_epi16(static_cast<short>(0xf010));
  const __m256i flip = _mm256_set1_epi32(static_cast<int>(0x0001'ffffu));
  // Difference j of 32 pixels (scaled by 16) into its ring slot.
  const auto difference = [&](const std::uint8_t* before, const std::uint8_t* after, int i, __m256i& d0,
                              __m256i& d1) {
    const __m256i a = loadu(after + i), b = loadu(before + i);
    d0 = _mm256_maddubs_epi16(_mm256_unpacklo_epi8(a, b), weights);
    d1 = _mm256_maddubs_epi16(_mm256_unpackhi_epi8(a, b), weights);
  };
  // Difference j of 32 pixels into its ring slot, and the leads carried over it with code c.
  const auto step = [&](const std::uint8_t* before, const std::uint8_t* after, std::int16_t* slot, int i,
                        __m256i c, __m256i(&h)[4]) {
    __m256i d0, d1;
    difference(before, after, i, d0, d1);
    const __m256i o0 = load(slot + i), o1 = load(slot + i + 16);
    store(slot + i, d0);
    store(slot + i + 16, d1);
    const __m256i p[4] = {_mm256_unpacklo_epi16(d0, o0), _mm256_unpackhi_epi16(d0, o0),
                          _mm256_unpacklo_epi16(d1, o1), _mm256_unpackhi_epi16(d1, o1)};
    for (int m = 0; m < 4; ++m) {
      const __m256i fall = _mm256_madd_epi16(p[m], _mm256_sign_epi16(p[m], flip));  // -256 (E(k) - E(k-1))
      h[m] = _mm256_max_epi32(_mm256_add_epi32(h[m], fall), c);
    }
  };

  // Differences 1 .. 8 fill the ring; no window is complete yet.
  int j = 1;
  for (; j < kWindow && j + 1 < count; ++j) {
    std::int16_t* slot = ring[j % kWindow];
    for (int i = 0; i < n; i += kLanes) {
      __m256i d0, d1;
      difference(plane(j - 1), plane(j + 1), i, d0, d1);
      store(slot + i, d0);
      store(slot + i + 16, d1);
    }
  }
  while (j + 1 < count) {
    const int blockEnd = std::min(count - 1, j + kBlock);
    const int firstPeak = j - kHalfWindow;
    std::fill(lead, lead + n, kNoKey);
    const auto code = [&](int difference) {
      const int c = difference - kHalfWindow - firstPeak;
      return _mm256_set1_epi32(kReversed ? c : kBlock - 1 - c);
    };
    // Four frames per pass over the chunk: the leads are read and written once for all four, and the
    // six frames' samples feed four differences. The frames of a later pass are fetched ahead, one
    // cache line of each per two steps.
    constexpr int kUnroll = 4;
    for (; j + kUnroll <= blockEnd; j += kUnroll) {
      const std::uint8_t* s[kUnroll + 2];
      for (int u = 0; u < kUnroll + 2; ++u)
        s[u] = plane(j - 1 + u);
      const std::uint8_t* ahead[kUnroll];
      for (int u = 0; u < kUnroll; ++u)
        ahead[u] = plane(std::min(j + kAheadPasses * kUnroll + 1 + u, count - 1));
      std::int16_t* slot[kUnroll];
      __m256i c[kUnroll];
      for (int u = 0; u < kUnroll; ++u) {
        slot[u] = ring[(j + u) % kWindow];
        c[u] = code(j + u);
      }
      for (int i = 0; i < n; i += kLanes) {
        if (i % 64 == 0) {
          for (const std::uint8_t* f : ahead)
            _mm_prefetch(reinterpret_cast<const char*>(f + i), _MM_HINT_T0);
        }
        __m256i h[4];
        for (int m = 0; m < 4; ++m)
          h[m] = load(lead + i + 8 * m);
        for (int u = 0; u < kUnroll; ++u)
          step(s[u], s[u + 2], slot[u], i, c[u], h);
        for (int m = 0; m < 4; ++m)
          store(lead + i + 8 * m, h[m]);
      }
    }
    for (; j < blockEnd; ++j) {
      const __m256i c = code(j);
      for (int i = 0; i < n; i += kLanes) {
        __m256i h[4];
        for (int m = 0; m < 4; ++m)
          h[m] = load(lead + i + 8 * m);
        step(plane(j - 1), plane(j + 1), ring[j % kWindow], i, c, h);
        for (int m = 0; m < 4; ++m)
          store(lead + i + 8 * m, h[m]);
      }
    }
    // The block's best keys: the leads plus the energies of the last window, which the ring holds,
    // summed in the leads' order.
    for (int i = 0; i < n; i += kLanes) {
      __m256i e[4] = {};
      for (const auto& slot : ring) {
        const __m256i d0 = load(slot + i), d1 = load(slot + i + 16), zero = _mm256_setzero_si256();
        const __m256i q[4] = {_mm256_unpacklo_epi16(d0, zero), _mm256_unpackhi_epi16(d0, zero),
                              _mm256_unpacklo_epi16(d1, zero), _mm256_unpackhi_epi16(d1, zero)};
        for (int m = 0; m < 4; ++m)
          e[m] = _mm256_add_epi32(e[m], _mm256_madd_epi16(q[m], q[m]));
      }
      for (int m = 0; m < 4; ++m)
        store(lead + i + 8 * m, _mm256_add_epi32(load(lead + i + 8 * m), e[m]));
    }
    for (int i = 0; i < n; ++i) {
      const std::int32_t e = lead[i] >> kCodeBits;
      const std::int32_t c = lead[i] & (kBlock - 1);
      const std::int32_t k = firstPeak + (kReversed ? c : kBlock - 1 - c);
      const bool better = kReversed ? (e >= bestEnergy[i]) & (e > 0) : e > bestEnergy[i];
      bestEnergy[i] = better ? e : bestEnergy[i];
      peak[i] = better ? k : peak[i];
    }
  }
  for (int i = 0; i < n; i += kLanes) {
    for (int e = 0; e < kLanes; ++e)
      p.peaks[start + i + BytePixel(e)] = peak[i + e];
  }
}

// Whole vectors of a chunk through the kernel above, the last pixels (fewer than 32) through
// the generic body.
void BytesRange(const PeakFinderParams& p, std::int64_t first, std::int64_t end) {
  const auto scratch = std::make_unique<BytesScratch>();
  for (std::int64_t start = first; start < end; start += kBytesChunk) {
    const int n = static_cast<int>(std::min<std::int64_t>(end - start, kBytesChunk));
    const int whole = n / kLanes * kLanes;
    if (whole > 0) {
      if (p.reversed) {
        BytesChunk<true>(p, start, whole, *scratch);
      } else {
        BytesChunk<false>(p, start, whole, *scratch);
      }
    }
    if (whole < n) Range<std::uint8_t, std::uint16_t, std::int32_t>(p, start + whole, start + n);
  }
}

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

// 16-bit scans whose samples stay below 2^14, as 12- and 14-bit cameras deliver them: sixteen
// pixels per step in 32-bit integer lanes, twice as many per vector as the doubles above and with
// fewer conversions. Below 2^14 every difference |d| < 2^14 fits a 16-bit lane, d_new^2 - d_old^2
// comes exactly out of one 16-bit multiply-add (as for 8-bit scans, without the scaling), and nine
// squares stay below 9 x 16383^2 < 2^32: the energies are exact as unsigned 32-bit numbers (the
// running sum may pass through values that wrap, but every window's sum is a true energy). They
// leave no low bits for a frame code, so each pixel keeps its best energy and frame with an unsigned
// maximum, a compare and a blend.
//
// Whether a chunk qualifies is learnt while it is read: the samples are ORed together, and after
// every pass over the chunk a sample of 2^14 or more sends the whole chunk to the kernel in doubles
// (returning false, nothing written), having cost at most one pass of four frames.
constexpr int kNarrowLanes = 16;
constexpr int kNarrowChunk = 512;
constexpr unsigned kNarrowLimit = 1u << 14;
// The position in a step of 16 pixels whose result sits at element e of the step's energies.
constexpr int NarrowPixel(int e) {
  return (e % 8 < 4 ? 0 : 8) + 4 * (e / 8) + e % 4;
}

template <bool kReversed>
bool NarrowChunk(const PeakFinderParams& p, std::int64_t start, int n) {
  alignas(32) std::int16_t ring[kWindow][kNarrowChunk];
  alignas(32) std::uint32_t energy[kNarrowChunk];
  alignas(32) std::uint32_t bestEnergy[kNarrowChunk];
  alignas(32) std::int32_t peak[kNarrowChunk];
  for (auto& slot : ring)
    std::fill(slot, slot + n, std::int16_t{0});
  std::fill(energy, energy + n, 0u);
  // Forward, a frame must beat the best energy so far (0 at first, so that it needs energy above 0);
  // reversed, it must reach it, and starting from 1 makes that need energy above 0 too.
  std::fill(bestEnergy, bestEnergy + n, kReversed ? 1u : 0u);
  std::fill(peak, peak + n, 0);
  const int count = p.frames;
  const auto plane = [&](int f) { return static_cast<const std::uint16_t*>(p.planes[f]) + start; };
  const auto load = [](const void* at) { return _mm256_load_si256(static_cast<const __m256i*>(at)); };
  const auto loadu = [](const void* at) { return _mm256_loadu_si256(static_cast<const __m256i*>(at)); };
  const auto store = [](void* at, __m256i v) { _mm256_store_si256(static_cast<__m256i*>(at), v); };
  const __m256i flip = _mm256_set1_epi32(static_cast<int>(0xffff'0001u));
  const __m256i high = _mm256_set1_epi16(static_cast<short>(0x10000u - kNarrowLimit));
  // Difference j of sixteen pixels into its ring slot, the energy changes into the two vectors of
  // energies, and the newer sample into the OR of all.
  const auto step = [&](const std::uint16_t* before, const std::uint16_t* after, std::int16_t* slot, int i,
                        __m256i& e0, __m256i& e1, __m256i& seen) {
    const __m256i a = loadu(after + i);
    const __m256i d = _mm256_sub_epi16(a, loadu(before + i));
    seen = _mm256_or_si256(seen, a);
    const __m256i o = load(slot + i);
    store(slot + i, d);
    const __m256i p0 = _mm256_unpacklo_epi16(d, o), p1 = _mm256_unpackhi_epi16(d, o);
    e0 = _mm256_add_epi32(e0, _mm256_madd_epi16(p0, _mm256_sign_epi16(p0, flip)));
    e1 = _mm256_add_epi32(e1, _mm256_madd_epi16(p1, _mm256_sign_epi16(p1, flip)));
  };
  const auto inRange = [&](__m256i seen) { return _mm256_testz_si256(seen, high) != 0; };
  // The best energy and frame of eight pixels after energy e of frame k.
  const auto track = [](__m256i e, __m256i k, __m256i& best, __m256i& at) {
    const __m256i top = _mm256_max_epu32(best, e);
    at = kReversed ? _mm256_blendv_epi8(at, k, _mm256_cmpeq_epi32(top, e))
                   : _mm256_blendv_epi8(k, at, _mm256_cmpeq_epi32(top, best));
    best = top;
  };

  // Differences 1 .. 8 fill the ring; no window is complete yet. The first frame is only ever an
  // earlier sample, so it joins the OR here.
  __m256i seen = _mm256_setzero_si256();
  for (int i = 0; i < n; i += kNarrowLanes)
    seen = _mm256_or_si256(seen, loadu(plane(0) + i));
  int j = 1;
  for (; j < kWindow && j + 1 < count; ++j) {
    for (int i = 0; i < n; i += kNarrowLanes) {
      __m256i e0 = load(energy + i), e1 = load(energy + i + 8);
      step(plane(j - 1), plane(j + 1), ring[j % kWindow], i, e0, e1, seen);
      store(energy + i, e0);
      store(energy + i + 8, e1);
    }
  }
  for (int i = 0; count > 1 && i < n; i += kNarrowLanes)
    seen = _mm256_or_si256(seen, loadu(plane(1) + i));
  if (!inRange(seen)) return false;
  // Four frames per pass over the chunk, the frames of the next pass fetched ahead.
  constexpr int kUnroll = 4;
  for (; j + kUnroll < count; j += kUnroll) {
    const std::uint16_t* s[kUnroll + 2];
    for (int u = 0; u < kUnroll + 2; ++u)
      s[u] = plane(j - 1 + u);
    const std::uint16_t* ahead[kUnroll];
    for (int u = 0; u < kUnroll; ++u)
      ahead[u] = plane(std::min(j + kUnroll + 1 + u, count - 1));
    std::int16_t* slot[kUnroll];
    __m256i k[kUnroll];
    for (int u = 0; u < kUnroll; ++u) {
      slot[u] = ring[(j + u) % kWindow];
      k[u] = _mm256_set1_epi32(j + u - kHalfWindow);
    }
    for (int i = 0; i < n; i += kNarrowLanes) {
      if (i % 32 == 0) {
        for (const std::uint16_t* f : ahead)
          _mm_prefetch(reinterpret_cast<const char*>(f + i), _MM_HINT_T0);
      }
      __m256i e0 = load(energy + i), e1 = load(energy + i + 8);
      __m256i b0 = load(bestEnergy + i), b1 = load(bestEnergy + i + 8);
      __m256i a0 = load(peak + i), a1 = load(peak + i + 8);
      for (int u = 0; u < kUnroll; ++u) {
        step(s[u], s[u + 2], slot[u], i, e0, e1, seen);
        track(e0, k[u], b0, a0);
        track(e1, k[u], b1, a1);
      }
      store(energy + i, e0);
      store(energy + i + 8, e1);
      store(bestEnergy + i, b0);
      store(bestEnergy + i + 8, b1);
      store(peak + i, a0);
      store(peak + i + 8, a1);
    }
    if (!inRange(seen)) return false;
  }
  for (; j + 1 < count; ++j) {
    const __m256i k = _mm256_set1_epi32(j - kHalfWindow);
    for (int i = 0; i < n; i += kNarrowLanes) {
      __m256i e0 = load(energy + i), e1 = load(energy + i + 8);
      __m256i b0 = load(bestEnergy + i), b1 = load(bestEnergy + i + 8);
      __m256i a0 = load(peak + i), a1 = load(peak + i + 8);
      step(plane(j - 1), plane(j + 1), ring[j % kWindow], i, e0, e1, seen);
      track(e0, k, b0, a0);
      track(e1, k, b1, a1);
      store(energy + i, e0);
      store(energy + i + 8, e1);
      store(bestEnergy + i, b0);
      store(bestEnergy + i + 8, b1);
      store(peak + i, a0);
      store(peak + i + 8, a1);
    }
  }
  if (!inRange(seen)) return false;
  for (int i = 0; i < n; i += kNarrowLanes) {
    for (int e = 0; e < kNarrowLanes; ++e)
      p.peaks[start + i + NarrowPixel(e)] = peak[i + e];
  }
  return true;
}

// Chunks of limited range through the integer kernel, the others through the kernel in doubles;
// the last pixels (fewer than sixteen) of a chunk through the generic body.
void WordsRange(const PeakFinderParams& p, std::int64_t first, std::int64_t end) {
  for (std::int64_t start = first; start < end; start += kNarrowChunk) {
    const int n = static_cast<int>(std::min<std::int64_t>(end - start, kNarrowChunk));
    const int whole = n / kNarrowLanes * kNarrowLanes;
    const bool narrow =
        whole > 0 && (p.reversed ? NarrowChunk<true>(p, start, whole) : NarrowChunk<false>(p, start, whole));
    if (!narrow) {
      WideRange(p, start, start + n);
    } else if (whole < n) {
      Range<std::uint16_t, std::int64_t, std::int64_t>(p, start + whole, start + n);
    }
  }
}

}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

void FindPeaksAvx2(const PeakFinderParams& params, std::int64_t first, std::int64_t end) {
  if (params.sampleBytes == 1) {
    BytesRange(params, first, end);
  } else {
    WordsRange(params, first, end);
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

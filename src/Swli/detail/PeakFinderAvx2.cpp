// The vectorised peak-frame finder compiled for AVX2: kernels written for 8- and 16-bit scans; the
// generic body of PeakFinderBody.inc runs the last few pixels of a chunk that fill no vector.
#include <immintrin.h>

#include <algorithm>
#include <cstdint>

#include "Swli/detail/PeakFinderKernel.h"

namespace {
#include "Swli/detail/PeakFinderBody.inc"

using Quarn::Metrology::PhaseProcessing::Core::Swli::detail::PeakFinderParams;

// 8-bit scans, sixteen pixels per vector, written for the instruction count: the generic body spends
// most of its time widening 16-bit squares to 32 bits and on a compare and two selects per pixel
// and frame, which keeps it well below the speed of memory.
//
// - The change of the energy from one frame to the next, d_new^2 - d_old^2 (d the two-frame
//   difference entering the window, d_old the one leaving it), comes out of one multiply-add of
//   16-bit pairs (d_new, d_old) . (128 d_new, -128 d_old) straight into 32 bits, exact (|d| <= 255).
//   The ring keeps the 16-bit differences.
// - The energies are kept scaled by 128, and the frame is coded into the 7 low bits: a key
//   128 E(k) + code(k) whose code falls with k for a forward scan and rises for a reversed one, so
//   that the largest key is the largest energy and, among equal energies, the frame the scan met
//   first. One maximum per pixel and frame then does the work of the compare and two selects.
//   128 E < 2^27 for nine 8-bit differences, so the key fits 32 bits.
// - A code has 128 values, so the keys run over blocks of at most 128 frames; at the end of each,
//   the block's best energy and frame are decoded and merged with those of the earlier blocks under
//   the plain path's rule (a later block must be strictly better forward, at least as good
//   reversed, and any peak needs energy above 0).
// The unpacking interleaves pixels 0-3 with 8-11 and 4-7 with 12-15; the chunk's energies and keys
// stay in that order and only the peaks are put back in pixel order.
constexpr int kCodeBits = 7;
constexpr int kBlock = 1 << kCodeBits;
constexpr int kLanes = 16;
// Pixels per chunk: 2048 bytes of each frame are 32 cache lines read in a row (which the hardware
// prefetcher follows), and the chunk's ring, energies and keys (about 70 KB) stay in L2.
constexpr int kBytesChunk = 2048;

template <bool kReversed>
void BytesChunk(const PeakFinderParams& p, std::int64_t start, int n) {
  alignas(32) std::int16_t ring[kWindow][kBytesChunk];
  alignas(32) std::int32_t energy[kBytesChunk];
  alignas(32) std::int32_t key[kBytesChunk];
  alignas(32) std::int32_t bestEnergy[kBytesChunk];
  alignas(32) std::int32_t peak[kBytesChunk];
  for (auto& slot : ring)
    std::fill(slot, slot + n, std::int16_t{0});
  std::fill(energy, energy + n, 0);
  std::fill(bestEnergy, bestEnergy + n, 0);
  std::fill(peak, peak + n, 0);
  const int count = p.frames;
  const auto plane = [&](int f) { return static_cast<const std::uint8_t*>(p.planes[f]) + start; };
  const auto load = [](const void* at) { return _mm256_load_si256(static_cast<const __m256i*>(at)); };
  const auto store = [](void* at, __m256i v) { _mm256_store_si256(static_cast<__m256i*>(at), v); };
  // (128, -128) in every pair of 16-bit lanes.
  const __m256i scale = _mm256_set1_epi32(static_cast<int>(0xff80'0080u));
  // Difference j = s[j+1] - s[j-1] of sixteen pixels into its ring slot, and the scaled energy
  // change into the low and high halves of the pixels' energies.
  const auto step = [&](const std::uint8_t* before, const std::uint8_t* after, std::int16_t* slot, int i,
                        __m256i& lo, __m256i& hi) {
    const __m256i a = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(after + i)));
    const __m256i b = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(before + i)));
    const __m256i d = _mm256_sub_epi16(a, b);
    const __m256i old = load(slot + i);
    store(slot + i, d);
    const __m256i pl = _mm256_unpacklo_epi16(d, old), ph = _mm256_unpackhi_epi16(d, old);
    lo = _mm256_add_epi32(lo, _mm256_madd_epi16(pl, _mm256_mullo_epi16(pl, scale)));
    hi = _mm256_add_epi32(hi, _mm256_madd_epi16(ph, _mm256_mullo_epi16(ph, scale)));
  };

  // Differences 1 .. 8 fill the ring; no window is complete yet.
  int j = 1;
  for (; j < kWindow && j + 1 < count; ++j) {
    const std::uint8_t* before = plane(j - 1);
    const std::uint8_t* after = plane(j + 1);
    std::int16_t* slot = ring[j % kWindow];
    for (int i = 0; i < n; i += kLanes) {
      __m256i lo = load(energy + i), hi = load(energy + i + 8);
      step(before, after, slot, i, lo, hi);
      store(energy + i, lo);
      store(energy + i + 8, hi);
    }
  }
  while (j + 1 < count) {
    const int blockEnd = std::min(count - 1, j + kBlock);
    const int firstPeak = j - kHalfWindow;
    std::fill(key, key + n, 0);
    const auto code = [&](int difference) {
      const int c = difference - kHalfWindow - firstPeak;
      return _mm256_set1_epi32(kReversed ? c : kBlock - 1 - c);
    };
    // Four frames per pass over the chunk: energies and keys are read and written once for all
    // four, and the six frames' samples feed four differences. The next pass's frames are fetched
    // one pass ahead.
    constexpr int kUnroll = 4;
    for (; j + kUnroll <= blockEnd; j += kUnroll) {
      const std::uint8_t* s[kUnroll + 2];
      for (int u = 0; u < kUnroll + 2; ++u)
        s[u] = plane(j - 1 + u);
      const std::uint8_t* ahead[kUnroll];
      for (int u = 0; u < kUnroll; ++u)
        ahead[u] = plane(std::min(j + kUnroll + 1 + u, count - 1));
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
        __m256i lo = load(energy + i), hi = load(energy + i + 8);
        __m256i keyLo = load(key + i), keyHi = load(key + i + 8);
        for (int u = 0; u < kUnroll; ++u) {
          step(s[u], s[u + 2], slot[u], i, lo, hi);
          keyLo = _mm256_max_epi32(keyLo, _mm256_add_epi32(lo, c[u]));
          keyHi = _mm256_max_epi32(keyHi, _mm256_add_epi32(hi, c[u]));
        }
        store(energy + i, lo);
        store(energy + i + 8, hi);
        store(key + i, keyLo);
        store(key + i + 8, keyHi);
      }
    }
    for (; j < blockEnd; ++j) {
      const std::uint8_t* before = plane(j - 1);
      const std::uint8_t* after = plane(j + 1);
      std::int16_t* slot = ring[j % kWindow];
      const __m256i c = code(j);
      for (int i = 0; i < n; i += kLanes) {
        __m256i lo = load(energy + i), hi = load(energy + i + 8);
        step(before, after, slot, i, lo, hi);
        store(energy + i, lo);
        store(energy + i + 8, hi);
        store(key + i, _mm256_max_epi32(load(key + i), _mm256_add_epi32(lo, c)));
        store(key + i + 8, _mm256_max_epi32(load(key + i + 8), _mm256_add_epi32(hi, c)));
      }
    }
    for (int i = 0; i < n; ++i) {
      const std::int32_t e = key[i] >> kCodeBits;
      const std::int32_t c = key[i] & (kBlock - 1);
      const std::int32_t k = firstPeak + (kReversed ? c : kBlock - 1 - c);
      const bool better = kReversed ? (e >= bestEnergy[i]) & (e > 0) : e > bestEnergy[i];
      bestEnergy[i] = better ? e : bestEnergy[i];
      peak[i] = better ? k : peak[i];
    }
  }
  for (int i = 0; i < n; i += kLanes) {
    for (int q = 0; q < 4; ++q) {
      p.peaks[start + i + q] = peak[i + q];
      p.peaks[start + i + 8 + q] = peak[i + 4 + q];
      p.peaks[start + i + 4 + q] = peak[i + 8 + q];
      p.peaks[start + i + 12 + q] = peak[i + 12 + q];
    }
  }
}

// Whole vectors of a chunk through the kernel above, the last pixels (fewer than sixteen) through
// the generic body.
void BytesRange(const PeakFinderParams& p, std::int64_t first, std::int64_t end) {
  for (std::int64_t start = first; start < end; start += kBytesChunk) {
    const int n = static_cast<int>(std::min<std::int64_t>(end - start, kBytesChunk));
    const int whole = n / kLanes * kLanes;
    if (whole > 0) {
      if (p.reversed) {
        BytesChunk<true>(p, start, whole);
      } else {
        BytesChunk<false>(p, start, whole);
      }
    }
    if (whole < n) Range<std::uint8_t, std::uint16_t, std::int32_t>(p, start + whole, start + n);
  }
}

// 16-bit scans, eight pixels per step in doubles. Energies of nine 16-bit differences reach
// 9 x 65535^2 < 2^36, beyond 32 bits; doubles hold every integer below 2^53 exactly, so their sums
// are as exact as the generic body's 64-bit integers, and unlike 64-bit integers they have a
// maximum instruction. The differences are scaled by 16 before they are squared, which makes every
// energy 256 E (still below 2^44) and leaves 8 low bits for the same frame code as above, in
// blocks of 256 frames; the ring keeps the scaled squares.
constexpr int kWordCodeBits = 8;
constexpr int kWordBlock = 1 << kWordCodeBits;
constexpr int kWordLanes = 8;
// Pixels per chunk: the chunk's ring of doubles (18 KB) stays in L1.
constexpr int kWordsChunk = 256;

template <bool kReversed>
void WordsChunk(const PeakFinderParams& p, std::int64_t start, int n) {
  alignas(32) double ring[kWindow][kWordsChunk];
  alignas(32) double energy[kWordsChunk];
  alignas(32) double key[kWordsChunk];
  alignas(32) std::int64_t bestEnergy[kWordsChunk];
  alignas(32) std::int32_t peak[kWordsChunk];
  for (auto& slot : ring)
    std::fill(slot, slot + n, 0.0);
  std::fill(energy, energy + n, 0.0);
  std::fill(bestEnergy, bestEnergy + n, std::int64_t{0});
  std::fill(peak, peak + n, 0);
  const int count = p.frames;
  const auto plane = [&](int f) { return static_cast<const std::uint16_t*>(p.planes[f]) + start; };
  // Difference j = s[j+1] - s[j-1] of eight pixels, scaled and squared into its ring slot, and
  // the energy change into the pixels' energies (four per half).
  const auto step = [&](const std::uint16_t* before, const std::uint16_t* after, double* slot, int i,
                        __m256d& lo, __m256d& hi) {
    const __m256i a = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(after + i)));
    const __m256i b = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(before + i)));
    const __m256i d = _mm256_slli_epi32(_mm256_sub_epi32(a, b), 4);
    const __m256d dl = _mm256_cvtepi32_pd(_mm256_castsi256_si128(d));
    const __m256d dh = _mm256_cvtepi32_pd(_mm256_extracti128_si256(d, 1));
    const __m256d vl = _mm256_mul_pd(dl, dl), vh = _mm256_mul_pd(dh, dh);
    lo = _mm256_sub_pd(_mm256_add_pd(lo, vl), _mm256_load_pd(slot + i));
    hi = _mm256_sub_pd(_mm256_add_pd(hi, vh), _mm256_load_pd(slot + i + 4));
    _mm256_store_pd(slot + i, vl);
    _mm256_store_pd(slot + i + 4, vh);
  };

  int j = 1;
  for (; j < kWindow && j + 1 < count; ++j) {
    double* slot = ring[j % kWindow];
    for (int i = 0; i < n; i += kWordLanes) {
      __m256d lo = _mm256_load_pd(energy + i), hi = _mm256_load_pd(energy + i + 4);
      step(plane(j - 1), plane(j + 1), slot, i, lo, hi);
      _mm256_store_pd(energy + i, lo);
      _mm256_store_pd(energy + i + 4, hi);
    }
  }
  while (j + 1 < count) {
    const int blockEnd = std::min(count - 1, j + kWordBlock);
    const int firstPeak = j - kHalfWindow;
    std::fill(key, key + n, 0.0);
    const auto code = [&](int difference) {
      const int c = difference - kHalfWindow - firstPeak;
      return _mm256_set1_pd(kReversed ? c : kWordBlock - 1 - c);
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
        __m256d lo = _mm256_load_pd(energy + i), hi = _mm256_load_pd(energy + i + 4);
        __m256d keyLo = _mm256_load_pd(key + i), keyHi = _mm256_load_pd(key + i + 4);
        for (int u = 0; u < kUnroll; ++u) {
          step(s[u], s[u + 2], slot[u], i, lo, hi);
          keyLo = _mm256_max_pd(keyLo, _mm256_add_pd(lo, c[u]));
          keyHi = _mm256_max_pd(keyHi, _mm256_add_pd(hi, c[u]));
        }
        _mm256_store_pd(energy + i, lo);
        _mm256_store_pd(energy + i + 4, hi);
        _mm256_store_pd(key + i, keyLo);
        _mm256_store_pd(key + i + 4, keyHi);
      }
    }
    for (; j < blockEnd; ++j) {
      double* slot = ring[j % kWindow];
      const __m256d c = code(j);
      for (int i = 0; i < n; i += kWordLanes) {
        __m256d lo = _mm256_load_pd(energy + i), hi = _mm256_load_pd(energy + i + 4);
        step(plane(j - 1), plane(j + 1), slot, i, lo, hi);
        _mm256_store_pd(energy + i, lo);
        _mm256_store_pd(energy + i + 4, hi);
        _mm256_store_pd(key + i, _mm256_max_pd(_mm256_load_pd(key + i), _mm256_add_pd(lo, c)));
        _mm256_store_pd(key + i + 4, _mm256_max_pd(_mm256_load_pd(key + i + 4), _mm256_add_pd(hi, c)));
      }
    }
    for (int i = 0; i < n; ++i) {
      const auto whole = static_cast<std::int64_t>(key[i]);
      const std::int64_t e = whole >> kWordCodeBits;
      const int c = static_cast<int>(whole & (kWordBlock - 1));
      const std::int32_t k = firstPeak + (kReversed ? c : kWordBlock - 1 - c);
      const bool better = kReversed ? (e >= bestEnergy[i]) & (e > 0) : e > bestEnergy[i];
      bestEnergy[i] = better ? e : bestEnergy[i];
      peak[i] = better ? k : peak[i];
    }
  }
  std::copy(peak, peak + n, p.peaks + start);
}

void WordsRange(const PeakFinderParams& p, std::int64_t first, std::int64_t end) {
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

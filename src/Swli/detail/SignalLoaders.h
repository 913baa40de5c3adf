#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// The stored samples of one pixel: s(k) is the pixel's sample in slot k, converted to double;
// s.Load(first, count, out) writes s(first) .. s(first + count - 1) to out.
template <typename Stored>
struct PixelSamples {
  const void* const* slots;
  int pixel;
  double operator()(int slot) const {
    return static_cast<double>(static_cast<const Stored*>(slots[slot])[pixel]);
  }
  void Load(int first, int count, double* out) const {
    for (int k = 0; k < count; ++k)
      out[k] = (*this)(first + k);
  }
};

// The fast path's copy of a block of pixels, pixel-major: the samples of pixel i of the block lie
// at row i, slot after slot (sample of slot k at i x rowLength + k), so that a pixel's signal is one
// contiguous run that converts to doubles a vector at a time.
inline constexpr int kBlockPixels = 64;

// The row length of a block: the stored slots rounded up to whole vectors of 16.
inline int BlockRowLength(int stored) {
  return (stored + 15) / 16 * 16;
}

#if defined(__SSE2__)
// Transposes 16 slots x 16 pixels of 8-bit samples: rows slot .. slot + 15 of the frames, pixels
// firstPixel .. firstPixel + 15, into 16 block rows of 16 samples at `to` (row stride rowLength).
// Four rounds of the same perfect shuffle (interleaving row pairs at 8, 16, 32 and 64 bits) leave
// the column with bit-reversed index j in vector j.
inline void TransposeTile8(const void* const* slots, int slot, int firstPixel, std::uint8_t* to,
                           int rowLength) {
  __m128i v[16];
  for (int i = 0; i < 16; ++i)
    v[i] = _mm_loadu_si128(
        reinterpret_cast<const __m128i*>(static_cast<const std::uint8_t*>(slots[slot + i]) + firstPixel));
  const auto round = [&v](auto interleaveLow, auto interleaveHigh) {
    __m128i t[16];
    for (int i = 0; i < 8; ++i) {
      t[i] = interleaveLow(v[2 * i], v[2 * i + 1]);
      t[i + 8] = interleaveHigh(v[2 * i], v[2 * i + 1]);
    }
    for (int i = 0; i < 16; ++i)
      v[i] = t[i];
  };
  round([](__m128i a, __m128i b) { return _mm_unpacklo_epi8(a, b); },
        [](__m128i a, __m128i b) { return _mm_unpackhi_epi8(a, b); });
  round([](__m128i a, __m128i b) { return _mm_unpacklo_epi16(a, b); },
        [](__m128i a, __m128i b) { return _mm_unpackhi_epi16(a, b); });
  round([](__m128i a, __m128i b) { return _mm_unpacklo_epi32(a, b); },
        [](__m128i a, __m128i b) { return _mm_unpackhi_epi32(a, b); });
  round([](__m128i a, __m128i b) { return _mm_unpacklo_epi64(a, b); },
        [](__m128i a, __m128i b) { return _mm_unpackhi_epi64(a, b); });
  constexpr int kBitReversed[16] = {0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15};
  for (int j = 0; j < 16; ++j)
    _mm_storeu_si128(
        reinterpret_cast<__m128i*>(to + static_cast<std::ptrdiff_t>(kBitReversed[j]) * rowLength), v[j]);
}
#endif

// Copies slots [lo, hi) of pixels firstPixel .. firstPixel + width - 1 into the block (other slots
// of the rows are left as they are): 8-bit samples by tiles of 16 x 16, the rest one by one.
template <typename Stored>
void CopyBlock(const void* const* slots, int lo, int hi, int firstPixel, int width, int rowLength,
               Stored* block) {
  int slot = lo;
#if defined(__SSE2__)
  if constexpr (sizeof(Stored) == 1) {
    for (; slot + 16 <= hi; slot += 16) {
      int i = 0;
      for (; i + 16 <= width; i += 16) {
        TransposeTile8(
            slots, slot, firstPixel + i,
            reinterpret_cast<std::uint8_t*>(block) + static_cast<std::ptrdiff_t>(i) * rowLength + slot,
            rowLength);
      }
      for (int k = slot; k < slot + 16; ++k) {
        const Stored* row = static_cast<const Stored*>(slots[k]) + firstPixel;
        for (int j = i; j < width; ++j)
          block[static_cast<std::ptrdiff_t>(j) * rowLength + k] = row[j];
      }
    }
  }
#endif
  for (; slot < hi; ++slot) {
    const Stored* row = static_cast<const Stored*>(slots[slot]) + firstPixel;
    for (int j = 0; j < width; ++j)
      block[static_cast<std::ptrdiff_t>(j) * rowLength + slot] = row[j];
  }
}

// Asks for the lines the next CopyBlock will read, so that they arrive while this block is evaluated.
template <typename Stored>
void PrefetchBlock(const void* const* slots, int lo, int hi, int firstPixel, int width) {
  constexpr int kLineSamples = static_cast<int>(64 / sizeof(Stored));
  for (int slot = lo; slot < hi; ++slot) {
    const Stored* row = static_cast<const Stored*>(slots[slot]) + firstPixel;
    for (int i = 0; i < width; i += kLineSamples)
      __builtin_prefetch(row + i);
  }
}

// The stored samples of one pixel of a copied block.
template <typename Stored>
struct BlockSamples {
  const Stored* block;
  int offset;  // the pixel's place in the block
  int rowLength;
  double operator()(int slot) const {
    return static_cast<double>(block[static_cast<std::ptrdiff_t>(offset) * rowLength + slot]);
  }
  // A contiguous run: 8-bit samples widened and converted 16 at a time (the conversion of an integer
  // to double is exact, so the values are those of the one-by-one loop).
  void Load(int first, int count, double* out) const {
    const Stored* from = block + static_cast<std::ptrdiff_t>(offset) * rowLength + first;
    int k = 0;
#if defined(__SSE2__)
    if constexpr (sizeof(Stored) == 1) {
      const __m128i zero = _mm_setzero_si128();
      for (; k + 16 <= count; k += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + k));
        const __m128i words[2] = {_mm_unpacklo_epi8(bytes, zero), _mm_unpackhi_epi8(bytes, zero)};
        for (int w = 0; w < 2; ++w) {
          const __m128i ints[2] = {_mm_unpacklo_epi16(words[w], zero), _mm_unpackhi_epi16(words[w], zero)};
          for (int n = 0; n < 2; ++n) {
            double* to = out + k + 8 * w + 4 * n;
            _mm_storeu_pd(to, _mm_cvtepi32_pd(ints[n]));
            _mm_storeu_pd(to + 2, _mm_cvtepi32_pd(_mm_shuffle_epi32(ints[n], 0xEE)));
          }
        }
      }
    }
#endif
    for (; k < count; ++k)
      out[k] = static_cast<double>(from[k]);
  }
};

// The geometry every loader needs: S frames stored, F frames scanned, q samples per signal.
struct LoaderGeometry {
  int stored;
  int scanned;
  int q;
};

// A pixel's peak frame when the discriminator gave none (0 or less): the frame k in [2, S) where
// the signal rises most over two frames, s[k] - s[k-2], counting only rises above 8 counts (the
// first such maximum wins). A fringe rises fastest where it is strongest, so this is near the
// envelope's peak; a signal without such a rise keeps the peak it had.
template <typename Samples>
int EstimatePeak(const Samples& s, int stored, int peak) {
  if (peak > 0 || stored < 3) return peak;
  double best = 8.0;
  int found = peak;
  for (int k = 2; k < stored; ++k) {
    const double rise = s(k) - s(k - 2);
    if (rise > best) {
      best = rise;
      found = k;
    }
  }
  return found;
}

// The peak frame p of a reversed scan mirrored to F - p. Peaks are the host's data and may lie
// anywhere (2147483640 marks an unknown one); the mirror of a peak far outside the scan saturates at
// the int range instead of overflowing, so it stays outside the scan.
inline int MirroredPeak(int scanned, int peak) {
  return static_cast<int>(std::clamp<std::int64_t>(std::int64_t{scanned} - peak, INT_MIN, INT_MAX));
}

// Each loader writes the pixel's signal into `out` in scan order and returns the peak frame the
// algorithm is to use. They are chosen once per range of pixels.

// Each loader also tells which slots [lo, hi) a pixel with a given incoming peak reads (widening the
// range it is handed), so that the fast path copies no more of a block than its pixels use.
//
// Range tests are written as peak < F - h rather than peak + h < F: the peak may be near INT_MAX.

// Forward, whole scan, no window: the S samples as stored.
struct ForwardWhole {
  LoaderGeometry g;
  void Needs(int, int& lo, int& hi) const {
    lo = 0;
    hi = g.stored;
  }
  template <typename Samples>
  int operator()(const Samples& s, double* out, int peak) const {
    s.Load(0, g.stored, out);
    return peak;
  }
};

// Forward, whole scan, q-sample window around the peak. At the ends of the scan the window stops at
// the first or last frame, and a known peak is moved to where the algorithm's windowed rules expect
// it (h, or S - h - 1).
struct ForwardWindowed {
  LoaderGeometry g;
  void Needs(int peak, int& lo, int& hi) const {
    const int h = g.q / 2;
    if (peak <= 0) {  // the peak is estimated from every sample
      lo = 0;
      hi = g.stored;
    } else if (h <= peak && peak < g.scanned - h) {
      lo = std::min(lo, peak - h);
      hi = std::max(hi, peak + h);
    } else if (peak < h) {
      lo = 0;
      hi = std::max(hi, g.q);
    } else {
      lo = std::min(lo, g.stored - g.q);
      hi = g.stored;
    }
  }
  template <typename Samples>
  int operator()(const Samples& s, double* out, int peak) const {
    const int h = g.q / 2;
    peak = EstimatePeak(s, g.stored, peak);
    if (h <= peak && peak < g.scanned - h) {
      s.Load(peak - h, g.q, out);
    } else if (peak < h) {
      s.Load(0, g.q, out);
      if (peak > 0) peak = h;
    } else {
      s.Load(g.stored - g.q, g.q, out);
      if (peak > 0) peak = g.stored - h - 1;
    }
    return peak;
  }
};

// Forward, ring of S slots holding the S frames around the peak: unrolled so that the peak frame
// lands at index S/2 (S is a power of two, so the slot is a bit mask away). A peak too close to an
// end of the scan for a centred ring leaves the slots in their stored order.
struct ForwardRing {
  LoaderGeometry g;
  void Needs(int, int& lo, int& hi) const {
    lo = 0;
    hi = g.stored;
  }
  template <typename Samples>
  int operator()(const Samples& s, double* out, int peak) const {
    const int half = g.stored / 2;
    const int mask = g.stored - 1;
    if (half <= peak && peak < g.scanned - half) {
      for (int k = 0; k < g.stored; ++k)
        out[k] = s((peak + half + k) & mask);
    } else {
      for (int k = 0; k < g.stored; ++k)
        out[k] = s(k);
    }
    return peak;
  }
};

// Reversed, whole scan, no window: sample k mirrored to F - 1 - k, the peak to F - peak.
struct ReversedWhole {
  LoaderGeometry g;
  void Needs(int, int& lo, int& hi) const {
    lo = 0;
    hi = g.stored;
  }
  template <typename Samples>
  int operator()(const Samples& s, double* out, int peak) const {
    for (int k = 0; k < g.stored; ++k)
      out[k] = s(g.scanned - 1 - k);
    return MirroredPeak(g.scanned, peak);
  }
};

// Reversed, whole scan, q-sample window around the peak, mirrored; the peak becomes F - peak.
struct ReversedWindowed {
  LoaderGeometry g;
  void Needs(int peak, int& lo, int& hi) const {
    const int h = g.q / 2;
    if (peak <= 0) {
      lo = 0;
      hi = g.stored;
    } else if (peak < h) {
      lo = std::min(lo, g.scanned - g.q);
      hi = g.stored;
    } else if (peak >= g.scanned - h) {
      lo = 0;
      hi = std::max(hi, g.q);
    } else {
      lo = std::min(lo, peak + h - g.q + 1);
      hi = std::max(hi, peak + h + 1);
    }
  }
  template <typename Samples>
  int operator()(const Samples& s, double* out, int peak) const {
    const int h = g.q / 2;
    peak = EstimatePeak(s, g.stored, peak);
    if (peak < h) {
      for (int k = 0; k < g.q; ++k)
        out[k] = s(g.scanned - 1 - k);
    } else if (peak >= g.scanned - h) {
      for (int j = g.stored - g.q; j < g.stored; ++j)
        out[j - (g.stored - g.q)] = s(g.scanned - 1 - j);
    } else {
      for (int k = 0; k < g.q; ++k)
        out[k] = s(peak + h - k);
    }
    return MirroredPeak(g.scanned, peak);
  }
};

// Reversed, ring: unrolled around the peak and mirrored; the peak becomes F - peak.
struct ReversedRing {
  LoaderGeometry g;
  void Needs(int, int& lo, int& hi) const {
    lo = 0;
    hi = g.stored;
  }
  template <typename Samples>
  int operator()(const Samples& s, double* out, int peak) const {
    const int half = g.stored / 2;
    const int mask = g.stored - 1;
    if (half <= peak && peak < g.scanned - half) {
      for (int m = 0; m < g.stored; ++m)
        out[g.stored - 1 - m] = s((peak + half + m) & mask);
    } else {
      for (int k = 0; k < g.stored; ++k)
        out[k] = s(g.stored - 1 - k);
    }
    return MirroredPeak(g.scanned, peak);
  }
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// The stored samples of one pixel: s(k) is the pixel's sample in slot k, converted to double.
template <typename Stored>
struct PixelSamples {
  const void* const* slots;
  int pixel;
  double operator()(int slot) const {
    return static_cast<double>(static_cast<const Stored*>(slots[slot])[pixel]);
  }
};

// The fast path's copy of a block of pixels: kBlockPixels samples of each stored frame, frame after
// frame (the samples of pixel i of the block at i, kBlockPixels + i, 2 kBlockPixels + i, ...).
inline constexpr int kBlockPixels = 64;

// Copies slots [lo, hi) of pixels firstPixel .. firstPixel + width - 1 into rows lo .. hi - 1 of the
// block (other rows are left as they are).
template <typename Stored>
void CopyBlock(const void* const* slots, int lo, int hi, int firstPixel, int width, Stored* block) {
  for (int slot = lo; slot < hi; ++slot) {
    std::memcpy(block + static_cast<std::ptrdiff_t>(slot) * kBlockPixels,
                static_cast<const Stored*>(slots[slot]) + firstPixel,
                static_cast<std::size_t>(width) * sizeof(Stored));
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
  double operator()(int slot) const {
    return static_cast<double>(block[static_cast<std::ptrdiff_t>(slot) * kBlockPixels + offset]);
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
    for (int k = 0; k < g.stored; ++k)
      out[k] = s(k);
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
      const int first = peak - h;
      for (int k = 0; k < g.q; ++k)
        out[k] = s(first + k);
    } else if (peak < h) {
      for (int k = 0; k < g.q; ++k)
        out[k] = s(k);
      if (peak > 0) peak = h;
    } else {
      const int first = g.stored - g.q;
      for (int k = 0; k < g.q; ++k)
        out[k] = s(first + k);
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

#pragma once

#include <cstdint>
#include <cstdlib>

#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

// The envelope sums of the centroid for a block of kCentroidLanes pixels at once, in exact integers.
//
// For a pixel whose window holds the q samples d_1 .. d_q (q = 64 or 128) with sum D, the centroid
// needs the mean mu = D / q, sum |d_k - mu| and sum k |d_k - mu|. Scaled by q they are integers:
//   deviation = sum |q d_k - D|,   moment = sum k |q d_k - D|,   k = 1 .. q,
// and for samples of up to 32 bits every term of the double-precision reference (the mean, each
// |d_k - mu|, its k-fold and every partial sum) is exact too, since q is a power of two and no value
// needs more than 53 bits. So moment / deviation is the very quotient the reference divides, and the
// heights built from these sums equal the reference's bit for bit.
//
// Input: a compact copy of the block's frames, frame-major (frame lo + j of lane i at
// j x kCentroidLanes + i), `frames` frames of it, and per lane the first frame of its window,
// relative to lo (negative: the lane is not used and gets zeros). A window must lie inside the copy.
inline constexpr int kCentroidLanes = 64;

struct CentroidBlockSums {
  std::int64_t samples[kCentroidLanes];     // D
  std::int64_t deviations[kCentroidLanes];  // sum |q d_k - D|
  std::int64_t moments[kCentroidLanes];     // sum k |q d_k - D|
};

template <typename Stored>
struct CentroidBlockInput {
  const Stored* frames = nullptr;
  int frameCount = 0;
  int q = 64;
  const int* start = nullptr;  // kCentroidLanes entries
};

// The plain reference: lane after lane, each over its own window.
template <typename Stored>
void CentroidBlockSumsPlain(const CentroidBlockInput<Stored>& in, CentroidBlockSums& out) {
  for (int lane = 0; lane < kCentroidLanes; ++lane) {
    out.samples[lane] = out.deviations[lane] = out.moments[lane] = 0;
    const int first = in.start[lane];
    if (first < 0) continue;
    const Stored* d = in.frames + static_cast<std::ptrdiff_t>(first) * kCentroidLanes + lane;
    std::int64_t sum = 0;
    for (int k = 0; k < in.q; ++k)
      sum += d[k * kCentroidLanes];
    std::int64_t deviation = 0, moment = 0;
    for (int k = 0; k < in.q; ++k) {
      const std::int64_t a = std::llabs(in.q * static_cast<std::int64_t>(d[k * kCentroidLanes]) - sum);
      deviation += a;
      moment += (k + 1) * a;
    }
    out.samples[lane] = sum;
    out.deviations[lane] = deviation;
    out.moments[lane] = moment;
  }
}

// The same in AVX2, the lanes masked to their own windows where the block's windows differ: 8-bit
// samples sixteen lanes of 16-bit integers at a time, 16-bit samples eight lanes of 32 bits. They
// need frameCount <= 2 q and one readable frame past the copy's end (its contents do not matter).
// Only call them on a processor with AVX2.
void CentroidBlockSums8Avx2(const CentroidBlockInput<std::uint8_t>& in, CentroidBlockSums& out);
void CentroidBlockSums16Avx2(const CentroidBlockInput<std::uint16_t>& in, CentroidBlockSums& out);

// The kernels this processor runs: AVX2 where it has it, else the plain one; QUARN_SWLI_ISA=sse2
// keeps the plain one (to compare the paths on one machine). Exported for the kernels' test.
template <typename Stored>
using CentroidBlockSumsFunction = void (*)(const CentroidBlockInput<Stored>&, CentroidBlockSums&);
QUARN_PP_EXPORT CentroidBlockSumsFunction<std::uint8_t> SelectCentroidBlockSums8();
QUARN_PP_EXPORT CentroidBlockSumsFunction<std::uint16_t> SelectCentroidBlockSums16();

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

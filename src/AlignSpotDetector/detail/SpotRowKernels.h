#pragma once

#include <climits>
#include <cstdint>

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment::detail {

// The vector part of one row's band moments (count, sum and sum of squares of the pixels v with
// lo <= v <= hi and v below the invalid value), compiled once per instruction set and chosen at
// run time. A kernel takes the longest prefix of the row that fills its registers and returns its
// length; the caller adds the rest pixel by pixel. Squares are summed in 64-bit lanes, each lane
// holding at most (done + 1) / 2 of them; `magnitudeBits` (the or of the magnitudes taken) lets the
// caller see whether they can have overflowed and then sum the row again exactly. `min` and `max`
// are those of every pixel read, taken or not, valid or not (INT_MAX and INT_MIN for none): in a
// row without invalid pixels, the row's value range.
__extension__ typedef unsigned __int128 SpotUInt128;

struct RowMomentSums {
  std::int64_t count = 0;
  std::int64_t sum = 0;
  SpotUInt128 squares = 0;
  std::uint32_t magnitudeBits = 0;
  int min = INT_MAX;
  int max = INT_MIN;
};

using RowMomentsFunction = int (*)(const int* v, int n, int lo, int hi, RowMomentSums& sums);

// Only call a kernel the processor supports.
int RowMomentsSse2(const int* v, int n, int lo, int hi, RowMomentSums& sums);
int RowMomentsAvx2(const int* v, int n, int lo, int hi, RowMomentSums& sums);

// The widest kernel this processor runs; QUARN_SPOT_ISA=sse2 caps the choice (to compare the kernels
// on one machine). Chosen once per process. (A 16-lane kernel was tried: the row sums are then
// bound by memory, and it gained nothing over eight lanes.)
RowMomentsFunction SelectRowMomentsFunction();

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment::detail

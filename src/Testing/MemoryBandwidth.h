#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <vector>

namespace Quarn::Testing {

// MemcpyBytesPerSecond
//
// The machine's own limit for moving `bytes` through memory, measured now: bytes copied per second
// by the best of several memcpy runs of that size (a cold first pass is discarded). A benchmark that
// reads and writes N bytes in all divides its N / time by MemcpyBytesPerSecond(N): a ratio of 1
// means the work costs no more than copying the same bytes.
inline double MemcpyBytesPerSecond(std::size_t bytes, int repetitions = 5) {
  std::vector<unsigned char> from(bytes, 1), to(bytes, 0);
  std::memcpy(to.data(), from.data(), bytes);
  double best = 1e300;
  for (int i = 0; i < repetitions; ++i) {
    const auto start = std::chrono::steady_clock::now();
    std::memcpy(to.data(), from.data(), bytes);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    best = std::min(best, seconds);
    from[static_cast<std::size_t>(i) % bytes] ^= to[bytes / 2];  // keep the copies observable
  }
  return static_cast<double>(bytes) / best;
}

}  // namespace Quarn::Testing

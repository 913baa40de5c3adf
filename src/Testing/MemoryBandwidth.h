#pragma once

#include <algorithm>
#include <barrier>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace Quarn::Testing {

// MemcpyBytesPerSecond
//
// The machine's own limit for moving `bytes` through memory with `threads` threads, measured now:
// bytes copied per second by the best of several memcpy runs of that size, the bytes cut into one
// contiguous share per thread and all shares copied at once (a cold first pass, in which each thread
// also first touches its own share, is discarded). A benchmark that reads and writes N bytes in all
// on T threads divides its N / time by MemcpyBytesPerSecond(N, T): a ratio of 1 means the work costs
// no more than copying the same bytes with as many threads. A multi-threaded run must be compared
// with the multi-threaded copy: one core rarely saturates the memory bus, so a single-threaded
// baseline would flatter it.
inline double MemcpyBytesPerSecond(std::size_t bytes, int threads = 1, int repetitions = 5) {
  threads = std::max(1, threads);
  bytes = std::max<std::size_t>(bytes, 1);
  std::unique_ptr<unsigned char[]> from(new unsigned char[bytes]), to(new unsigned char[bytes]);
  const auto share = [&](int t) {
    const std::size_t begin = bytes * static_cast<std::size_t>(t) / static_cast<std::size_t>(threads);
    const std::size_t end = bytes * static_cast<std::size_t>(t + 1) / static_cast<std::size_t>(threads);
    return std::make_pair(begin, end - begin);
  };
  const auto copy = [&](int t, int pass) {
    const auto [begin, length] = share(t);
    if (pass == 0) {
      std::memset(from.get() + begin, 1, length);
      std::memset(to.get() + begin, 0, length);
    }
    std::memcpy(to.get() + begin, from.get() + begin, length);
    if (length > 0) from[begin] ^= to[begin + length / 2];  // keep the copies observable
  };

  // The calling thread takes share 0; the others wait at the barrier between passes, so that every
  // timed pass starts all copies together and ends when the last one ends.
  std::barrier sync(threads);
  std::vector<std::thread> helpers;
  for (int t = 1; t < threads; ++t) {
    helpers.emplace_back([&, t] {
      for (int pass = 0; pass <= repetitions; ++pass) {
        sync.arrive_and_wait();
        copy(t, pass);
        sync.arrive_and_wait();
      }
    });
  }
  double best = 1e300;
  for (int pass = 0; pass <= repetitions; ++pass) {
    const auto start = std::chrono::steady_clock::now();
    sync.arrive_and_wait();
    copy(0, pass);
    sync.arrive_and_wait();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (pass > 0) best = std::min(best, seconds);
  }
  for (std::thread& helper : helpers)
    helper.join();
  return static_cast<double>(bytes) / best;
}

}  // namespace Quarn::Testing

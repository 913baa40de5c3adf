#pragma once

#include <cstdint>
#include <functional>

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

// RangeRunner
//
// A way to run `body(first, end)` over the index range [0, count), cut into contiguous ranges that
// may run at the same time on several threads, returning when all have ended. The generator lends
// its worker threads this way to the per-pixel loops an algorithm runs after all pixels (the
// fringe-order analysis of a whole field is element by element, and would otherwise run on one
// thread while the others wait). A body must therefore only touch its own range's elements; what
// it sums, it sums into slots of a partition that does not depend on the ranges (see
// PhaseAlgorithmHigh2G::FringeOrderAnalysis), so that results do not depend on the threads.
//
// An empty runner runs the whole range at once on the calling thread (`RunRanges`).
using RangeBody = std::function<void(std::int64_t first, std::int64_t end)>;
using RangeRunner = std::function<void(std::int64_t count, const RangeBody& body)>;

inline void RunRanges(const RangeRunner& runner, std::int64_t count, const RangeBody& body) {
  if (count < 1) return;
  if (runner) {
    runner(count, body);
  } else {
    body(0, count);
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

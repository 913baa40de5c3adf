#include "Swli/PhaseAlgorithmCentroid.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "Analysis/Core/AlignedBuffer.h"
#include "Analysis/Core/DebugChannel.h"
#include "Analysis/Core/SampleDispatch.h"
#include "Swli/detail/BlockWindows.h"
#include "Swli/detail/CentroidBlockKernel.h"
#include "Swli/detail/IsaCap.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

namespace {
constexpr const char* kSource = "Swli\\PhaseAlgorithmCentroid";

// The envelope's sums over one signal: sum |d[k-1] - mean| and sum k |d[k-1] - mean|, k = 1 .. q.
// Four partial sums each, so that the additions of one sum do not wait for one another: lane j of
// each sum takes the samples k = j, j + 4, ... The lanes are written as one vector of four doubles;
// a processor with AVX2 runs it as one instruction (a second version of the function, chosen at load
// time), others as two SSE2 halves. Either way every lane makes the same additions in the same
// order as four scalar sums would, so the results do not depend on the version. The samples are
// integers, so the mean is exact in any order.
// The plain reference: the same four partial sums, one scalar at a time.
void EnvelopeSumsPlain(const double* d, int q, double& sumOut, double& momentOut) {
  double partialMean[4] = {0.0, 0.0, 0.0, 0.0};
  int k = 0;
  for (; k + 4 <= q; k += 4) {
    for (int lane = 0; lane < 4; ++lane)
      partialMean[lane] += d[k + lane];
  }
  for (; k < q; ++k)
    partialMean[0] += d[k];
  const double mean = ((partialMean[0] + partialMean[1]) + (partialMean[2] + partialMean[3])) / q;
  double partialSum[4] = {0.0, 0.0, 0.0, 0.0}, partialMoment[4] = {0.0, 0.0, 0.0, 0.0};
  k = 1;  // one-based positions
  for (; k + 3 <= q; k += 4) {
    for (int lane = 0; lane < 4; ++lane) {
      const double weight = std::abs(d[k - 1 + lane] - mean);
      partialSum[lane] += weight;
      partialMoment[lane] += (k + lane) * weight;
    }
  }
  for (; k <= q; ++k) {
    const double weight = std::abs(d[k - 1] - mean);
    partialSum[0] += weight;
    partialMoment[0] += k * weight;
  }
  sumOut = (partialSum[0] + partialSum[1]) + (partialSum[2] + partialSum[3]);
  momentOut = (partialMoment[0] + partialMoment[1]) + (partialMoment[2] + partialMoment[3]);
}

using Lanes = double __attribute__((vector_size(32)));
using LaneBits = long long __attribute__((vector_size(32)));

// The vector body, inlined into one copy built for AVX2 and one for the baseline, so that the same
// arithmetic runs at either width (no FMA in either: the sums stay equal to the scalar reference).
[[gnu::always_inline]] inline void EnvelopeSumsBody(const double* d, int q, double& sumOut,
                                                    double& momentOut) {
  Lanes partialMean = {0.0, 0.0, 0.0, 0.0};
  int k = 0;
  for (; k + 4 <= q; k += 4) {
    Lanes x;
    std::memcpy(&x, d + k, sizeof x);
    partialMean += x;
  }
  for (; k < q; ++k)
    partialMean[0] += d[k];
  const double mean = ((partialMean[0] + partialMean[1]) + (partialMean[2] + partialMean[3])) / q;
  const LaneBits noSign = {0x7fffffffffffffffLL, 0x7fffffffffffffffLL, 0x7fffffffffffffffLL,
                           0x7fffffffffffffffLL};
  Lanes partialSum = {0.0, 0.0, 0.0, 0.0}, partialMoment = {0.0, 0.0, 0.0, 0.0};
  Lanes position = {1.0, 2.0, 3.0, 4.0};  // one-based positions k + lane
  k = 1;
  for (; k + 3 <= q; k += 4) {
    Lanes x;
    std::memcpy(&x, d + k - 1, sizeof x);
    const Lanes weight = reinterpret_cast<Lanes>(reinterpret_cast<LaneBits>(x - mean) & noSign);
    partialSum += weight;
    partialMoment += position * weight;
    position += 4.0;
  }
  for (; k <= q; ++k) {
    const double weight = std::abs(d[k - 1] - mean);
    partialSum[0] += weight;
    partialMoment[0] += k * weight;
  }
  sumOut = (partialSum[0] + partialSum[1]) + (partialSum[2] + partialSum[3]);
  momentOut = (partialMoment[0] + partialMoment[1]) + (partialMoment[2] + partialMoment[3]);
}

[[gnu::target("avx2")]] void EnvelopeSumsAvx2(const double* d, int q, double& sumOut, double& momentOut) {
  EnvelopeSumsBody(d, q, sumOut, momentOut);
}

void EnvelopeSumsBaseline(const double* d, int q, double& sumOut, double& momentOut) {
  EnvelopeSumsBody(d, q, sumOut, momentOut);
}

// Chosen once when the library is loaded (QUARN_SWLI_ISA=sse2 keeps the baseline, as for the peak
// finder, so that tests reach it on any machine). An explicit pointer rather than the compiler's
// target_clones: those resolve through an ifunc while the dynamic linker relocates the library,
// before a sanitizer runtime has started, which crashes ThreadSanitizer builds.
using EnvelopeSumsFunction = void (*)(const double*, int, double&, double&);
EnvelopeSumsFunction SelectEnvelopeSums() {
  return detail::MayUseAvx2() ? &EnvelopeSumsAvx2 : &EnvelopeSumsBaseline;
}
const EnvelopeSumsFunction EnvelopeSums = SelectEnvelopeSums();
const detail::CentroidBlockSumsFunction<std::uint8_t> CentroidBlockSums8 = detail::SelectCentroidBlockSums8();
const detail::CentroidBlockSumsFunction<std::uint16_t> CentroidBlockSums16 =
    detail::SelectCentroidBlockSums16();

constexpr int kLanes = detail::kCentroidLanes;
static_assert(kLanes == FramePlaneBlock::kPixels);
}  // namespace

// One thread's block: the compact copy of the block's frames (up to 2 q frames plus the one spare
// frame the vector kernel may read, of samples up to 32 bits) and the kernel's sums.
struct PhaseAlgorithmCentroid::BlockScratch {
  Analysis::Core::AlignedBuffer frames;
  Analysis::Core::FrameBuffer::ElementRes resolution = Analysis::Core::FrameBuffer::kRes8Bit;
  bool reversed = false;
  detail::CentroidBlockSums sums;
};

PhaseAlgorithmCentroid::PhaseAlgorithmCentroid() : PhaseAlgorithm(__LINE__, kSource) {}

PhaseAlgorithmCentroid::~PhaseAlgorithmCentroid() = default;

void PhaseAlgorithmCentroid::Initialize(int pass, int numberFrames, int qSize,
                                        const Analysis::Core::Window2D& window) {
  PhaseAlgorithm::Initialize(pass, numberFrames, qSize, window);
  modulationThreshold_ = minimumModulation_ * 2.0 * maxScanValue_ / 100.0;
  // The block path forms the intensity of the estimator the pixel path calls; any other (an override
  // of the selection) keeps the blocks off.
  blockIntensity_ = BlockIntensity::kUnsupported;
  if (fringeRemoval_ == &PhaseAlgorithmCentroid::RemoveFringesNone) blockIntensity_ = BlockIntensity::kNone;
  if (fringeRemoval_ == &PhaseAlgorithmCentroid::StandardRemoveFringes)
    blockIntensity_ = BlockIntensity::kStandard;
  if (fringeRemoval_ == &PhaseAlgorithmCentroid::RemoveFringes64BucketSimple)
    blockIntensity_ = BlockIntensity::kBucket;
}

void PhaseAlgorithmCentroid::InitializeThread(int numberThreads) {
  PhaseAlgorithm::InitializeThread(numberThreads);
  blockScratch_.clear();
  const int q = signalSize_;
  if (!useFastPath_ || (q != 64 && q != 128)) return;
  blockScratch_.resize(static_cast<std::size_t>(std::max(numberThreads, 0)));
  const std::size_t bytes = static_cast<std::size_t>(2 * q + 1) * kLanes * sizeof(std::int32_t);
  for (auto& scratch : blockScratch_) {
    scratch = std::make_unique<BlockScratch>();
    // Without it the blocks are declined and the pixel path runs, which needs no scratch.
    if (!scratch->frames.Allocate(bytes)) scratch.reset();
  }
}

void PhaseAlgorithmCentroid::FinalizeThread() {
  blockScratch_.clear();
  PhaseAlgorithm::FinalizeThread();
}

bool PhaseAlgorithmCentroid::BeginFrameBlocks(int thread, const FrameBlockRun& run) {
  const int q = signalSize_;
  // Windows of q samples cut from a longer whole scan; the exact integer sums need q a power of two.
  if (!useFastPath_ || blockIntensity_ == BlockIntensity::kUnsupported || run.signalSize != q ||
      (q != 64 && q != 128) || run.framesStored != numberFrames_ || run.framesStored <= q)
    return false;
  if (thread < 0 || thread >= static_cast<int>(blockScratch_.size())) return false;
  BlockScratch* scratch = blockScratch_[static_cast<std::size_t>(thread)].get();
  if (!scratch) return false;
  scratch->resolution = run.resolution;
  scratch->reversed = run.reversed;
  return true;
}

std::uint64_t PhaseAlgorithmCentroid::ProcessFrameBlock(int thread, const FramePlaneBlock& block) {
  BlockScratch& scratch = *blockScratch_[static_cast<std::size_t>(thread)];
  return Analysis::Core::DispatchSampleType(scratch.resolution,
                                            [&]<typename Stored>(Analysis::Core::SampleTag<Stored>) {
                                              return ProcessFrameBlockAs<Stored>(scratch, block);
                                            });
}

template <typename Stored>
std::uint64_t PhaseAlgorithmCentroid::ProcessFrameBlockAs(BlockScratch& scratch,
                                                          const FramePlaneBlock& block) {
  const int q = signalSize_;
  const int h = halfSignalSize_;
  const int stored = numberFrames_;
  // A mirrored peak of 0 or less makes the intensity a sliding maximum over the whole signal: the
  // pixel path does that.
  const bool reversed = scratch.reversed;
  detail::BlockWindows windows;
  const std::uint64_t left = detail::PlaceBlockWindows(
      block, stored, q, reversed,
      [&](int i) {
        return Analysis::Core::DoubleMatrix2D::IsDataValid(block.mask[i]) ||
               blockIntensity_ != BlockIntensity::kNone;
      },
      windows);
  const int* const start = windows.start;
  const int* const peak = windows.peak;
  const int lo = windows.lo, hi = windows.hi;
  if (hi <= lo) return left;

  // The block's frames lo .. hi - 1, one row of kLanes samples per frame: each frame's samples of the
  // block are read once, in whole lines, and the lanes then work on a copy that fits the first-level
  // cache (frame planes a power of two apart would all compete for one cache set).
  Stored* const copy = reinterpret_cast<Stored*>(scratch.frames.Data());
  constexpr std::ptrdiff_t kAhead = kLanes;
  const std::size_t rowBytes = static_cast<std::size_t>(block.width) * sizeof(Stored);
  for (int f = lo; f < hi; ++f) {
    const Stored* from = static_cast<const Stored*>(block.slots[f]) + block.firstPixel;
    // The next block's samples of this frame, which that block will most likely read: asked for now
    // so that they arrive while this block is evaluated (a frame apart, the processor sees no stream).
    __builtin_prefetch(from + kAhead);
    Stored* to = copy + static_cast<std::ptrdiff_t>(f - lo) * kLanes;
    if (block.width == kLanes) {
      std::memcpy(to, from, kLanes * sizeof(Stored));
    } else {
      std::memcpy(to, from, rowBytes);
    }
  }
  int relative[kLanes];
  for (int i = 0; i < kLanes; ++i)
    relative[i] = start[i] < 0 ? -1 : start[i] - lo;
  const detail::CentroidBlockInput<Stored> input{copy, hi - lo, q, relative};
  detail::CentroidBlockSums& sums = scratch.sums;
  if constexpr (sizeof(Stored) == 1) {
    CentroidBlockSums8(input, sums);
  } else if constexpr (sizeof(Stored) == 2) {
    CentroidBlockSums16(input, sums);
  } else {
    detail::CentroidBlockSumsPlain(input, sums);
  }

  // Per pixel: the modulation test at the window centre, the height, the intensity; the same
  // integer-valued terms as the pixel path, so the same doubles. o(j) is sample c + j of the pixel's
  // signal in scan order (c = h, the window centre): a reversed window runs backwards through the copy.
  const std::ptrdiff_t step = reversed ? -kLanes : kLanes;
  const int centreOffset = reversed ? h - 1 : h;
  for (int i = 0; i < kLanes; ++i) {
    if (relative[i] < 0) continue;
    const int pixel = block.firstPixel + i;
    const Stored* centre = copy + static_cast<std::ptrdiff_t>(relative[i] + centreOffset) * kLanes + i;
    const auto o = [centre, step](int j) { return static_cast<std::int64_t>(centre[j * step]); };
    // The pixel path gives a height only to a peak half a signal inside the scan (always so for a
    // forward window; a reversed one at the scan's ends mirrors its peak outside).
    if (Analysis::Core::DoubleMatrix2D::IsDataValid(block.mask[i]) && h <= peak[i] && peak[i] < stored - h) {
      const std::int64_t m = std::llabs((o(0) - o(-2)) + (o(0) - o(2))) + std::llabs(2 * (o(-1) - o(1)));
      if (modulationThreshold_ <= static_cast<double>(m) && sums.deviations[i] > 0) {
        // Counted from the window's other end, the weights k of a reversed window are q + 1 - k.
        const std::int64_t moment =
            reversed ? (q + 1) * sums.deviations[i] - sums.moments[i] : sums.moments[i];
        double position = static_cast<double>(moment) / static_cast<double>(sums.deviations[i]) + 1.0;
        position += peak[i] - h - 1;
        surface_->At(pixel) = position * scanIncrementValue_;
      }
    }
    if (blockIntensity_ == BlockIntensity::kStandard) {
      const std::int64_t w = o(-4) + o(-3) + 3 * (o(-2) + o(-1) + o(0) + o(1)) + o(2) + o(3);
      StoreIntensity(pixel, 0.0625 * static_cast<double>(w));
    } else if (blockIntensity_ == BlockIntensity::kBucket) {
      StoreIntensity(pixel, static_cast<double>(sums.samples[i]) * 0.015625);
    }
  }
  return left;
}

int PhaseAlgorithmCentroid::ProcessPixel(int thread, int pixel, int peakFrame, int) {
  const double* d = SignalOf(thread);
  const int q = signalSize_;
  const int h = halfSignalSize_;
  const int frames = numberFrames_;
  if (!d || q < 5 || peakFrame < h || peakFrame >= frames - h) return RemoveFringes(thread, pixel, peakFrame);

  // A window cut around the peak has the peak at its centre; a whole-scan signal has it where it is.
  const bool windowed = frames != q;
  const int c = windowed ? h : peakFrame;
  const double m = std::abs((d[c] - d[c - 2]) + (d[c] - d[c + 2])) + std::abs(2.0 * (d[c - 1] - d[c + 1]));
  if (modulationThreshold_ <= m) {
    double sum = 0.0, moment = 0.0;
    if (useFastPath_) {
      EnvelopeSums(d, q, sum, moment);
    } else {
      EnvelopeSumsPlain(d, q, sum, moment);
    }
    if (sum > 0.0) {
      double position = moment / sum + 1.0;
      if (windowed) position += peakFrame - h - 1;
      surface_->At(pixel) = position * scanIncrementValue_;
      if (IsDebuging(thread)) {
        Analysis::Core::debug_printf(
            "Centroid pixel %d: peak %d, modulation %g, position %g frames, height %g nm\n", pixel, peakFrame,
            m, position, position * scanIncrementValue_);
      }
    }
  } else if (IsDebuging(thread)) {
    Analysis::Core::debug_printf("Centroid pixel %d: peak %d, modulation %g below %g\n", pixel, peakFrame, m,
                                 modulationThreshold_);
  }
  return RemoveFringes(thread, pixel, peakFrame);
}

void PhaseAlgorithmCentroid::PostProcess() {}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

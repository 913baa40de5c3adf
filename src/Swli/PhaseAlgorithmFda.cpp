#include "Swli/PhaseAlgorithmFda.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstring>
#include <new>
#include <numbers>
#include <string>

#include "Analysis/Core/AlignedBuffer.h"
#include "Analysis/Core/DebugChannel.h"
#include "Analysis/Core/SampleDispatch.h"
#include "Swli/detail/BandAnalysis.h"
#include "Swli/detail/BandTransform.h"
#include "Swli/detail/BlockBands.h"
#include "Swli/detail/BlockWindows.h"
#include "Swli/detail/HeightFold.h"
#include "Swli/detail/Rounding.h"
#include "Swli/detail/VectorAtan2.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

using Analysis::Core::AdcPoint;
using Analysis::Core::DataWindow2D;
using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::Status;
using Analysis::Core::Window2D;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "Swli\\PhaseAlgorithmFda";
// The line hosts know the "no pixel succeeded" failure by.
constexpr unsigned kLineNoValidPixel = 116;

constexpr double kTwoPi = 2.0 * std::numbers::pi;
constexpr double kPi = std::numbers::pi;
// The band holds at most the bins of a 128-sample transform.
constexpr int kMaxBandBins = 65;
// The band's arrays padded to whole vectors of four for the vector atan2.
constexpr int kPaddedBandBins = 68;
// Each pixel's k0 is rounded to a multiple of 2^-20 bin before it is summed: such sums are exact in
// double precision (up to some 10^8 pixels), so K0 is the same however the pixels were shared
// among threads. The rounding (1e-6 bin) is far below any pixel's own uncertainty.
constexpr double kWavenumberGrid = 1048576.0;

// Pixels whose band is analysed together on the fast path: whole vectors of pixels for the analysis,
// few enough that a thread's block (five arrays of band bins x 32 doubles, 11 KB for 9 bins) stays in
// the first-level cache between the transforms and the analysis.
constexpr int kBlockPixels = detail::kBandLanes;

struct PhaseFit {
  double intercept = 0.0;
  double slope = 0.0;
};

// Power-weighted least-squares line through phase[k] over bins lower .. upper; the powers lie at
// stride `stride` from the band's first bin, the phases contiguously.
PhaseFit WeightedPhaseFit(const double* power, int stride, const double* phase, int firstBin, int lower,
                          int upper, int size) {
  if (upper + 1 >= size / 2) return {};
  double sw = 0.0, sk = 0.0, skk = 0.0, sy = 0.0, sky = 0.0;
  for (int k = lower; k <= upper; ++k) {
    const double w = power[(k - firstBin) * stride];
    const double y = phase[k - firstBin];
    sw += w;
    sk += w * k;
    skk += w * k * k;
    sy += w * y;
    sky += w * y * k;
  }
  const double d = skk * sw - sk * sk;
  return {(sy * skk - sky * sk) / d, (sky * sw - sy * sk) / d};
}

// The vector atan2 and the band transform of this processor, chosen once.
const detail::VectorAtan2Function kVectorAtan2 = detail::SelectVectorAtan2();
const detail::FoldHeightsFunction kFoldHeights = detail::SelectFoldHeights();
const detail::BandBinsFunction kBandBins = detail::SelectBandBins();
const detail::BlockBandsFunction kBlockBands = detail::SelectBlockBands();
// The pixels of a frame block and the weight of the standard fringe-removal window.
constexpr int kFrameLanes = FramePlaneBlock::kPixels;
constexpr double kStandardWindowScale = 0.0625;
const detail::BandAnalysisFunctions kBandAnalysis = detail::SelectBandAnalysis();

// The unwrapping step: the phase of a bin within pi of its inner neighbour. Written as selects, not
// branches (which bin needs a turn is as random as the noise): subtracting and adding 0 leaves the
// phase as it is (a -0 comes out +0, which the sums of the fit cannot tell apart).
double Unwrapped(double phase, double inner) {
  const double difference = phase - inner;
  const double down = difference > kPi ? kTwoPi : 0.0;
  const double up = difference < -kPi ? kTwoPi : 0.0;
  return (phase - down) + up;
}

// Bin k of the transform as the height formulas read it. They are written for the kernel
// exp(+2 pi i j k / q); the transform uses exp(-2 pi i j k / q), whose bins of a real signal are the
// complex conjugates. (-1)^k then moves the phase origin from sample 0 to the window centre q/2, the
// peak frame. Negations only, so both paths see the same bits.
inline void BandBin(const std::complex<double>& bin, int k, double& re, double& im) {
  re = bin.real();
  im = -bin.imag();
  if (k & 1) {
    re = -re;
    im = -im;
  }
}
}  // namespace

PhaseAlgorithmFda::PhaseAlgorithmFda()
    : PhaseAlgorithmHigh2G(__LINE__, kSource), bandTransform_(std::make_unique<detail::BandTransform>()) {}

PhaseAlgorithmFda::~PhaseAlgorithmFda() = default;

void PhaseAlgorithmFda::Initialize(int pass, int numberFrames, int qSize, const Window2D& window) {
  PhaseAlgorithmHigh2G::Initialize(pass, numberFrames, qSize, window);
  if (status_.IsError()) return;
  if (firstBin_ < 0 || lastBin_ < firstBin_ || lastBin_ > qSize / 2 ||
      lastBin_ - firstBin_ + 1 > kMaxBandBins) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                     "The band of bins " + std::to_string(firstBin_) + " .. " + std::to_string(lastBin_) +
                         " does not fit a transform of " + std::to_string(qSize) + " samples");
    return;
  }
  // (4 x saturation x minimum modulation / 100)^2: a bin must hold the power of fringes of that
  // amplitude over a few samples.
  powerThreshold_ =
      (minimumModulation_ * minimumModulation_ * maxScanValue_ * maxScanValue_ * 16.0) / 10000.0;
  if (!fitRecords_) fitRecords_ = std::make_unique<DataWindow2D<AdcPoint>>();
  if (!fitRecords_->Resize(window)) {
    Analysis::Core::RecordCallFailure(status_, fitRecords_->GetStatus(), "fitRecords.Resize", kSource,
                                      __LINE__);
    return;
  }
  fitRecords_->SetAll(DataWindow2D<AdcPoint>::NoData());
}

// One thread's block of pixels waiting for the band analysis: bin after bin across the block's
// pixels (lanes), the band's parts, powers, wrapped and unwrapped phases, each row a whole number of
// vectors.
struct PhaseAlgorithmFda::BandBlock {
  std::vector<double> re, im, power, wrapped, phase;
  // The frame blocks' copy of their frames (one row of kFrameLanes samples per frame) and the run.
  Analysis::Core::AlignedBuffer frames;
  Analysis::Core::FrameBuffer::ElementRes resolution = Analysis::Core::FrameBuffer::kRes8Bit;
  bool reversed = false;
  int pixels[kBlockPixels] = {};
  int peaks[kBlockPixels] = {};
  bool traced[kBlockPixels] = {};
  int count = 0;
  // A frame block's bins (two blocks of kBlockPixels lanes), its windows' intensity sums and pixels.
  std::vector<double> frameRe, frameIm;
  std::int32_t sums[kFrameLanes] = {};
  int framePixels[kFrameLanes] = {};
  int framePeaks[kFrameLanes] = {};
};

void PhaseAlgorithmFda::InitializeThread(int numberThreads) {
  PhaseAlgorithmHigh2G::InitializeThread(numberThreads);
  blocks_.clear();
  const int bandBins = lastBin_ - firstBin_ + 1;
  if (status_.IsError() || !useFastPath_ || bandBins < 1 || bandBins > kMaxBandBins) return;
  // Without a band transform for this signal size the fast path evaluates pixel by pixel.
  if (!bandTransform_->Plan(signalSize_, firstBin_, lastBin_)) return;
  try {
    for (int t = 0; t < numberThreads; ++t) {
      auto block = std::make_unique<BandBlock>();
      const std::size_t band = static_cast<std::size_t>(bandBins) * kBlockPixels;
      for (std::vector<double>* row : {&block->re, &block->im, &block->power, &block->wrapped, &block->phase})
        row->assign(band, 0.0);
      block->frameRe.assign(2 * band, 0.0);
      block->frameIm.assign(2 * band, 0.0);
      // Frames of up to two signals (see ProcessFrameBlockAs); without them the blocks are declined.
      if (signalSize_ == 64 || signalSize_ == 128)
        block->frames.Allocate(static_cast<std::size_t>(2 * signalSize_ + 1) * kFrameLanes *
                               sizeof(std::uint16_t));
      blocks_.push_back(std::move(block));
    }
  } catch (const std::bad_alloc&) {
    blocks_.clear();
    status_ =
        Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "Allocation of the band blocks failed");
  }
}

void PhaseAlgorithmFda::FinalizeThread() {
  blocks_.clear();
  PhaseAlgorithmHigh2G::FinalizeThread();
}

int PhaseAlgorithmFda::ProcessPixel(int thread, int pixel, int peakFrame, int) {
  const int q = signalSize_;
  const int h = halfSignalSize_;
  const double* d = SignalOf(thread);
  if (!d || thread < 0 || thread >= static_cast<int>(threadStates_.size()))
    return RemoveFringes(thread, pixel, peakFrame);
  ThreadState& state = threadStates_[static_cast<std::size_t>(thread)];
  const bool whole = numberFrames_ == q;
  if (!whole && (peakFrame < h || peakFrame >= numberFrames_ - h))
    return RemoveFringes(thread, pixel, peakFrame);

  // (The block path needs no transform object: blocks exist only with a planned band transform.)
  if (useFastPath_ && thread < static_cast<int>(blocks_.size())) {
    BandBlock& block = *blocks_[static_cast<std::size_t>(thread)];
    const int n = block.count;
    kBandBins(*bandTransform_, d, block.re.data() + n, block.im.data() + n, kBlockPixels);
    block.pixels[n] = pixel;
    block.peaks[n] = peakFrame;
    block.traced[n] = IsDebuging(thread);
    if (++block.count == kBlockPixels) AnalyseBlock(thread);
    return RemoveFringes(thread, pixel, peakFrame);
  }

  double* input = state.transform.Input();
  if (!input || state.transform.GetSize() != q) return RemoveFringes(thread, pixel, peakFrame);
  for (int k = 0; k < q; ++k)
    input[k] = d[k];
  state.transform.Forward();
  const std::complex<double>* bins = state.transform.Output();
  const int first = firstBin_;
  const int last = lastBin_;
  double re[kPaddedBandBins], im[kPaddedBandBins], power[kMaxBandBins];
  int strongest = -1;
  double strongestPower = 0.0;
  for (int k = first; k <= last; ++k) {
    const int b = k - first;
    BandBin(bins[k], k, re[b], im[b]);
    const double p = re[b] * re[b] + im[b] * im[b];
    power[b] = p > powerThreshold_ ? p : 0.0;
    // The strongest bin; the first of equal powers wins.
    if (power[b] > strongestPower) {
      strongestPower = power[b];
      strongest = k;
    }
  }
  // Without a block (the host drives pixels outside a pass), the fast path still takes the bins'
  // phases at once with the vector atan2; the plain path one bin at a time as it unwraps.
  if (useFastPath_) {
    double wrapped[kPaddedBandBins];
    const int bandBins = last - first + 1;
    const int padded = (bandBins + 3) / 4 * 4;
    for (int b = bandBins; b < padded; ++b) {
      re[b] = 1.0;
      im[b] = 0.0;
    }
    kVectorAtan2(im, re, wrapped, padded);
    FitBand(state, pixel, peakFrame, IsDebuging(thread), power, 1, strongest, strongestPower,
            [&](int b) { return wrapped[b]; });
  } else {
    FitBand(state, pixel, peakFrame, IsDebuging(thread), power, 1, strongest, strongestPower,
            [&](int b) { return std::atan2(im[b], re[b]); });
  }
  return RemoveFringes(thread, pixel, peakFrame);
}

bool PhaseAlgorithmFda::BeginFrameBlocks(int thread, const FrameBlockRun& run) {
  const int q = signalSize_;
  // The intensity the pixel path would make must be one the integers give: the standard window or none.
  const bool intensity = fringeRemoval_ == &PhaseAlgorithmFda::StandardRemoveFringes ||
                         fringeRemoval_ == &PhaseAlgorithmFda::RemoveFringesNone;
  if (!useFastPath_ || !intensity || run.signalSize != q || (q != 64 && q != 128) ||
      run.framesStored != numberFrames_ || run.framesStored <= q)
    return false;
  if (thread < 0 || thread >= static_cast<int>(blocks_.size())) return false;
  BandBlock& block = *blocks_[static_cast<std::size_t>(thread)];
  if (!block.frames.Data()) return false;
  block.resolution = run.resolution;
  block.reversed = run.reversed;
  return run.resolution == Analysis::Core::FrameBuffer::kRes8Bit ||
         run.resolution == Analysis::Core::FrameBuffer::kRes16Bit;
}

std::uint64_t PhaseAlgorithmFda::ProcessFrameBlock(int thread, const FramePlaneBlock& block) {
  if (blocks_[static_cast<std::size_t>(thread)]->resolution == Analysis::Core::FrameBuffer::kRes8Bit)
    return ProcessFrameBlockAs<std::uint8_t>(thread, block);
  return ProcessFrameBlockAs<std::uint16_t>(thread, block);
}

template <typename Stored>
std::uint64_t PhaseAlgorithmFda::ProcessFrameBlockAs(int thread, const FramePlaneBlock& block) {
  BandBlock& bands = *blocks_[static_cast<std::size_t>(thread)];
  const int q = signalSize_;
  const int h = halfSignalSize_;
  const int stored = numberFrames_;
  const bool reversed = bands.reversed;
  const bool intensity = fringeRemoval_ == &PhaseAlgorithmFda::StandardRemoveFringes;
  bool evaluate[kFrameLanes];
  for (int i = 0; i < block.width; ++i)
    evaluate[i] = DoubleMatrix2D::IsDataValid(block.mask[i]);
  detail::BlockWindows windows;
  const std::uint64_t left = detail::PlaceBlockWindows(
      block, stored, q, reversed, [&](int i) { return evaluate[i] || intensity; }, windows);
  const int* const start = windows.start;
  const int* const peak = windows.peak;
  const int lo = windows.lo, hi = windows.hi;
  if (hi <= lo) return left;

  // The block's frames lo .. hi - 1, each frame's samples read once in whole lines (frame planes a
  // power of two apart would all compete for one cache set if read pixel by pixel).
  Stored* const copy = reinterpret_cast<Stored*>(bands.frames.Data());
  const std::size_t rowBytes = static_cast<std::size_t>(block.width) * sizeof(Stored);
  for (int f = lo; f < hi; ++f) {
    const Stored* from = static_cast<const Stored*>(block.slots[f]) + block.firstPixel;
    // The same frame's line some blocks ahead, into the outer caches only: the planes' lines all share
    // one set of the inner caches, where a line fetched for the next block is evicted before its use,
    // and no hardware prefetcher follows as many streams as there are frames. (A prefetch is a hint:
    // past the plane's end it does nothing; the address is formed as an integer.)
    const std::uintptr_t ahead = reinterpret_cast<std::uintptr_t>(from) + 8 * kFrameLanes * sizeof(Stored);
    for (std::size_t line = 0; line < kFrameLanes * sizeof(Stored); line += 64)
      __builtin_prefetch(reinterpret_cast<const void*>(ahead + line), 0, 1);
    Stored* to = copy + static_cast<std::ptrdiff_t>(f - lo) * kFrameLanes;
    // (A whole block's row as a copy of fixed size, inlined; no library call per frame.)
    if (block.width == kFrameLanes) {
      std::memcpy(to, from, kFrameLanes * sizeof(Stored));
    } else {
      std::memcpy(to, from, rowBytes);
    }
  }

  // Lanes of a partial block hold no pixel; zeros keep every lane's sums finite.
  if (block.width < kFrameLanes) {
    for (int f = lo; f < hi; ++f)
      std::memset(copy + static_cast<std::ptrdiff_t>(f - lo) * kFrameLanes + block.width, 0,
                  static_cast<std::size_t>(kFrameLanes - block.width) * sizeof(Stored));
  }

  // Every window's band bins and intensity sum across the block's pixels at once (detail/BlockBands.h:
  // the integer folds and each lane's sums those of the single-signal kernel, bit for bit).
  static_assert(kFrameLanes == 2 * kBlockPixels && kFrameLanes == detail::BlockBandsJob::kLanes);
  int offsets[kFrameLanes];
  bool fit[kFrameLanes];
  bool anyFit[2] = {false, false};
  for (int i = 0; i < kFrameLanes; ++i) {
    offsets[i] = start[i] < 0 ? -1 : start[i] - lo;
    fit[i] = start[i] >= 0 && evaluate[i] && peak[i] >= h && peak[i] < stored - h;
    anyFit[i / kBlockPixels] = anyFit[i / kBlockPixels] || fit[i];
  }
  detail::BlockBandsJob job;
  job.frames = copy;
  job.wide = sizeof(Stored) == 2;
  job.reversed = reversed;
  job.offsets = offsets;
  job.re = bands.frameRe.data();
  job.im = bands.frameIm.data();
  job.intensity = intensity ? bands.sums : nullptr;
  kBlockBands(*bandTransform_, job);
  if (intensity) {
    for (int i = 0; i < kFrameLanes; ++i) {
      if (start[i] >= 0)
        StoreIntensity(block.firstPixel + i, kStandardWindowScale * static_cast<double>(bands.sums[i]));
    }
  }
  const std::ptrdiff_t half = static_cast<std::ptrdiff_t>(lastBin_ - firstBin_ + 1) * kBlockPixels;
  for (int i = 0; i < kFrameLanes; ++i) {
    bands.framePixels[i] = fit[i] ? block.firstPixel + i : -1;
    bands.framePeaks[i] = fit[i] ? peak[i] : 0;
  }
  for (int part = 0; part < 2; ++part) {
    if (!anyFit[part]) continue;
    AnalyseLanes(thread, bands.frameRe.data() + part * half, bands.frameIm.data() + part * half,
                 bands.framePixels + part * kBlockPixels, bands.framePeaks + part * kBlockPixels, nullptr,
                 kBlockPixels);
  }
  return left;
}

void PhaseAlgorithmFda::AnalyseBlock(int thread) {
  BandBlock& block = *blocks_[static_cast<std::size_t>(thread)];
  const int count = block.count;
  block.count = 0;
  if (count == 0) return;
  const int bandBins = lastBin_ - firstBin_ + 1;
  const auto row = [](std::vector<double>& v, int b) {
    return v.data() + static_cast<std::ptrdiff_t>(b) * kBlockPixels;
  };
  // Lanes of a partial block: no power (a zero bin is below any threshold), any defined angle.
  for (int b = 0; b < bandBins && count < kBlockPixels; ++b) {
    for (int i = count; i < kBlockPixels; ++i) {
      row(block.re, b)[i] = 0.0;
      row(block.im, b)[i] = 0.0;
    }
  }
  AnalyseLanes(thread, block.re.data(), block.im.data(), block.pixels, block.peaks, block.traced, count);
}

void PhaseAlgorithmFda::AnalyseLanes(int thread, double* re, double* im, const int* pixels, const int* peaks,
                                     const bool* traced, int count) {
  BandBlock& block = *blocks_[static_cast<std::size_t>(thread)];
  ThreadState& state = threadStates_[static_cast<std::size_t>(thread)];
  const int first = firstBin_;
  const int bandBins = lastBin_ - first + 1;
  const double threshold = powerThreshold_;
  double top[kBlockPixels], at[kBlockPixels], lower[kBlockPixels], upper[kBlockPixels];
  double k0s[kBlockPixels], intercepts[kBlockPixels], slopes[kBlockPixels];
  detail::BandAnalysisBlock analysis;
  analysis.bins = bandBins;
  analysis.firstBin = first;
  analysis.threshold = threshold;
  analysis.re = re;
  analysis.im = im;
  analysis.power = block.power.data();
  analysis.wrapped = block.wrapped.data();
  analysis.phase = block.phase.data();
  analysis.top = top;
  analysis.at = at;
  analysis.lower = lower;
  analysis.upper = upper;
  analysis.k0 = k0s;
  analysis.intercept = intercepts;
  analysis.slope = slopes;
  kBandAnalysis.powers(analysis);
  kVectorAtan2(im, re, block.wrapped.data(), bandBins * kBlockPixels);
  kBandAnalysis.unwrapAndSum(analysis);

  for (int i = 0; i < count; ++i) {
    const int strongest = static_cast<int>(at[i]);
    const int low = static_cast<int>(lower[i]), high = static_cast<int>(upper[i]);
    if (pixels[i] < 0 || strongest < 0 || top[i] < threshold) continue;
    if (high - low + 1 <= 2 || low == strongest || high == strongest) continue;
    const double k0 = k0s[i];
    state.wavenumberSum += detail::RoundHalfAway(k0 * kWavenumberGrid) / kWavenumberGrid;
    ++state.count;
    PhaseFit fit;
    // A run reaching the last but one bin of the transform fits no line.
    if (first + high + 1 < signalSize_ / 2) fit = {intercepts[i], slopes[i]};
    const int pixel = pixels[i];
    const int peakFrame = peaks[i];
    fitRecords_->At(pixel) = AdcPoint{fit.intercept, fit.slope, static_cast<double>(peakFrame)};
    coherence_.At(pixel) = (numberFrames_ == signalSize_ ? halfSignalSize_ : peakFrame) * scanIncrementValue_;
    if (traced && traced[i]) {
      Analysis::Core::debug_printf(
          "FDA pixel %d: peak %d, bins %d..%d, strongest %d, k0 %g, intercept %g rad, slope %g rad/bin\n",
          pixel, peakFrame, first + low, first + high, first + strongest, k0, fit.intercept, fit.slope);
    }
  }
}

template <typename Angle>
void PhaseAlgorithmFda::FitBand(ThreadState& state, int pixel, int peakFrame, bool traced,
                                const double* power, int stride, int strongest, double strongestPower,
                                const Angle& angle) {
  const int first = firstBin_;
  const int last = lastBin_;
  const auto powerOf = [&](int k) { return power[static_cast<std::ptrdiff_t>(k - first) * stride]; };
  if (strongest < 0 || strongestPower < powerThreshold_) return;

  // Unwrap outwards from the strongest bin while the bins hold fringe power.
  double phase[kMaxBandBins];
  phase[strongest - first] = angle(strongest - first);
  int lower = strongest, upper = strongest;
  for (int k = strongest - 1; k >= first && powerOf(k) > 0.0; --k) {
    phase[k - first] = Unwrapped(angle(k - first), phase[k + 1 - first]);
    lower = k;
  }
  for (int k = strongest + 1; k <= last && powerOf(k) > 0.0; ++k) {
    phase[k - first] = Unwrapped(angle(k - first), phase[k - 1 - first]);
    upper = k;
  }
  const int reached = upper - lower + 1;
  if (reached <= 2 || lower == strongest || upper == strongest) return;

  const double below = powerOf(strongest - 1);
  const double centre = powerOf(strongest);
  const double above = powerOf(strongest + 1);
  const double k0 = strongest + (below - above) / (2.0 * (above + below - 2.0 * centre));
  state.wavenumberSum += detail::RoundHalfAway(k0 * kWavenumberGrid) / kWavenumberGrid;
  ++state.count;

  const PhaseFit fit = WeightedPhaseFit(power, stride, phase, first, lower, upper, signalSize_);
  fitRecords_->At(pixel) = AdcPoint{fit.intercept, fit.slope, static_cast<double>(peakFrame)};
  coherence_.At(pixel) = (numberFrames_ == signalSize_ ? halfSignalSize_ : peakFrame) * scanIncrementValue_;
  if (traced) {
    Analysis::Core::debug_printf(
        "FDA pixel %d: peak %d, bins %d..%d, strongest %d, k0 %g, intercept %g rad, slope %g rad/bin\n",
        pixel, peakFrame, lower, upper, strongest, k0, fit.intercept, fit.slope);
  }
}

void PhaseAlgorithmFda::PostProcess() {
  // A failure of an earlier step (a transform that could not be planned) is the one to report.
  if (status_.IsError()) return;
  for (std::size_t t = 0; t < blocks_.size(); ++t)
    AnalyseBlock(static_cast<int>(t));
  validCount_ = 0;
  meanPeakBin_ = 0.0;
  for (const ThreadState& state : threadStates_) {
    validCount_ += state.count;
    meanPeakBin_ += state.wavenumberSum;
  }
  if (GetValidCount() < 1) {
    status_ = Status(0, StatusCode::kNoValidResult, kLineNoValidPixel, kSource, "");
    return;
  }
  meanPeakBin_ /= validCount_;
  const double delta = scanIncrementValue_;
  const double length = signalSize_ * delta;
  const double c = length / kTwoPi;
  wavelength_ = length / meanPeakBin_;
  halfWavelength_ = wavelength_ / 2.0;

  // Each pixel's two heights, its own arithmetic alone: the pixels may be shared among threads.
  detail::HeightFoldStep fold;
  fold.coherence = coherence_.Data();
  fold.phase = phase_.Data();
  fold.fits = fitRecords_->Data();
  fold.c = c;
  fold.delta = delta;
  fold.k0 = meanPeakBin_;
  fold.wavelength = wavelength_;
  fold.halfWavelength = halfWavelength_;
  fold.canFold = wavelength_ > 0.0 && std::isfinite(wavelength_);
  const detail::FoldHeightsFunction foldHeights = useFastPath_ ? kFoldHeights : &detail::FoldHeights;
  RunRanges(rangeRunner_, std::min({coherence_.GetCount(), phase_.GetCount(), fitRecords_->GetCount()}),
            [&](std::int64_t first, std::int64_t end) { foldHeights(fold, first, end); });
  averageGap_ = FringeOrderAnalysis(fringeOrder_, kTwoPi, kPi, coherence_, phase_, *surface_, wavelength_,
                                    useFastPath_, rangeRunner_);
}

double PhaseAlgorithmFda::GetAverageK0() const {
  return signalSize_ > 0 ? meanPeakBin_ / signalSize_ : 0.0;
}

double PhaseAlgorithmFda::GetWaveLength() const {
  return meanPeakBin_ > 0.0 ? signalSize_ * scanIncrementValue_ / meanPeakBin_ : 0.0;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

#include "Swli/PhaseGenerator.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include "Analysis/Core/AnyValid.h"
#include "Analysis/Core/CTimer.h"
#include "Analysis/Core/DebugChannel.h"
#include "Analysis/Core/NoData.h"
#include "Analysis/Core/SampleDispatch.h"
#include "Swli/FrameBlockEvaluator.h"
#include "Swli/detail/SignalLoaders.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

using Analysis::Core::CTimer;
using Analysis::Core::debug_printf;
using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::FrameBuffer;
using Analysis::Core::IntMatrix2D;
using Analysis::Core::Status;
using Analysis::Core::Window2D;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "Swli\\PhaseGenerator";

// The source lines hosts know these failures by; they are part of the interface and stay fixed.
constexpr unsigned kLineNoAlgorithm = 276;
constexpr unsigned kLineRingSignalSize = 301;
constexpr unsigned kLineTooFewFrames = 319;
constexpr unsigned kLinePeakFrameWindow = 337;
constexpr unsigned kLineSurfaceWindow = 346;
constexpr unsigned kLineNoValidPixel = 389;
constexpr unsigned kLineMissingInput = 144;
// Two further failures hosts see: a ring that does not hold exactly one signal for an algorithm
// without a discriminator, and a thread signal buffer shorter than the loader writes. They keep the
// lines they have always been reported at.
constexpr unsigned kLineRingNotOneSignal = 96;
constexpr unsigned kLineSignalBufferTooShort = 282;

bool SameSize(const Analysis::Core::DataMatrix2D<int>& a, const DoubleMatrix2D& b) {
  return a.GetRows() == b.GetRows() && a.GetColumns() == b.GetColumns();
}

// The signal size q of a run from the frames scanned and stored: the algorithm's own size, which the
// stored frames must hold (a ring exactly); a failure record when they do not.
Status SignalSize(PhaseAlgorithm& algorithm, int scanned, int stored, int& q) {
  const FringeRemovalMethod method = algorithm.GetRemoveFringes();
  const auto tooFew = [&] {
    return Status(0, StatusCode::kNotSet, kLineTooFewFrames, kSource,
                  std::to_string(stored) + " frames stored, the algorithm needs " + std::to_string(q));
  };
  const auto notOneSignal = [&](unsigned line) {
    return Status(0, StatusCode::kNotSet, line, kSource,
                  "A ring of " + std::to_string(stored) + " frames does not hold one " + std::to_string(q) +
                      "-sample signal");
  };
  if (!algorithm.NeedDiscriminator()) {
    q = algorithm.CalculateQSize(scanned, stored, method);
    if (stored < q) return tooFew();
    // A ring is unrolled whole into the signal buffer, so it must be exactly one signal long.
    if (scanned != stored && stored != q) return notOneSignal(kLineRingNotOneSignal);
  } else if (scanned != stored) {
    q = algorithm.CalculateQSize(scanned, stored, method);
    if (q != stored) return notOneSignal(kLineRingSignalSize);
  } else {
    q = algorithm.CalculateQSize(scanned, -1, method);
    // The window cut around each peak must fit into the scan.
    if (stored < q) return tooFew();
  }
  return Status();
}
}  // namespace

PhaseGenerator::PhaseGenerator() : PhaseGenerator(nullptr) {}

PhaseGenerator::PhaseGenerator(PhaseAlgorithm* algorithm)
    : status_(__LINE__, kSource),
      algorithm_(algorithm),
      dispatcher_(this, nullptr, -1, 0),
      directStatus_(__LINE__, kSource) {}

PhaseGenerator::~PhaseGenerator() = default;

Status& PhaseGenerator::Process(FrameBuffer& frames, IntMatrix2D& peakFrames, IntMatrix2D& auxiliary,
                                DoubleMatrix2D& surface) {
  try {
    ProcessRun(frames, peakFrames, auxiliary, surface);
  } catch (const Status& thrown) {
    status_ = thrown;
  } catch (...) {
    status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Unhandled exception");
  }
  DropMatrices();
  return status_;
}

void PhaseGenerator::DropMatrices() {
  peakFrames_ = nullptr;
  auxiliary_ = nullptr;
  surface_ = nullptr;
  frames_ = nullptr;
  runAlgorithm_ = nullptr;
  slots_.clear();
}

void PhaseGenerator::ProcessRun(FrameBuffer& frames, IntMatrix2D& peakFrames, IntMatrix2D& auxiliary,
                                DoubleMatrix2D& surface) {
  const auto fail = [this](unsigned code, unsigned line, const std::string& message) {
    status_ = Status(0, code, line, kSource, message);
  };
  PhaseAlgorithm* const algorithm = algorithm_;
  if (!algorithm) return fail(StatusCode::kNotSet, kLineNoAlgorithm, "No phase algorithm has been set");

  const int n = allowMultiThreads_ ? dispatcher_.GetNumberOfWorkers() : 1;
  const int scanned = frames.GetNumberOfFrames();
  const int stored = frames.GetFramesStored();
  int q = stored;
  const Status sizeFailure = SignalSize(*algorithm, scanned, stored, q);
  if (sizeFailure.IsError()) {
    status_ = sizeFailure;
    return;
  }

  algorithm->SetMaxScanValue(frames.GetMaxValue());
  frames_ = &frames;
  peakFrames_ = &peakFrames;
  auxiliary_ = &auxiliary;
  surface_ = &surface;
  runAlgorithm_ = algorithm;

  const Window2D window = frames.GetAllocatedWindow();
  const bool needPeakFrames = algorithm->NeedPeakFrame();
  if (needPeakFrames && (peakFrames.GetMatrixWindow() != window || auxiliary.GetMatrixWindow() != window)) {
    return fail(StatusCode::kPeakFrameMismatch, kLinePeakFrameWindow,
                "The peak-frame and auxiliary matrices must cover the frame window");
  }
  if (surface.GetMatrixWindow() != window) {
    return fail(StatusCode::kNotSet, kLineSurfaceWindow, "The surface matrix must cover the frame window");
  }
  if (n > 1) {
    const Status threadData = frames.MakeThreadData(n);
    if (threadData.IsError()) {
      status_ = threadData;
      return;
    }
  }
  slots_.resize(static_cast<std::size_t>(stored));
  for (int slot = 0; slot < stored; ++slot)
    slots_[static_cast<std::size_t>(slot)] = frames.GetFrameData(slot);

  try {
    ProcessMultiPass(q);
  } catch (...) {
    // The algorithm is reset even when a step of the pass loop threw.
    algorithm->Reset();
    throw;
  }
  algorithm->Reset();
  if (status_.IsError()) return;

  QUARN_RETURN_IF_CALL_FAILED(surface.CopyAll(algorithm->GetSurfaceMatrix()), status_, kSource, surface,
                              "surface.CopyAll");
  if (!Analysis::Core::Calculation::AnyValid(surface)) {
    status_ = Status(0, StatusCode::kNoValidResult, kLineNoValidPixel, kSource, "");
  }
}

void PhaseGenerator::ProcessMultiPass(int qSize) {
  PhaseAlgorithm& algorithm = *runAlgorithm_;
  CTimer timer;
  algorithm.Initialize(*frames_, peakFrames_->GetInternalMat(), allowMultiThreads_);
  debug_printf("-------------  PhaseGenerator Initialize: %g ms -------------------\n",
               timer.Restart() / 1000.0);

  const int pixels = frames_->GetPixelCount();
  const Window2D window = frames_->GetAllocatedWindow();
  for (int pass = 0; pass < algorithm.RequiredNumberOfPasses(); ++pass) {
    algorithm.Initialize(pass, frames_->GetNumberOfFrames(), qSize, window);
    if (algorithm.GetStatus().IsError()) {
      status_ = algorithm.GetStatus();
      return;
    }
    debug_printf("\tPhaseGenerator Initialize(%d): %g ms\n", pass, timer.Restart() / 1000.0);

    int threads = 1;
    if (allowMultiThreads_ && algorithm.IsMultThreadable()) threads = dispatcher_.GetNumberOfWorkers();
    algorithm.InitializeThread(threads);
    debug_printf("Generator Number Threads %d\n", threads);

    if (threads < 2) {
      dispatcher_.SetNumberOfWorkers(std::min(dispatcher_.GetNumberOfThreads(), 1));
      dispatching_ = false;
      directStatus_.ClearError();
      ProcessPixels(0, 0, pixels);
      if (directStatus_.IsError()) {
        status_ = directStatus_;
        return;
      }
    } else if (pixels > 0) {
      dispatching_ = true;
      try {
        dispatcher_.Invoke(&PhaseGenerator::ProcessPixels, 0, pixels);
      } catch (const Status& failed) {
        dispatching_ = false;
        status_ = failed;
        return;
      }
      dispatching_ = false;
    }
    status_ = algorithm.GetStatus();
    debug_printf("\tPhaseGenerator ProcessPixels: %g ms\n", timer.Restart() / 1000.0);

    // The per-pixel loops that follow all pixels are spread over the same workers.
    if (threads >= 2) {
      algorithm.SetRangeRunner(
          [this](std::int64_t count, const RangeBody& body) { LendWorkers(count, body); });
    }
    algorithm.PostProcess();
    algorithm.SetRangeRunner({});
    if (algorithm.GetStatus().IsError()) {
      status_ = algorithm.GetStatus();
      algorithm.FinalizeThread();
      return;
    }
    debug_printf("\tPhaseGenerator PostProcess: %g ms\n", timer.Restart() / 1000.0);

    algorithm.FinalizeThread();
    if (algorithm.GetStatus().IsError()) {
      status_ = algorithm.GetStatus();
      return;
    }
    debug_printf("\tPhaseGenerator FinalizeThread: %g ms\n", timer.Restart() / 1000.0);
  }
}

void PhaseGenerator::LendWorkers(std::int64_t count, const RangeBody& body) {
  // A range of a few elements is not worth waking the pool for, and one shorter than the number of
  // workers would lower that number for good: it is put back after every lending.
  const int workers = dispatcher_.GetNumberOfWorkers();
  if (workers < 2 || count < 2 * workers || count > std::numeric_limits<int>::max()) {
    body(0, count);
    return;
  }
  lentBody_ = &body;
  try {
    dispatcher_.Invoke(&PhaseGenerator::RunLentRange, 0, static_cast<int>(count));
  } catch (const Status&) {
    // A body writes only its own elements, so the whole range can be run again here.
    body(0, count);
  }
  lentBody_ = nullptr;
  dispatcher_.SetNumberOfWorkers(workers);
}

void PhaseGenerator::RunLentRange(int first, int end) {
  (*lentBody_)(first, end);
}

void PhaseGenerator::SetDebugFlag(int thread, const std::vector<int>& tracePixels, int pixel, int skip) {
  PhaseAlgorithm& algorithm = *runAlgorithm_;
  algorithm.ClearDebug(thread);
  for (const int trace : tracePixels) {
    // With a pixel stride above one, a traced pixel that the loop steps over is traced through the
    // processed pixel just before it.
    if (trace == pixel || (skip >= 2 && trace > pixel && trace < pixel + skip)) {
      algorithm.SetDebug(thread, pixel);
      return;
    }
  }
}

void PhaseGenerator::ProcessPixels(int thread, int begin, int end) {
  Status& failure = dispatching_ ? dispatcher_.GetDelegateStatus(thread) : directStatus_;
  if (!peakFrames_ || !auxiliary_ || !frames_ || !surface_ || !algorithm_) {
    failure = Status(0, StatusCode::kArgumentOutOfRange, kLineMissingInput, kSource,
                     "A matrix, the frame buffer or the algorithm went missing during the run");
    return;
  }
  Analysis::Core::DispatchSampleType(*frames_, [&]<typename Stored>(Analysis::Core::SampleTag<Stored>) {
    ProcessPixelsAs<Stored>(thread, begin, end, failure);
  });
}

template <typename Stored>
void PhaseGenerator::ProcessPixelsAs(int thread, int begin, int end, Status& failure) {
  PhaseAlgorithm& algorithm = *runAlgorithm_;
  double* const signal = algorithm.GetDataArray(thread);
  const int length = algorithm.GetDataArraySize(thread);
  const int q = algorithm.GetQSize();
  const int scanned = frames_->GetNumberOfFrames();
  const int stored = frames_->GetFramesStored();
  const detail::LoaderGeometry geometry{stored, scanned, q};

  std::vector<int> trace;
  if (const Analysis::Core::Array<int>* all = algorithm.TracePixels()) {
    for (const int pixel : *all) {
      if (pixel >= begin && pixel < end) trace.push_back(pixel);
    }
  }

  const bool ring = scanned != stored;
  bool windowed = false;
  if (!ring) {
    windowed = !SameSize(*peakFrames_, *surface_) || algorithm.NeedDiscriminator() || length < stored;
  }
  // What the chosen loader writes must fit the thread's buffer.
  const int written = (ring || !windowed) ? stored : q;
  if (!signal || length < written || (windowed && (q < 1 || q > stored))) {
    failure = Status(0, StatusCode::kArgumentOutOfRange, kLineSignalBufferTooShort, kSource,
                     "The algorithm's signal buffer holds " + std::to_string(length) +
                         " samples, the loader writes " + std::to_string(written));
    return;
  }

  const bool reversed = frames_->GetScanDirection() < 0;
  // An algorithm that evaluates blocks of pixels itself takes those of a windowed run straight from
  // the frame planes (not while tracing, which is per pixel, nor with a pixel stride).
  FrameBlockEvaluator* blocks = nullptr;
  if (windowed && useFastPath_ && trace.empty() && algorithm.GetSkipCount() == 1 &&
      SameSize(*peakFrames_, *surface_) && SameSize(*auxiliary_, *surface_)) {
    blocks = dynamic_cast<FrameBlockEvaluator*>(&algorithm);
    const FrameBlockRun run{frames_->GetElementRes(), stored, q, reversed};
    if (blocks && !blocks->BeginFrameBlocks(thread, run)) blocks = nullptr;
  }
  if (reversed) {
    if (ring) return PixelLoop<Stored>(detail::ReversedRing{geometry}, thread, begin, end, signal, trace);
    if (windowed)
      return PixelLoop<Stored>(detail::ReversedWindowed{geometry}, thread, begin, end, signal, trace, blocks);
    return PixelLoop<Stored>(detail::ReversedWhole{geometry}, thread, begin, end, signal, trace);
  }
  if (ring) return PixelLoop<Stored>(detail::ForwardRing{geometry}, thread, begin, end, signal, trace);
  if (windowed)
    return PixelLoop<Stored>(detail::ForwardWindowed{geometry}, thread, begin, end, signal, trace, blocks);
  return PixelLoop<Stored>(detail::ForwardWhole{geometry}, thread, begin, end, signal, trace);
}

template <typename Stored, typename Loader>
void PhaseGenerator::PixelLoop(const Loader& load, int thread, int begin, int end, double* signal,
                               const std::vector<int>& tracePixels, FrameBlockEvaluator* blocks) {
  PhaseAlgorithm& algorithm = *runAlgorithm_;
  const int skip = algorithm.GetSkipCount();
  const std::int64_t step = std::max(skip, 1);
  const bool havePeaks = SameSize(*peakFrames_, *surface_) && SameSize(*auxiliary_, *surface_);
  const int* peaks = havePeaks ? peakFrames_->Data() : nullptr;
  const int* aux = havePeaks ? auxiliary_->Data() : nullptr;
  const double* mask = surface_->Data();
  const bool intensity = algorithm.GetRemoveFringes() != FringeRemovalMethod::kNone;
  const void* const* slots = slots_.data();

  const auto visit = [&](int pixel, const auto& samples) {
    int peak = peaks ? peaks[pixel] : 0;
    const int auxiliary = aux ? aux[pixel] : 0;
    if (!tracePixels.empty()) SetDebugFlag(thread, tracePixels, pixel, skip);
    const bool evaluate = DoubleMatrix2D::IsDataValid(mask[pixel]);
    // A masked pixel without an intensity to make needs no signal at all.
    if (!evaluate && !intensity) return;
    peak = load(samples, signal, peak);
    if (evaluate) {
      algorithm.ProcessPixel(thread, pixel, peak, auxiliary);
    } else {
      algorithm.RemoveFringes(thread, pixel, peak);
    }
  };

  if (blocks) {
    // Blocks of up to 64 pixels, cut at multiples of 64 so that each frame's samples of a block are
    // whole cache lines. The pixels the algorithm leaves are loaded and evaluated one by one: a few
    // straight from the frames, many (peaks to be estimated from whole signals, say) through the
    // transposing copy, as the pixel path would.
    constexpr int kFewLeft = 4;
    const int stored = frames_->GetFramesStored();
    const int rowLength = detail::BlockRowLength(stored);
    std::vector<Stored> transposed;
    std::int64_t first = begin;
    while (first < end) {
      const std::int64_t last =
          std::min<std::int64_t>(end, (first / FramePlaneBlock::kPixels + 1) * FramePlaneBlock::kPixels);
      const int pixel = static_cast<int>(first);
      FramePlaneBlock block;
      block.slots = slots;
      block.firstPixel = pixel;
      block.width = static_cast<int>(last - first);
      block.peaks = peaks + pixel;
      block.auxiliary = aux + pixel;
      block.mask = mask + pixel;
      const std::uint64_t left = blocks->ProcessFrameBlock(thread, block);
      if (std::popcount(left) > kFewLeft) {
        if (transposed.empty())
          transposed.resize(static_cast<std::size_t>(detail::kBlockPixels) *
                            static_cast<std::size_t>(rowLength));
        int lo = stored, hi = 0;
        for (std::uint64_t bits = left; bits != 0; bits &= bits - 1)
          load.Needs(peaks[pixel + std::countr_zero(bits)], lo, hi);
        detail::CopyBlock<Stored>(slots, lo, hi, pixel, block.width, rowLength, transposed.data());
        for (std::uint64_t bits = left; bits != 0; bits &= bits - 1) {
          const int offset = std::countr_zero(bits);
          visit(pixel + offset, detail::BlockSamples<Stored>{transposed.data(), offset, rowLength});
        }
      } else {
        for (std::uint64_t bits = left; bits != 0; bits &= bits - 1) {
          const int at = pixel + std::countr_zero(bits);
          visit(at, detail::PixelSamples<Stored>{slots, at});
        }
      }
      first = last;
    }
    return;
  }

  if (!useFastPath_) {
    // Reference: every sample straight from its frame.
    for (std::int64_t index = begin; index < end; index += step) {
      const int pixel = static_cast<int>(index);
      visit(pixel, detail::PixelSamples<Stored>{slots, pixel});
    }
    return;
  }

  // Fast path: the frames of a block of pixels are first copied into a compact block, transposed so
  // that each pixel's samples are one contiguous run. Frame planes of power-of-two size (512 x 512
  // bytes) lie a multiple of the cache's way size apart, so read straight from the frames the samples
  // of one pixel all compete for one cache set; the copy reads every frame once, in whole lines, and
  // a pixel's run then converts to doubles a vector at a time.
  const int stored = frames_->GetFramesStored();
  const int rowLength = detail::BlockRowLength(stored);
  std::vector<Stored> block(static_cast<std::size_t>(detail::kBlockPixels) *
                            static_cast<std::size_t>(rowLength));
  // The slots the pixels of a block read: only those are copied (a window of 64 of 256 frames).
  const auto slotsOf = [&](int first, int width, int& lo, int& hi) {
    lo = stored;
    hi = 0;
    for (int i = 0; i < width; ++i)
      load.Needs(peaks ? peaks[first + i] : 0, lo, hi);
  };
  const auto widthAt = [end](std::int64_t first) {
    return static_cast<int>(std::min<std::int64_t>(detail::kBlockPixels, end - first));
  };
  // Blocks start at a processed pixel; with a stride the next one starts at the first processed pixel
  // past the block.
  const auto firstProcessedFrom = [begin, step](std::int64_t from) {
    return from <= begin ? std::int64_t{begin} : begin + (from - begin + step - 1) / step * step;
  };
  std::int64_t index = begin;
  int lo = 0, hi = 0;
  if (index < end) slotsOf(begin, widthAt(begin), lo, hi);
  while (index < end) {
    const int blockStart = static_cast<int>(index);
    const int width = widthAt(index);
    detail::CopyBlock<Stored>(slots, lo, hi, blockStart, width, rowLength, block.data());
    const std::int64_t next = firstProcessedFrom(std::int64_t{blockStart} + width);
    int nextLo = 0, nextHi = 0;
    if (next < end) {
      slotsOf(static_cast<int>(next), widthAt(next), nextLo, nextHi);
      detail::PrefetchBlock<Stored>(slots, nextLo, nextHi, static_cast<int>(next), widthAt(next));
    }
    for (; index < blockStart + width; index += step) {
      const int pixel = static_cast<int>(index);
      visit(pixel, detail::BlockSamples<Stored>{block.data(), pixel - blockStart, rowLength});
    }
    lo = nextLo;
    hi = nextHi;
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

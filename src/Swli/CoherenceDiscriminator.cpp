#include "Swli/CoherenceDiscriminator.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "Analysis/Core/SampleDispatch.h"
#include "Analysis/Core/Threading/ThreadDispatcher.h"
#include "Swli/detail/PeakFinderKernel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

namespace {

constexpr int kHalfWindow = 4;                // E(k) sums j = k-4 .. k+4
constexpr int kWindow = 2 * kHalfWindow + 1;  // nine frames

class Discriminator {
 public:
  Discriminator(AnalysisCore::FrameBuffer& frames, AnalysisCore::IntMatrix2D& peaks, bool fast)
      : frames_(frames),
        peaks_(peaks),
        fast_(fast && frames.GetElementRes() != AnalysisCore::FrameBuffer::kRes32Bit) {
    if (!fast_) return;
    planes_.resize(static_cast<std::size_t>(frames.GetFramesStored()));
    for (int slot = 0; slot < frames.GetFramesStored(); ++slot)
      planes_[static_cast<std::size_t>(slot)] = frames.GetFrameData(slot);
    params_.planes = planes_.data();
    params_.frames = frames.GetFramesStored();
    params_.sampleBytes = frames.GetElementRes() == AnalysisCore::FrameBuffer::kRes8Bit ? 1 : 2;
    params_.reversed = frames.GetScanDirection() < 0;
    params_.peaks = peaks.Data();
    function_ = detail::SelectPeakFinderFunction();
  }

  void Run(int threads) {
    if (threads == 1) {
      Rows(0, frames_.GetRows());
      return;
    }
    AnalysisCore::Threading::ThreadDispatcher<Discriminator> dispatcher(this, nullptr, -1);
    dispatcher.SetNumberOfWorkers(threads < 1 ? dispatcher.GetNumberOfThreads() : threads);
    if (frames_.GetRows() > 0) dispatcher.Invoke(&Discriminator::Rows, 0, frames_.GetRows());
  }

  void Rows(int first, int end) {
    if (fast_) {
      const std::int64_t cols = frames_.GetColumns();
      function_(params_, first * cols, end * cols);
      return;
    }
    AnalysisCore::DispatchSampleType(
        frames_, [&]<typename Stored>(AnalysisCore::SampleTag<Stored>) { RowsAs<Stored>(first, end); });
  }

 private:
  // The plain path. Row by row, frame by frame: the reads run along rows of each frame, and the nine-frame
  // window slides with a ring of the last nine squared differences per pixel.
  template <typename Stored>
  void RowsAs(int first, int end) {
    const int cols = frames_.GetColumns();
    const int count = frames_.GetFramesStored();
    // Ties go to the frame met first in scan order: the lowest stored frame of a forward scan, the
    // highest of a reversed one, so that both directions pick the same scan position.
    const bool reversed = frames_.GetScanDirection() < 0;
    std::vector<double> ring(static_cast<std::size_t>(kWindow) * static_cast<std::size_t>(cols));
    std::vector<double> sum(static_cast<std::size_t>(cols)), best(static_cast<std::size_t>(cols));
    for (int r = first; r < end; ++r) {
      std::fill(ring.begin(), ring.end(), 0.0);
      std::fill(sum.begin(), sum.end(), 0.0);
      std::fill(best.begin(), best.end(), 0.0);
      int* peaks = peaks_.Row(r);
      std::fill(peaks, peaks + cols, 0);
      const std::size_t offset = static_cast<std::size_t>(r) * static_cast<std::size_t>(cols);
      // Difference j uses frames j-1 and j+1; once j reaches 9, the window of j-8 .. j is complete
      // and centred on k = j - 4.
      for (int j = 1; j + 1 < count; ++j) {
        const Stored* before = frames_.GetFrame<Stored>(j - 1) + offset;
        const Stored* after = frames_.GetFrame<Stored>(j + 1) + offset;
        double* slot = ring.data() + static_cast<std::size_t>(j % kWindow) * static_cast<std::size_t>(cols);
        const int k = j - kHalfWindow;
        for (int c = 0; c < cols; ++c) {
          const double d = static_cast<double>(after[c]) - static_cast<double>(before[c]);
          const double v = d * d;
          sum[static_cast<std::size_t>(c)] += v - slot[c];
          slot[c] = v;
          const double energy = sum[static_cast<std::size_t>(c)];
          const double top = best[static_cast<std::size_t>(c)];
          if (j >= kWindow && energy > 0.0 && (energy > top || (reversed && energy == top))) {
            best[static_cast<std::size_t>(c)] = energy;
            peaks[c] = k;
          }
        }
      }
    }
  }

  AnalysisCore::FrameBuffer& frames_;
  AnalysisCore::IntMatrix2D& peaks_;
  bool fast_;
  std::vector<const void*> planes_;
  detail::PeakFinderParams params_;
  detail::PeakFinderFunction function_ = nullptr;
};

}  // namespace

void FindPeakFrames(AnalysisCore::FrameBuffer& frames, AnalysisCore::IntMatrix2D& peakFrames, int threads) {
  peakFrames.Resize(frames.GetAllocatedWindow());
  Discriminator(frames, peakFrames, true).Run(threads);
}

void FindPeakFramesReference(AnalysisCore::FrameBuffer& frames, AnalysisCore::IntMatrix2D& peakFrames,
                             int threads) {
  peakFrames.Resize(frames.GetAllocatedWindow());
  Discriminator(frames, peakFrames, false).Run(threads);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

#pragma once

#include <cassert>
#include <cstdint>
#include <type_traits>

#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Analysis/Core/SampleDispatch.h"
#include "Analysis/Core/Status.h"
#include "Analysis/Core/Window2D.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail {

// PixelWalk
//
// Which pixels of a frame buffer's window a phase-step calculator hands to its algorithm: in each
// worker's chunk [first, end) of the linear (row-major) pixel range, every `scanPeriod`-th pixel
// p = first, first + N, first + 2N, ..., and of those only the ones inside the region mask, if
// there is one.
//
// The stride grid starts at each chunk's first pixel, as hosts of these checks expect: with one
// worker the pixels are 0, N, 2N, ...; with several workers and N > 1 each chunk's grid is shifted
// to its own start, so which pixels are sampled depends on the number of workers (every pixel's
// value does not). A scan period of 1 visits every pixel whatever the number of workers.
//
// The mask is a region map in camera coordinates: a pixel takes part where the mask holds a valid
// region id at the same camera position. Three cases, decided once per run by `Prepare`:
//   - the mask covers exactly the frame window (same matrix window, no narrower window set):
//     element p of the mask belongs to pixel p;
//   - any other mask window: only the intersection of the frame window and the mask's window can
//     take part; outside it nothing is visited, and an empty intersection visits nothing at all;
//   - no mask: every pixel on the stride grid.
class PixelWalk {
 public:
  // Decides the case. Fails (the intersection's own status: a malformed window) only for a window
  // of negative size; the walk then visits nothing. The scan period must be at least 1: the
  // calculators refuse a smaller one (code 20) before they prepare a walk, since it would never
  // advance.
  Analysis::Core::Status Prepare(const Analysis::Core::Window2D& frameWindow,
                                 const Analysis::Core::RegionIdMatrix2D* mask, int scanPeriod) {
    assert(scanPeriod >= 1);
    period_ = scanPeriod;
    frameCols_ = frameWindow.GetCols() > 0 ? frameWindow.GetCols() : 1;
    if (!mask) {
      mode_ = Mode::kAll;
      return Analysis::Core::Status();
    }
    const Analysis::Core::Window2D maskWindow = mask->GetWindow();
    mask_ = mask->Data();
    maskCols_ = mask->GetColumns();
    if (maskWindow == frameWindow && mask->GetMatrixWindow() == frameWindow) {
      mode_ = Mode::kSameWindow;
      return Analysis::Core::Status();
    }
    const Analysis::Core::Window2D overlap(frameWindow, maskWindow);
    if (!overlap.IsWellFormed()) {
      mode_ = Mode::kNothing;
      return overlap.GetStatus();
    }
    if (overlap.IsEmpty()) {
      mode_ = Mode::kNothing;
      return Analysis::Core::Status();
    }
    mode_ = Mode::kOverlap;
    // The overlap in the frame window's row and column indices, and the offset of the mask matrix.
    rowBegin_ = overlap.GetStartRow() - frameWindow.GetStartRow();
    rowEnd_ = rowBegin_ + overlap.GetRows();
    colBegin_ = overlap.GetStartCol() - frameWindow.GetStartCol();
    colEnd_ = colBegin_ + overlap.GetCols();
    maskRowOffset_ = frameWindow.GetStartRow() - mask->GetStartRow();
    maskColOffset_ = frameWindow.GetStartCol() - mask->GetStartCol();
    return Analysis::Core::Status();
  }

  // Calls visit(p) for each pixel p of [first, end) that takes part.
  template <typename Visit>
  void ForEach(int first, int end, Visit&& visit) const {
    const std::int64_t period = period_;
    std::int64_t p = first < 0 ? 0 : first;
    switch (mode_) {
      case Mode::kAll:
        for (; p < end; p += period)
          visit(static_cast<int>(p));
        break;
      case Mode::kSameWindow:
        for (; p < end; p += period) {
          if (Analysis::Core::RegionIdMatrix2D::IsValid(mask_[p])) visit(static_cast<int>(p));
        }
        break;
      case Mode::kOverlap:
        for (; p < end; p += period) {
          const std::int64_t row = p / frameCols_;
          const std::int64_t col = p - row * frameCols_;
          if (row < rowBegin_ || row >= rowEnd_ || col < colBegin_ || col >= colEnd_) continue;
          const std::int64_t m = (row + maskRowOffset_) * maskCols_ + (col + maskColOffset_);
          if (Analysis::Core::RegionIdMatrix2D::IsValid(mask_[m])) visit(static_cast<int>(p));
        }
        break;
      case Mode::kNothing:
        break;
    }
  }

  // Calls visit(p, samples) for each pixel p of [first, end) that takes part, with the pixel's
  // samples (frame 0 first) gathered into worker `thread`'s scratch of `frames`: as unsigned char
  // for 8-bit frames, as int for 16- and 32-bit ones, the two forms the phase-shifter checks take.
  // The sample type is decided once for the range, not per pixel.
  template <typename Visit>
  void ForEachSamples(Analysis::Core::FrameBuffer& frames, int thread, int first, int end,
                      Visit&& visit) const {
    Analysis::Core::DispatchSampleType(frames, [&]<typename Stored>(Analysis::Core::SampleTag<Stored>) {
      using Sample = std::conditional_t<sizeof(Stored) == 1, unsigned char, int>;
      Gather<Stored, Sample>(frames, thread, first, end, visit);
    });
  }

 private:
  template <typename Stored, typename Sample, typename Visit>
  void Gather(Analysis::Core::FrameBuffer& frames, int thread, int first, int end, Visit& visit) const {
    ForEach(first, end, [&](int p) {
      const Sample* samples = frames.ExtractIndexAs<Stored, Sample>(thread, p);
      visit(p, samples);
    });
  }

  enum class Mode { kAll, kSameWindow, kOverlap, kNothing };

  Mode mode_ = Mode::kAll;
  int period_ = 1;
  std::int64_t frameCols_ = 1;
  const int* mask_ = nullptr;
  std::int64_t maskCols_ = 0;
  std::int64_t rowBegin_ = 0, rowEnd_ = 0, colBegin_ = 0, colEnd_ = 0;
  std::int64_t maskRowOffset_ = 0, maskColOffset_ = 0;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail

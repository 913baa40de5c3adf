#include "Testing/PhaseShifterCases.h"

#include <cstdint>
#include <numbers>

#include "Synthetic/SyntheticPsi.h"

namespace Quarn::Testing {

using Core::RegionIdMatrix2D;
using Core::Window2D;

void FillTiltedStack(Core::FrameBuffer& frames, double gainError, double bias, double amplitude) {
  const int count = frames.GetNumberOfFrames();
  std::vector<double> shifts;
  if (count == 13) {
    shifts = ShiftsFor13(gainError);
  } else if (count >= 20) {
    const std::vector<double> period = ShiftsFor20(gainError);
    for (int k = 0; k < count; ++k)
      shifts.push_back(period[static_cast<std::size_t>(k % 20)]);
  } else {
    for (int k = 0; k < count; ++k)
      shifts.push_back((1.0 + gainError) * std::numbers::pi / 2 * (k - 3));
  }
  FillPsiStack(frames, shifts, [&](int r, int c) {
    return PixelFringe{bias, amplitude, 0.37 * c + 0.23 * r + 0.004 * r * c};
  });
}

bool FillStackBySample(Core::FrameBuffer& frames, const std::function<int(int pixel, int frame)>& sample) {
  std::vector<std::int32_t> image(static_cast<std::size_t>(frames.GetPixelCount()));
  bool stored = true;
  for (int k = 0; k < frames.GetNumberOfFrames(); ++k) {
    for (int p = 0; p < frames.GetPixelCount(); ++p)
      image[static_cast<std::size_t>(p)] = sample(p, k);
    stored = frames.StoreFrame(k, image.data()) && stored;
  }
  return stored;
}

const char* WalkMaskName(WalkMask kind) {
  static const char* const kNames[] = {"NoMask", "SameWindow", "OtherWindow", "Narrowed"};
  return kNames[static_cast<int>(kind)];
}

RegionIdMatrix2D MakeWalkMask(WalkMask kind, const Window2D& frameWindow) {
  RegionIdMatrix2D mask;
  const int r0 = frameWindow.GetStartRow(), c0 = frameWindow.GetStartCol();
  const int rows = frameWindow.GetRows(), cols = frameWindow.GetCols();
  mask.Resize(kind == WalkMask::kOtherWindow ? Window2D(r0 + rows / 3, c0 + cols / 2, rows, cols)
                                             : frameWindow);
  for (int r = 0; r < mask.GetRows(); ++r) {
    for (int c = 0; c < mask.GetColumns(); ++c)
      mask(r, c) = (r * r + 3 * c * c + r * c + 2 * c) % 11 < 7 ? (r + c) % 4 : RegionIdMatrix2D::NoData();
  }
  if (kind == WalkMask::kNarrowed) mask.SetWindow(Window2D(r0 + 3, c0 + 5, rows / 2, cols / 2));
  return mask;
}

std::vector<int> ExpectedWalk(const Window2D& frameWindow, int period, const RegionIdMatrix2D* mask,
                              int workers) {
  const std::int64_t n = static_cast<std::int64_t>(frameWindow.GetRows()) * frameWindow.GetCols();
  std::vector<int> pixels;
  for (int p = 0; p < n; ++p) {
    std::int64_t chunkFirst = 0;
    for (int i = 0; i < workers; ++i) {
      if (i * n / workers <= p) chunkFirst = i * n / workers;
    }
    if ((p - chunkFirst) % period != 0) continue;
    if (mask) {
      const int row = frameWindow.GetStartRow() + p / frameWindow.GetCols();
      const int col = frameWindow.GetStartCol() + p % frameWindow.GetCols();
      if (!mask->GetWindow().Contains(row, col)) continue;
      if (!RegionIdMatrix2D::IsValid((*mask)(row - mask->GetStartRow(), col - mask->GetStartCol()))) continue;
    }
    pixels.push_back(p);
  }
  return pixels;
}

}  // namespace Quarn::Testing

// The controller's steps on a board of their own: the filter, its rebuilding, the trim, the carrier
// subtractor and the wiring test.
#include "Psi/Kinephase/KpController.h"

#include <cmath>
#include <complex>
#include <numbers>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/Fft2D.h"
#include "Psi/Kinephase/KpBoard.h"
#include "Psi/Kinephase/KpCarrierSubtractor.h"
#include "Synthetic/SyntheticCarrier.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {
namespace {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::Fft2D;
using Analysis::Core::FrameBuffer;
using Analysis::Core::RegionIdMatrix2D;
using Analysis::Core::Status;
using Analysis::Core::Window2D;
namespace StatusCode = Analysis::Core::StatusCode;

constexpr double kTwoPi = 2.0 * std::numbers::pi;

DoubleMatrix2D FilterOf(int rows, int cols, int p, int quadrant) {
  KpBoard board;
  board.width = cols;
  board.height = rows;
  board.kernelSelector = KpKernelSelector(p, quadrant);
  board.controller.Prepare(Window2D(0, 0, rows, cols));
  EXPECT_TRUE(board.status.IsOk()) << board.status.GetPrintString();
  EXPECT_TRUE(board.filterValid);
  DoubleMatrix2D filter;
  board.controller.GetFilter(filter);
  return filter;
}

class FilterTest : public ::testing::TestWithParam<int> {};

// 108 x 144 pixels at 6 pixels per fringe put the lobe at (+-24, +-18) bins, r = 30 from zero
// frequency, and every point below on a whole bin. The filter's zeros are exact: zero frequency
// (the notch is 1 - e^0), the half plane beyond the diagonal through zero frequency that separates
// the lobe from its conjugate, and the second harmonic. The lobe centre passes with the notches'
// tails only. A bin r from the lobe centre, across the carrier direction, sits 4.2 zero-notch
// widths and 8.5 harmonic-notch widths away (factors within 1.3e-4 of 1), so it reads the lobe's
// own Gaussian at one width, e^{-1/2}: the lobe is r wide.
TEST_P(FilterTest, HasItsZerosAndTheLobeWidth) {
  const int quadrant = GetParam();
  const int rows = 108, cols = 144, p = 6;
  const DoubleMatrix2D filter = FilterOf(rows, cols, p, quadrant);
  ASSERT_EQ(filter.GetRows(), rows);
  ASSERT_EQ(filter.GetColumns(), cols);
  const double sx = quadrant == 1 || quadrant == 4 ? 1 : -1, sy = quadrant >= 3 ? 1 : -1;
  const int cx = static_cast<int>(24 * sx), cy = static_cast<int>(18 * sy);
  const auto bin = [&](int u, int v) { return filter((v + rows) % rows, (u + cols) % cols); };
  EXPECT_EQ(bin(0, 0), 0.0);
  EXPECT_EQ(bin(2 * cx, 2 * cy), 0.0) << "second harmonic";
  EXPECT_EQ(bin(-cx, -cy), 0.0) << "conjugate lobe";
  EXPECT_NEAR(bin(cx, cy), (1.0 - std::exp(-4.5)) * (1.0 - std::exp(-18.0)), 1e-12);
  EXPECT_NEAR(bin(cx - cy, cy + cx), std::exp(-0.5), 2e-4) << "one lobe width across the carrier";
  for (int i = 0; i < rows; ++i) {
    for (int j = 0; j < cols; ++j) {
      const int u = j < cols / 2 ? j : j - cols, v = i < rows / 2 ? i : i - rows;
      ASSERT_TRUE(u * sx + v * sy > 0.0 || filter(i, j) == 0.0) << "bin " << i << "," << j << ", far half";
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Quadrants, FilterTest, ::testing::Values(1, 2, 3, 4));

// Odd sizes: bin W / 2 (integer division) is a negative frequency. In quadrant 4 (lobe to the
// right and down) the bin just below it passes and it does not. An orientation that names no
// quadrant passes nothing.
TEST(FilterOddSizeTest, MiddleBinCountsAsNegative) {
  const int rows = 31, cols = 45;
  const DoubleMatrix2D filter = FilterOf(rows, cols, 4, 4);
  EXPECT_GT(filter(1, cols / 2 - 1), 0.0);
  EXPECT_EQ(filter(1, cols / 2), 0.0);
  EXPECT_GT(filter(rows / 2 - 1, 1), 0.0);
  EXPECT_EQ(filter(rows / 2, 1), 0.0);
  for (const int quadrant : {0, 5, -1}) {
    const DoubleMatrix2D none = FilterOf(rows, cols, 4, quadrant);
    for (std::int64_t i = 0; i < none.GetCount(); ++i)
      ASSERT_EQ(none.At(i), 0.0) << "quadrant " << quadrant;
  }
}

FrameBuffer FlatFringes(int rows, int cols) {
  FrameBuffer frames;
  frames.Allocate(Window2D(0, 0, rows, cols), 1, FrameBuffer::kRes8Bit);
  Testing::CarrierScene scene;
  scene.phase = [](int, int) { return 0.3; };
  Testing::FillCarrierFrame(frames, 0, scene);
  return frames;
}

// The filter is built once and kept while the size and the kernel stay: a mark left in it survives
// further runs; a new kernel or a new size builds it again (the mark goes).
TEST(FilterRebuildTest, OnlySizeOrKernelChangesRebuildTheFilter) {
  KpBoard board;
  FrameBuffer frames = FlatFringes(40, 48);
  board.controller.SetIntensity(frames, 0);
  DoubleMatrix2D phase;
  board.controller.Process(phase);
  ASSERT_TRUE(board.status.IsOk());
  ASSERT_TRUE(board.filterValid);
  const double kMark = 42.0;
  board.filter(3, 3) = kMark;

  board.controller.Process(phase);
  board.controller.Prepare(Window2D(0, 0, 40, 48));
  EXPECT_EQ(board.filter(3, 3), kMark) << "same size, same kernel: not rebuilt";

  board.kernelSelector = KpKernelSelector(4, KpQuadrant::Quadrant1);  // what SelectKernel does
  board.filterValid = false;
  board.controller.Process(phase);
  EXPECT_NE(board.filter(3, 3), kMark) << "new kernel: rebuilt";
  EXPECT_TRUE(board.filterValid);

  board.filter(3, 3) = kMark;
  FrameBuffer larger = FlatFringes(40, 52);
  board.controller.SetIntensity(larger, 0);
  board.controller.Process(phase);
  EXPECT_NE(board.filter(3, 3), kMark) << "new size: rebuilt";
  EXPECT_EQ(board.filter.GetColumns(), 52);
}

// '#' valid phase, '.' no data.
DoubleMatrix2D FromPicture(const std::vector<std::string>& picture) {
  DoubleMatrix2D m(static_cast<int>(picture.size()), static_cast<int>(picture[0].size()));
  for (int r = 0; r < m.GetRows(); ++r) {
    for (int c = 0; c < m.GetColumns(); ++c) {
      m(r, c) = picture[static_cast<std::size_t>(r)][static_cast<std::size_t>(c)] == '#'
                    ? 0.25
                    : DoubleMatrix2D::NoData();
    }
  }
  return m;
}

// With a minimum of 4 pixels: the hole of 3 stays as it is, the hole of exactly 4 grows by one
// pixel all round (diagonals too), and two holes of 2 touching at a corner are one hole of 4
// (8-connected) and grow as well. The rule is checked against a direct dilation of the kept holes.
TEST(TrimTest, RemovesHolesBelowTheMinimumAndKeepsOneOfExactlyThatSize) {
  const DoubleMatrix2D before = FromPicture({
      "##############",
      "#...##########",
      "##########..##",
      "##########..##",
      "##############",
      "#####..#######",
      "#######..#####",
      "##############",
  });
  KpBoard board;
  board.minRegionSizeToTrim = 4;
  DoubleMatrix2D phase = before;
  ASSERT_TRUE(board.controller.ApplyTrim(phase));
  RegionIdMatrix2D kept;
  board.controller.GetTrimRegions(kept);
  ASSERT_EQ(kept.GetRows(), before.GetRows());
  for (int r = 0; r < before.GetRows(); ++r) {
    for (int c = 0; c < before.GetColumns(); ++c) {
      const bool smallHole = r == 1 && c >= 1 && c <= 3;
      EXPECT_EQ(RegionIdMatrix2D::IsValid(kept(r, c)), DoubleMatrix2D::IsNoData(before(r, c)) && !smallHole)
          << "kept hole pixel " << r << "," << c;
      bool nearKept = false;
      for (int dr = -1; dr <= 1; ++dr) {
        for (int dc = -1; dc <= 1; ++dc) {
          const int rr = r + dr, cc = c + dc;
          if (rr >= 0 && rr < before.GetRows() && cc >= 0 && cc < before.GetColumns() &&
              RegionIdMatrix2D::IsValid(kept(rr, cc))) {
            nearKept = true;
          }
        }
      }
      const bool expectNoData = DoubleMatrix2D::IsNoData(before(r, c)) || nearKept;
      EXPECT_EQ(DoubleMatrix2D::IsNoData(phase(r, c)), expectNoData) << "pixel " << r << "," << c;
      EXPECT_TRUE(expectNoData || phase(r, c) == 0.25) << "pixel " << r << "," << c << " changed";
    }
  }
  // One more pixel of minimum and the block of 4 stays alone too.
  board.minRegionSizeToTrim = 5;
  phase = before;
  ASSERT_TRUE(board.controller.ApplyTrim(phase));
  EXPECT_EQ(phase.CountValid(), before.CountValid());
}

// The kept lobe of fringes with carrier c is e^{-i (phi + c)} (see KpQuadrant); the rotation takes
// the carrier away, up to 2 pi (R + N) / P for orientations 1, 3 and 4. One subtractor runs every
// orientation at one period and then at another, so its rotators must follow the period.
TEST(CarrierSubtractorTest, RotatesEachOrientationsCarrierAwayAtEveryPeriod) {
  const int rows = 30, cols = 41;  // R + N = 71
  const double phi0 = 0.4;
  KpCarrierSubtractor subtractor;
  for (const int p : {4, 7}) {
    for (const int quadrant : {1, 2, 3, 4}) {
      Fft2D fft;
      ASSERT_TRUE(fft.SetSize(rows, cols));
      for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < cols; ++c)
          fft.GetRow(r)[c] = std::polar(2.0, -(phi0 + Testing::CarrierPhase(quadrant, p, r, c)));
      }
      subtractor.SetFft(fft);
      subtractor.SetFringePeriod(p);
      subtractor.SetOrientation(quadrant);
      ASSERT_TRUE(subtractor.Execute().IsOk());
      const double offset = quadrant == 2 ? 0.0 : kTwoPi * ((rows + cols) % p) / p;
      for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < cols; ++c) {
          const std::complex<double> z = fft.GetRow(r)[c];
          ASSERT_NEAR(std::abs(z), 2.0, 1e-12);
          ASSERT_NEAR(std::remainder(std::arg(z) - (-phi0 + offset), kTwoPi), 0.0, 1e-12)
              << "period " << p << ", quadrant " << quadrant << ", pixel " << r << "," << c;
        }
      }
    }
  }
  KpCarrierSubtractor unset;
  EXPECT_EQ(unset.Execute().GetCode(), StatusCode::kNotSet);
  subtractor.SetFringePeriod(0);
  const Status status = subtractor.Execute();
  EXPECT_EQ(status.GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_EQ(status.GetFile(), "Psi\\Kinephase\\KpCarrierSubtractor");
}

// The boolean wiring test: nothing without a board, the width before the height. A filter built
// while the status still holds a failure is not trusted for the next run.
TEST(KpControllerWiringTest, WidthThenHeight) {
  KpController loose;
  EXPECT_FALSE(loose.IsWired());
  DoubleMatrix2D phase;
  loose.Process(phase);  // no board: returns without touching anything

  KpBoard board;
  EXPECT_FALSE(board.controller.IsWired());
  EXPECT_EQ(board.status.GetCode(), StatusCode::kNotSet);
  EXPECT_EQ(board.status.GetMessage(), "The width is undefined") << "the height is not looked at";
  board.width = 8;
  EXPECT_FALSE(board.controller.IsWired());
  EXPECT_EQ(board.status.GetMessage(), "The height is undefined");
  EXPECT_EQ(board.status.GetFile(), "Psi\\Kinephase\\KpController");
  board.height = -3;
  EXPECT_FALSE(board.controller.IsWired());
  board.height = 6;
  EXPECT_TRUE(board.controller.IsWired());

  // Prepare takes the window's size only once the board is wired.
  KpBoard fresh;
  fresh.controller.Prepare(Window2D(0, 0, 10, 12));
  EXPECT_EQ(fresh.width, 0);
  board.controller.Prepare(Window2D(0, 0, 10, 12));
  EXPECT_EQ(board.width, 12);
  EXPECT_EQ(board.fft.GetRows(), 10);
  EXPECT_FALSE(board.filterValid) << "built while the status still held the height failure";
  board.status.ClearError();
  board.controller.Prepare(Window2D(0, 0, 10, 12));
  EXPECT_TRUE(board.filterValid);
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase

// The tool's coherence discriminator on synthetic scans with known surfaces.
#include "CoherenceDiscriminator.h"

#include <cstdlib>

#include <gtest/gtest.h>

#include "Testing/SeededRandom.h"
#include "Testing/SyntheticScan.h"

namespace Quarn::Qphase {
namespace {

double Surface(int r, int c) {
  return 6000.0 + 23.0 * r + 31.0 * c + (c >= 10 ? 400.0 : 0.0);
}

Testing::ScanSettings Settings(int direction) {
  Testing::ScanSettings s;
  s.rows = 20;
  s.cols = 24;
  s.framesScanned = 160;
  s.noiseSigmaCounts = 1.5;
  s.scanDirection = direction;
  return s;
}

// The envelope peaks where the scan reaches the surface; the fringe energy, summed over nine frames
// (about two fringes), peaks there to within a frame even with 1.5 counts of noise on fringes of 60:
// the envelope is 20 frames wide, so a frame's shift changes the energy by a few percent, while the
// noise adds about 2 x 1.5^2 x 9 ~ 40 to an energy of some 10^4 counts^2.
TEST(CoherenceDiscriminatorTest, FindsThePeakFrameWithinAFrame) {
  Testing::SeededRandom random(61);
  SCOPED_TRACE(random.Describe());
  const Testing::ScanSettings s = Settings(1);
  Core::FrameBuffer frames;
  ASSERT_TRUE(Testing::MakeSyntheticScan(frames, s, Surface, &random));
  Core::IntMatrix2D peaks;
  FindPeakFrames(frames, peaks, 1);
  ASSERT_EQ(peaks.GetRows(), 20);
  ASSERT_EQ(peaks.GetColumns(), 24);
  for (int r = 0; r < 20; ++r) {
    for (int c = 0; c < 24; ++c) {
      EXPECT_LE(std::abs(peaks(r, c) - Testing::TruePeakFrame(s, Surface(r, c))), 1) << r << "," << c;
    }
  }
}

// A reversed scan of the same surface carries the same samples mirrored (frame p at the position of
// forward frame F - p), so its peaks are F minus the forward ones exactly; and the threads share rows
// without changing anything.
TEST(CoherenceDiscriminatorTest, ReversedScansAndThreadCountsGiveTheSamePeaks) {
  Core::IntMatrix2D forward, reversed, threaded;
  {
    Testing::SeededRandom random(62);
    Core::FrameBuffer frames;
    ASSERT_TRUE(Testing::MakeSyntheticScan(frames, Settings(1), Surface, &random));
    FindPeakFrames(frames, forward, 1);
    FindPeakFrames(frames, threaded, 3);
  }
  {
    Testing::SeededRandom random(62);
    Core::FrameBuffer frames;
    ASSERT_TRUE(Testing::MakeSyntheticScan(frames, Settings(-1), Surface, &random));
    FindPeakFrames(frames, reversed, 2);
  }
  for (std::int64_t i = 0; i < forward.GetCount(); ++i) {
    EXPECT_EQ(reversed.At(i), 160 - forward.At(i)) << "pixel " << i;
    EXPECT_EQ(threaded.At(i), forward.At(i)) << "pixel " << i;
  }
}

TEST(CoherenceDiscriminatorTest, ASignalThatNeverChangesHasNoPeak) {
  Testing::ScanSettings s = Settings(1);
  s.modulationCounts = 0.0;
  s.noiseSigmaCounts = 0.0;
  Core::FrameBuffer frames;
  ASSERT_TRUE(Testing::MakeSyntheticScan(frames, s, Surface));
  Core::IntMatrix2D peaks;
  FindPeakFrames(frames, peaks, 2);
  for (std::int64_t i = 0; i < peaks.GetCount(); ++i)
    EXPECT_EQ(peaks.At(i), 0) << "pixel " << i;
}

}  // namespace
}  // namespace Quarn::Qphase

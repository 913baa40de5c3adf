// The coherence discriminator on synthetic scans with known surfaces.
#include "Swli/CoherenceDiscriminator.h"

#include <cstdlib>

#include <gtest/gtest.h>

#include "Testing/SeededRandom.h"
#include "Testing/SyntheticScan.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {
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

// The peaks of a scan of the surface; the noise is seeded alike for every scan, so the two
// directions carry the same samples mirrored (frame p at the position of forward frame F - p).
AnalysisCore::IntMatrix2D Peaks(const Testing::ScanSettings& s, int threads) {
  Testing::SeededRandom random(61);
  AnalysisCore::FrameBuffer frames;
  EXPECT_TRUE(Testing::MakeSyntheticScan(frames, s, Surface, &random));
  AnalysisCore::IntMatrix2D peaks;
  FindPeakFrames(frames, peaks, threads);
  return peaks;
}

// The envelope peaks where the scan reaches the surface; the fringe energy, summed over nine frames
// (about two fringes), peaks there to within a frame even with 1.5 counts of noise on fringes of 60:
// the envelope is 20 frames wide, so a frame's shift changes the energy by a few percent, while the
// noise adds about 2 x 1.5^2 x 9 ~ 40 to an energy of some 10^4 counts^2. A reversed scan's peaks
// are F minus the forward ones exactly (ties go to the same scan position), and the threads share
// rows without changing anything.
TEST(CoherenceDiscriminatorTest, FindsThePeakFrameWithinAFrameInEitherDirection) {
  const AnalysisCore::IntMatrix2D forward = Peaks(Settings(1), 1);
  const AnalysisCore::IntMatrix2D reversed = Peaks(Settings(-1), 2);
  const AnalysisCore::IntMatrix2D threaded = Peaks(Settings(1), 3);
  ASSERT_EQ(forward.GetRows(), 20);
  ASSERT_EQ(forward.GetColumns(), 24);
  for (int r = 0; r < 20; ++r) {
    for (int c = 0; c < 24; ++c) {
      EXPECT_LE(std::abs(forward(r, c) - Testing::TruePeakFrame(Settings(1), Surface(r, c))), 1)
          << r << "," << c;
      EXPECT_EQ(reversed(r, c), 160 - forward(r, c)) << r << "," << c;
      EXPECT_EQ(threaded(r, c), forward(r, c)) << r << "," << c;
    }
  }
}

// No fringe energy anywhere: no peak (0), in a reversed scan too, where equal energies would
// otherwise move the peak along.
TEST(CoherenceDiscriminatorTest, ASignalThatNeverChangesHasNoPeak) {
  Testing::ScanSettings s = Settings(-1);
  s.modulationCounts = 0.0;
  s.noiseSigmaCounts = 0.0;
  const AnalysisCore::IntMatrix2D peaks = Peaks(s, 2);
  for (std::int64_t i = 0; i < peaks.GetCount(); ++i)
    EXPECT_EQ(peaks.At(i), 0) << "pixel " << i;
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

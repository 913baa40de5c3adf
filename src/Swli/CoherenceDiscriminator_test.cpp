// The coherence discriminator on synthetic scans with known surfaces.
#include "Swli/CoherenceDiscriminator.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <tuple>

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

// The vectorised path against the plain one, pixel for pixel, for both sample widths, both scan
// directions and several thread counts, on shapes that leave partial vectors and a partial chunk
// (700 pixels in a row is one 512-pixel chunk and a remainder).
// - "scan": a synthetic scan; 16-bit fringes of 29000 counts make squared differences of some 10^9
//   counts^2, whose nine-frame sums overflow 32 bits.
// - "full range": seeded random samples over the whole sample range, the largest differences there are.
// - "ties": random samples of 0 or 1 only, so that many frames share the best energy and the tie
//   rules decide.
enum class Content { kScan, kFullRange, kTies };
using PathCase =
    std::tuple<AnalysisCore::FrameBuffer::ElementRes, int /*direction*/, Content, int /*threads*/>;

class PeakFinderPathTest : public ::testing::TestWithParam<PathCase> {};

void Fill(AnalysisCore::FrameBuffer& frames, Content content, Testing::SeededRandom& random) {
  const int top = content == Content::kTies ? 1 : frames.GetMaxValue();
  for (int slot = 0; slot < frames.GetFramesStored(); ++slot) {
    for (int i = 0; i < frames.GetPixelCount(); ++i) {
      const int v = random.UniformInt(0, top);
      if (frames.GetElementRes() == AnalysisCore::FrameBuffer::kRes8Bit) {
        frames.GetFrame<std::uint8_t>(slot)[i] = static_cast<std::uint8_t>(v);
      } else {
        frames.GetFrame<std::uint16_t>(slot)[i] = static_cast<std::uint16_t>(v);
      }
    }
  }
}

TEST_P(PeakFinderPathTest, MatchesThePlainPathPixelForPixel) {
  const auto [resolution, direction, content, threads] = GetParam();
  for (const auto& [rows, cols] : {std::pair{3, 700}, std::pair{7, 37}, std::pair{1, 5}}) {
    Testing::ScanSettings s = Settings(direction);
    s.rows = rows;
    s.cols = cols;
    s.framesScanned = 90;
    s.resolution = resolution;
    if (resolution == AnalysisCore::FrameBuffer::kRes16Bit) {
      s.biasCounts = 32000.0;
      s.modulationCounts = 29000.0;
      s.noiseSigmaCounts = 300.0;
    }
    Testing::SeededRandom random(1729);
    AnalysisCore::FrameBuffer frames;
    ASSERT_TRUE(Testing::MakeSyntheticScan(frames, s, Surface, &random));
    if (content != Content::kScan) Fill(frames, content, random);
    AnalysisCore::IntMatrix2D fast, plain;
    FindPeakFrames(frames, fast, threads);
    FindPeakFramesReference(frames, plain, 1);
    ASSERT_EQ(fast.GetCount(), plain.GetCount());
    int found = 0;
    for (std::int64_t i = 0; i < plain.GetCount(); ++i) {
      ASSERT_EQ(fast.At(i), plain.At(i))
          << rows << " x " << cols << ", pixel " << i << "; " << random.Describe();
      found += plain.At(i) > 0;
    }
    EXPECT_GT(found, 0) << "every pixel without a peak proves nothing";
  }
}

std::string PathName(const ::testing::TestParamInfo<PathCase>& info) {
  const auto [resolution, direction, content, threads] = info.param;
  const char* contents[] = {"Scan", "FullRange", "Ties"};
  return std::string(resolution == AnalysisCore::FrameBuffer::kRes8Bit ? "Bits8" : "Bits16") +
         (direction > 0 ? "Forward" : "Reversed") + contents[static_cast<int>(content)] + "Threads" +
         std::to_string(threads);
}

INSTANTIATE_TEST_SUITE_P(Paths, PeakFinderPathTest,
                         ::testing::Combine(::testing::Values(AnalysisCore::FrameBuffer::kRes8Bit,
                                                              AnalysisCore::FrameBuffer::kRes16Bit),
                                            ::testing::Values(1, -1),
                                            ::testing::Values(Content::kScan, Content::kFullRange,
                                                              Content::kTies),
                                            ::testing::Values(1, 3)),
                         PathName);

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

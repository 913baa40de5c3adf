// The coherence discriminator on synthetic scans with known surfaces.
#include "Swli/CoherenceDiscriminator.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "Synthetic/SampleStore.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticScan.h"
#include "Testing/ImageEquivalence.h"

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
// otherwise move the peak along. Both sample widths, 100 columns so that the vector kernels see
// whole vectors.
TEST(CoherenceDiscriminatorTest, ASignalThatNeverChangesHasNoPeak) {
  for (const auto resolution : {AnalysisCore::FrameBuffer::kRes8Bit, AnalysisCore::FrameBuffer::kRes16Bit}) {
    Testing::ScanSettings s = Settings(-1);
    s.cols = 100;
    s.resolution = resolution;
    s.modulationCounts = 0.0;
    s.noiseSigmaCounts = 0.0;
    const AnalysisCore::IntMatrix2D peaks = Peaks(s, 2);
    for (std::int64_t i = 0; i < peaks.GetCount(); ++i)
      EXPECT_EQ(peaks.At(i), 0) << "pixel " << i << ", " << resolution;
  }
}

// The vectorised path against the plain one, with the house's equivalence check (whole image on
// several thread counts, sub-windows off the origin, a one-row image), bit for bit: both sums are
// exact. Both sample widths, both scan directions; 700 columns leave a full 512-pixel chunk and a
// remainder, and partial vectors everywhere.
// - "scan": a synthetic scan; 16-bit fringes of 29000 counts make squared differences of some 10^9
//   counts^2, whose nine-frame sums overflow 32 bits.
// - "full range": seeded random samples over the whole sample range, the largest differences there are.
// - "ties": random samples of 0 or 1 only, so that many frames share the best energy and the tie
//   rules decide.
// - "14 bits" (16-bit scans): random samples below 2^14, the range the AVX2 kernel sums in 32-bit
//   integers (nine squares of differences up to 16383 come close to 2^32), except that the middle
//   row reaches 2^15 from frame 150 on: the chunks holding it must give up the integer kernel when
//   they meet those samples, long after they started, and find the same peaks as the rest.
// The random contents run 300 frames: the 8-bit AVX2 kernel codes the frame into the low bits of its
// keys in blocks of 256 frames and merges the blocks, so best energies and ties must carry across
// block boundaries.
enum class Content { kScan, kFullRange, kTies, k14Bits };
using PathCase = std::tuple<AnalysisCore::FrameBuffer::ElementRes, int /*direction*/, Content>;

class PeakFinderPathTest : public ::testing::TestWithParam<PathCase> {};

void Fill(AnalysisCore::FrameBuffer& frames, Content content, Testing::SeededRandom& random) {
  const int top = content == Content::kTies     ? 1
                  : content == Content::k14Bits ? (1 << 14) - 1
                                                : frames.GetMaxValue();
  const int cols = frames.GetColumns(), middle = frames.GetRows() / 2;
  for (int slot = 0; slot < frames.GetFramesStored(); ++slot) {
    for (int i = 0; i < frames.GetPixelCount(); ++i) {
      const bool wide = content == Content::k14Bits && slot >= 150 && i / cols == middle;
      Testing::StoreSample(frames, slot, static_cast<std::size_t>(i),
                           random.UniformInt(0, wide ? 1 << 15 : top));
    }
  }
}

// The frames of `whole` inside `window`, as a scan of that window.
void Cut(const AnalysisCore::FrameBuffer& whole, const AnalysisCore::Window2D& window,
         AnalysisCore::FrameBuffer& cut) {
  ASSERT_TRUE(
      cut.Allocate(window, whole.GetNumberOfFrames(), whole.GetElementRes(), 0, whole.GetScanDirection()));
  const std::size_t bytes = static_cast<std::size_t>(whole.GetBytesPerSample());
  for (int slot = 0; slot < whole.GetFramesStored(); ++slot) {
    const auto* from = static_cast<const unsigned char*>(whole.GetFrameData(slot));
    auto* to = static_cast<unsigned char*>(cut.GetFrameData(slot));
    for (int r = 0; r < window.GetRows(); ++r) {
      const std::size_t source =
          (static_cast<std::size_t>(window.GetStartRow() + r) * static_cast<std::size_t>(whole.GetColumns()) +
           static_cast<std::size_t>(window.GetStartCol())) *
          bytes;
      std::memcpy(to + static_cast<std::size_t>(r) * static_cast<std::size_t>(window.GetCols()) * bytes,
                  from + source, static_cast<std::size_t>(window.GetCols()) * bytes);
    }
  }
}

TEST_P(PeakFinderPathTest, MatchesThePlainPathPixelForPixel) {
  const auto [resolution, direction, content] = GetParam();
  Testing::ScanSettings s = Settings(direction);
  s.rows = 5;
  s.cols = 700;
  s.framesScanned = content == Content::kScan ? 90 : 300;
  s.resolution = resolution;
  if (resolution == AnalysisCore::FrameBuffer::kRes16Bit) {
    s.biasCounts = 32000.0;
    s.modulationCounts = 29000.0;
    s.noiseSigmaCounts = 300.0;
  }
  Testing::SeededRandom random(1729);
  SCOPED_TRACE(random.Describe());
  AnalysisCore::FrameBuffer whole;
  ASSERT_TRUE(Testing::MakeSyntheticScan(whole, s, Surface, &random));
  if (content != Content::kScan) Fill(whole, content, random);

  const auto run = [&](const AnalysisCore::Window2D& window, int threads, bool fast) {
    AnalysisCore::FrameBuffer frames;
    Cut(whole, window, frames);
    AnalysisCore::IntMatrix2D peaks;
    if (fast) {
      FindPeakFrames(frames, peaks, threads);
    } else {
      FindPeakFramesReference(frames, peaks, threads);
    }
    Testing::ImageMaps maps(1);
    for (std::int64_t i = 0; i < peaks.GetCount(); ++i)
      maps[0].push_back(peaks.At(i));
    return maps;
  };
  const Testing::ImageMaps plain = run(AnalysisCore::Window2D(0, 0, s.rows, s.cols), 1, false);
  int found = 0;
  for (const double peak : plain[0])
    found += peak > 0;
  EXPECT_GT(found, 0) << "every pixel without a peak proves nothing";
  Testing::CheckImageEquivalence(
      {s.rows, s.cols, {{"peak frame", 0}}},
      [&](const AnalysisCore::Window2D& window) { return run(window, 1, false); },
      [&](const AnalysisCore::Window2D& window, int threads) { return run(window, threads, true); });
}

// Short scans, where the kernels' warm-up, unrolled passes and last frames meet: fewer than eleven
// frames leave no complete window (no peak), and up to 16 frames leave one to six windows, fewer and
// a few more than one unrolled pass of four. Random samples over the whole range and below 2^14, both
// directions, 101 pixels (whole vectors and a remainder).
TEST(CoherenceDiscriminatorTest, ShortScansMatchThePlainPath) {
  constexpr int kWidth = 101;
  Testing::SeededRandom random(31);
  SCOPED_TRACE(random.Describe());
  for (const auto resolution : {AnalysisCore::FrameBuffer::kRes8Bit, AnalysisCore::FrameBuffer::kRes16Bit}) {
    for (const int top : {65535, (1 << 14) - 1}) {
      for (const int direction : {1, -1}) {
        for (int count = 3; count <= 16; ++count) {
          AnalysisCore::FrameBuffer frames;
          ASSERT_TRUE(
              frames.Allocate(AnalysisCore::Window2D(0, 0, 1, kWidth), count, resolution, 0, direction));
          for (int slot = 0; slot < count; ++slot) {
            for (int i = 0; i < kWidth; ++i)
              Testing::StoreSample(frames, slot, static_cast<std::size_t>(i),
                                   random.UniformInt(0, std::min(top, frames.GetMaxValue())));
          }
          AnalysisCore::IntMatrix2D fast, plain;
          FindPeakFrames(frames, fast, 1);
          FindPeakFramesReference(frames, plain, 1);
          for (int i = 0; i < kWidth; ++i) {
            ASSERT_EQ(fast.At(i), plain.At(i))
                << "pixel " << i << ", " << count << " frames, direction " << direction << ", top " << top;
            if (count < 11) {
              EXPECT_EQ(plain.At(i), 0);
            }
          }
        }
      }
    }
  }
}

std::string PathName(const ::testing::TestParamInfo<PathCase>& info) {
  const auto [resolution, direction, content] = info.param;
  const char* contents[] = {"Scan", "FullRange", "Ties", "14Bits"};
  return std::string(resolution == AnalysisCore::FrameBuffer::kRes8Bit ? "Bits8" : "Bits16") +
         (direction > 0 ? "Forward" : "Reversed") + contents[static_cast<int>(content)];
}

std::vector<PathCase> PathCases() {
  std::vector<PathCase> cases;
  for (const auto resolution : {AnalysisCore::FrameBuffer::kRes8Bit, AnalysisCore::FrameBuffer::kRes16Bit}) {
    for (const int direction : {1, -1}) {
      for (const Content content : {Content::kScan, Content::kFullRange, Content::kTies, Content::k14Bits}) {
        if (content != Content::k14Bits || resolution == AnalysisCore::FrameBuffer::kRes16Bit)
          cases.emplace_back(resolution, direction, content);
      }
    }
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(Paths, PeakFinderPathTest, ::testing::ValuesIn(PathCases()), PathName);

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

// The envelope centroid on synthetic scans of known surfaces.
#include "Swli/PhaseAlgorithmCentroid.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/NoData.h"
#include "Analysis/Core/UnitNumber.h"
#include "Swli/PhaseGenerator.h"
#include "Swli/detail/CentroidBlockKernel.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticScan.h"
#include "Testing/ImageEquivalence.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {
namespace {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::LinearConverter;
using Analysis::Core::Status;
using Analysis::Core::UnitNumber;
using Analysis::Core::Window2D;
namespace Units = Analysis::Core::Units;

constexpr double kStepNm = 80.0;

// Evaluates every pixel of the scan; returns the generator's status.
Status Measure(Testing::DiscriminatedScan& scan, PhaseAlgorithmCentroid& centroid, DoubleMatrix2D& surface) {
  centroid.SetScanIncrement(UnitNumber(scan.settings.scanStepNm, LinearConverter(Units::kNanometers)));
  PhaseGenerator generator(&centroid);
  surface.Resize(0, 0, scan.settings.rows, scan.settings.cols);
  surface.SetAll(0.0);
  return generator.Process(scan.frames, scan.peaks, scan.auxiliary, surface);
}

struct AccuracyCase {
  double noiseCounts;
  double maxFraction;  // of the coherence length, per pixel
  double rmsFraction;
};

class CentroidAccuracyTest : public ::testing::TestWithParam<AccuracyCase> {};

// The centroid lands within a small fraction of the coherence length (1.6 um for 600 nm light of
// 100 nm bandwidth). Its heights count scan positions from one, so they sit one scan step above the
// surface; that offset is part of the expected value.
//
// Tolerances: without noise only the rounding of the samples and the |cos| ripple of the envelope
// move the centroid (a few nanometres). With noise sigma, each of the 64 samples of |d - mu| carries
// about sigma of noise: the centroid moves by about sigma x sqrt(64 x 64^2 / 12) / sum|d - mu|,
// with sum|d - mu| about 2/pi x 60 counts x 21 samples of envelope ~ 800: 0.2 sigma frames (24 nm at
// sigma 1.5), and the noise floor pulls the centroid towards the window centre, a bias of about a
// tenth of the discriminator's error (up to 2 frames). The bounds are about twice what that predicts.
TEST_P(CentroidAccuracyTest, LandsWithinAFractionOfTheCoherenceLength) {
  const AccuracyCase& c = GetParam();
  SCOPED_TRACE(Testing::SeededRandom(31).Describe());
  Testing::ScanSettings s;
  s.rows = 24;
  s.cols = 32;
  s.noiseSigmaCounts = c.noiseCounts;
  Testing::DiscriminatedScan scan;
  ASSERT_TRUE(Testing::MakeDiscriminatedScan(scan, s, Testing::SphereWithStepNm, 31));
  PhaseAlgorithmCentroid centroid;
  DoubleMatrix2D surface;
  ASSERT_TRUE(Measure(scan, centroid, surface).IsOk());
  const double coherence = Testing::CoherenceLengthNm(s.light);
  double sumSquares = 0.0;
  for (int r = 0; r < s.rows; ++r) {
    for (int col = 0; col < s.cols; ++col) {
      const double error = surface(r, col) - (Testing::SphereWithStepNm(r, col) + kStepNm);
      EXPECT_LT(std::abs(error), c.maxFraction * coherence) << r << "," << col;
      sumSquares += error * error;
    }
  }
  EXPECT_LT(std::sqrt(sumSquares / (s.rows * s.cols)), c.rmsFraction * coherence);
}

INSTANTIATE_TEST_SUITE_P(Noise, CentroidAccuracyTest,
                         ::testing::Values(AccuracyCase{0.0, 0.01, 0.003}, AccuracyCase{1.5, 0.1, 0.025}));

// The modulation at the window centre, m = |2 d32 - d30 - d34| + |2 (d31 - d33)|, must reach minimum
// modulation x 2 x saturation / 100. A bright pair of samples at window indices 31 and 32 gives m = 20
// for d31 = d32 = 5, and a saturation of 100 with a minimum of 10 % sets the threshold at 20 too:
// equal passes, a hair less does not. The envelope is symmetric about window index 31.5: around the
// peak frame 100 (the window holds frames 68 .. 131) that is frame 99.5, reported one step above,
// 100.5 steps. A signal without fringes passes a threshold of 0 but has no centroid. A peak within
// half a signal (32 frames) of either end of the 256-frame scan has no centred window. Every pixel
// gets its intensity, the standard window's 3 (d31 + d32) / 16 = 1.875.
TEST(PhaseAlgorithmCentroidTest, ThresholdAndScanEndsDecideWhichPixelsGetAHeight) {
  struct Case {
    double pair, minimum;
    int peak;
    double heightSteps;  // 0: no height
  };
  for (const Case c : {Case{10.0, 10.0, 100, 100.5}, Case{9.999, 10.0, 100, 0.0}, Case{0.0, 0.0, 100, 0.0},
                       Case{10.0, 10.0, 32, 32.5}, Case{10.0, 10.0, 31, 0.0}, Case{10.0, 10.0, 223, 223.5},
                       Case{10.0, 10.0, 224, 0.0}}) {
    PhaseAlgorithmCentroid centroid;
    centroid.SetMinimumModulation(c.minimum);
    centroid.SetMaxScanValue(100.0);
    centroid.SetScanIncrement(UnitNumber(kStepNm, LinearConverter(Units::kNanometers)));
    centroid.Initialize(0, 256, 64, Window2D(0, 0, 1, 1));
    centroid.InitializeThread(1);
    double* d = centroid.GetDataArray(0);
    std::fill(d, d + 64, 0.0);
    d[31] = d[32] = c.pair / 2.0;
    centroid.ProcessPixel(0, 0, c.peak, 0);
    const double height = centroid.GetSurfaceMatrix()(0, 0);
    if (c.heightSteps > 0.0) {
      EXPECT_DOUBLE_EQ(height, c.heightSteps * kStepNm) << c.pair << " at " << c.peak;
    } else {
      EXPECT_TRUE(DoubleMatrix2D::IsNoData(height)) << c.pair << " at " << c.peak;
    }
    EXPECT_EQ(centroid.GetIntensityMatrix()(0, 0), c.pair > 0.0 ? 2 : 0) << c.pair << " at " << c.peak;
    centroid.FinalizeThread();
  }
}

// The block kernels against the plain one, lane by lane, on random copies: windows anywhere in copies
// of q to 2q frames (the widest the block path makes), unused lanes, and samples drawn from the
// extremes as well as from the whole range, so that the integer lanes of the vector kernels meet their
// largest sums (q x the largest sample) and deviations. The sums are exact integers: equal, not close.
template <typename Stored>
void CheckBlockKernel(detail::CentroidBlockSumsFunction<Stored> kernel, Testing::SeededRandom& random) {
  const int top = std::numeric_limits<Stored>::max();
  for (const int q : {64, 128}) {
    for (int trial = 0; trial < 40; ++trial) {
      const int frames = random.UniformInt(q, 2 * q);
      std::vector<Stored> copy(static_cast<std::size_t>(frames + 1) * detail::kCentroidLanes);
      const int style =
          trial % 4;  // 0: any value, 1: 0 or the top, 2: all the top, 3: the top with few zeros
      for (Stored& v : copy) {
        const int any = random.UniformInt(0, top);
        const int extreme = style == 1 ? (any & 1) * top : style == 2 ? top : (any < top / 32 ? 0 : top);
        v = static_cast<Stored>(style == 0 ? any : extreme);
      }
      int start[detail::kCentroidLanes];
      for (int& s : start)
        s = random.UniformInt(0, 9) == 0 ? -1 : random.UniformInt(0, frames - q);
      if (trial % 5 == 0) std::fill(start, start + detail::kCentroidLanes, frames - q);  // one common window
      const detail::CentroidBlockInput<Stored> input{copy.data(), frames, q, start};
      detail::CentroidBlockSums fast{}, plain{};
      kernel(input, fast);
      detail::CentroidBlockSumsPlain(input, plain);
      for (int lane = 0; lane < detail::kCentroidLanes; ++lane) {
        const std::string where =
            "q " + std::to_string(q) + " trial " + std::to_string(trial) + " lane " + std::to_string(lane);
        ASSERT_EQ(fast.samples[lane], plain.samples[lane]) << where;
        ASSERT_EQ(fast.deviations[lane], plain.deviations[lane]) << where;
        ASSERT_EQ(fast.moments[lane], plain.moments[lane]) << where;
      }
    }
  }
}

TEST(CentroidBlockKernelTest, TheSelectedKernelsMatchThePlainOneLaneByLane) {
  Testing::SeededRandom random(53);
  SCOPED_TRACE(random.Describe());
  {
    SCOPED_TRACE("8-bit");
    CheckBlockKernel(detail::SelectCentroidBlockSums8(), random);
  }
  {
    SCOPED_TRACE("16-bit");
    CheckBlockKernel(detail::SelectCentroidBlockSums16(), random);
  }
}

struct PathCase {
  Analysis::Core::FrameBuffer::ElementRes resolution;
  int signal;
  int fringeRemoval;
  bool allPass;  // minimum modulation 0: even the fringe-free windows at the scan's ends get a height
  int frames = 256;
  int scanDirection = 1;
  bool nearEnd = false;  // the other peaks just inside the last centred windows, not at the surface
};

class CentroidPathTest : public ::testing::TestWithParam<PathCase> {};

// The fast paths (blocks of pixels from the frame planes, the vector envelope sums, the transposing
// loader) against the reference (each pixel loaded from its frames and summed in scalars), with the
// house's equivalence check (thread counts, sub-windows, one row): heights and intensities bit for bit.
// Forward and reversed scans. The scan mixes every kind of pixel a block meets: peaks to be estimated
// (0, negative), peaks near either end of the scan and far outside it, and just at the last ones that
// keep a centred window (windows clamped to the first or last frames, mirrored peaks), stray
// peaks far from their neighbours (left to the pixel path when the block's windows spread too wide),
// pixels masked out by the caller, and a threshold that about half the pixels pass (or, so that the
// windows clamped to the scan's ends, which hold no fringes, get heights too, a threshold of 0).
TEST_P(CentroidPathTest, FastPathsGiveTheReferenceBitForBit) {
  const PathCase& c = GetParam();
  const int kFrames = c.frames;
  // Stray peaks well away from their neighbours' (and, in a long scan, further than the vector
  // kernel's 32-bit moments could span).
  const int stray = kFrames > 256 ? 800 : 90;
  Testing::ScanSettings s;
  s.rows = 12;
  s.cols = 24;
  s.framesScanned = kFrames;
  s.noiseSigmaCounts = 2.0;
  s.resolution = c.resolution;
  s.scanDirection = c.scanDirection;
  // Wide samples far from 8 bits, to reach their larger sums.
  const double scale = c.resolution == Analysis::Core::FrameBuffer::kRes8Bit    ? 1.0
                       : c.resolution == Analysis::Core::FrameBuffer::kRes16Bit ? 200.0
                                                                                : 1.0e6;
  s.biasCounts *= scale;
  s.modulationCounts *= scale;
  s.noiseSigmaCounts *= scale;
  Testing::DiscriminatedScan whole;
  ASSERT_TRUE(Testing::MakeDiscriminatedScan(whole, s, Testing::SphereWithStepNm, 47));
  const auto kind = [](int r, int col) { return (r * 5 + col * 3) % 23; };
  for (int r = 0; r < s.rows; ++r) {
    for (int col = 0; col < s.cols; ++col) {
      int& peak = whole.peaks(r, col);
      const int k = kind(r, col);
      peak = k == 0      ? 0
             : k == 1    ? -3
             : k == 2    ? 3
             : k == 3    ? kFrames - 2
             : k == 4    ? 2147483640
             : k == 5    ? peak + (c.scanDirection < 0 ? -stray : stray)
             : k == 7    ? kFrames - c.signal / 2
             : k == 8    ? c.signal / 2 - 1
             : c.nearEnd ? kFrames - c.signal / 2 - 1 - (r + col) % 3
                         : peak;
    }
  }
  // About half the pixels fail this threshold: four samples per fringe give a measure of about 4 to
  // 5.7 times the fringe amplitude, here compared with 4.8 times it.
  const double minimumPercent =
      c.allPass ? 0.0 : 100.0 * 4.8 * s.modulationCounts / (2.0 * whole.frames.GetMaxValue());
  double validFraction = 0.0;
  const int sampleBytes = static_cast<int>(c.resolution);
  const auto run = [&](const Window2D& w, int threads, bool fast) {
    // The window's part of the scan: its frames, peaks and auxiliary values.
    Analysis::Core::FrameBuffer frames;
    EXPECT_TRUE(frames.Allocate(w, kFrames, c.resolution, 0, c.scanDirection));
    frames.SetMaxValue(whole.frames.GetMaxValue());
    Analysis::Core::IntMatrix2D peaks, auxiliary;
    peaks.Resize(w);
    auxiliary.Resize(w);
    auxiliary.SetAll(0);
    DoubleMatrix2D surface;
    surface.Resize(w);
    for (int slot = 0; slot < kFrames; ++slot) {
      const auto* from = static_cast<const std::uint8_t*>(whole.frames.GetFrameData(slot));
      auto* to = static_cast<std::uint8_t*>(frames.GetFrameData(slot));
      for (int r = 0; r < w.GetRows(); ++r) {
        std::memcpy(to + static_cast<std::ptrdiff_t>(r) * w.GetCols() * sampleBytes,
                    from + (static_cast<std::ptrdiff_t>(r + w.GetStartRow()) * s.cols + w.GetStartCol()) *
                               sampleBytes,
                    static_cast<std::size_t>(w.GetCols() * sampleBytes));
      }
    }
    for (int r = 0; r < w.GetRows(); ++r) {
      for (int col = 0; col < w.GetCols(); ++col) {
        const int wr = r + w.GetStartRow(), wc = col + w.GetStartCol();
        peaks.At(r * w.GetCols() + col) = whole.peaks(wr, wc);
        surface.At(r * w.GetCols() + col) = kind(wr, wc) == 6 ? DoubleMatrix2D::NoData() : 0.0;
      }
    }
    PhaseAlgorithmCentroid centroid;
    centroid.SetUseFastPath(fast);
    centroid.SetExpectedSignalSize(c.signal);
    centroid.SetRemoveFringes(c.fringeRemoval);
    centroid.SetMinimumModulation(minimumPercent);
    centroid.SetScanIncrement(UnitNumber(s.scanStepNm, LinearConverter(Units::kNanometers)));
    PhaseGenerator generator(&centroid);
    generator.SetUseFastPath(fast);
    generator.SetAllowMultiThreads(threads > 1);
    generator.SetMaxNumThreads(std::max(threads, 1));
    const Analysis::Core::Status status = generator.Process(frames, peaks, auxiliary, surface);
    EXPECT_TRUE(status.IsOk()) << status.GetPrintString();
    Testing::ImageMaps maps(2);
    for (std::int64_t i = 0; i < surface.GetCount(); ++i) {
      maps[0].push_back(surface.At(i));
      maps[1].push_back(c.fringeRemoval == FringeRemovalMethod::kNone ? 0.0
                                                                      : centroid.GetIntensityMatrix().At(i));
    }
    if (!fast && w.GetCount() == static_cast<std::int64_t>(s.rows) * s.cols)
      validFraction = static_cast<double>(surface.CountValid()) / static_cast<double>(surface.GetCount());
    return maps;
  };
  Testing::CheckImageEquivalence(
      {s.rows, s.cols, {{"height", 0}, {"intensity", 0}}},
      [&](const Window2D& w) { return run(w, 1, false); },
      [&](const Window2D& w, int threads) { return run(w, threads, true); });
  // Masked pixels (1 in 23) and peaks to be estimated that find none get no height in any case, nor,
  // in a reversed scan, the peaks mirrored outside the scan's centred windows (4 in 23).
  EXPECT_GT(validFraction, c.allPass ? 0.7 : 0.2);
  EXPECT_LT(validFraction, c.allPass ? 0.97 : 0.8);
}

INSTANTIATE_TEST_SUITE_P(
    SamplesSignalsIntensities, CentroidPathTest,
    ::testing::Values(
        PathCase{Analysis::Core::FrameBuffer::kRes8Bit, 64, FringeRemovalMethod::kStandard, false},
        PathCase{Analysis::Core::FrameBuffer::kRes8Bit, 64, FringeRemovalMethod::kStandard, true},
        PathCase{Analysis::Core::FrameBuffer::kRes8Bit, 128, FringeRemovalMethod::kStandard, true},
        PathCase{Analysis::Core::FrameBuffer::kRes8Bit, 128, FringeRemovalMethod::kStandard, false, 1024},
        PathCase{Analysis::Core::FrameBuffer::kRes8Bit, 64, FringeRemovalMethod::k64Bucket, false},
        PathCase{Analysis::Core::FrameBuffer::kRes8Bit, 128, FringeRemovalMethod::kNone, false},
        PathCase{Analysis::Core::FrameBuffer::kRes16Bit, 64, FringeRemovalMethod::kStandard, true},
        PathCase{Analysis::Core::FrameBuffer::kRes16Bit, 128, FringeRemovalMethod::k64Bucket, false, 1024},
        PathCase{Analysis::Core::FrameBuffer::kRes32Bit, 64, FringeRemovalMethod::kStandard, true},
        PathCase{Analysis::Core::FrameBuffer::kRes8Bit, 64, FringeRemovalMethod::kStandard, true, 256, -1},
        PathCase{Analysis::Core::FrameBuffer::kRes8Bit, 128, FringeRemovalMethod::k64Bucket, false, 1024, -1},
        PathCase{Analysis::Core::FrameBuffer::kRes16Bit, 64, FringeRemovalMethod::kStandard, false, 256, -1},
        PathCase{Analysis::Core::FrameBuffer::kRes8Bit, 64, FringeRemovalMethod::kStandard, true, 256, -1,
                 true},
        PathCase{Analysis::Core::FrameBuffer::kRes8Bit, 128, FringeRemovalMethod::kStandard, true, 256, 1,
                 true}));

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

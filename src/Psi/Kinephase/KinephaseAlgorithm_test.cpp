#include "Psi/Kinephase/KinephaseAlgorithm.h"

#include <cmath>
#include <cstring>
#include <functional>
#include <numbers>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/Fft2D.h"
#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/Units.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticCarrier.h"
#include "Testing/ImageEquivalence.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {
namespace {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::Fft2D;
using Analysis::Core::FrameBuffer;
using Analysis::Core::LinearConverter;
using Analysis::Core::RegionIdMatrix2D;
using Analysis::Core::UnitAxis;
using Analysis::Core::Window2D;
namespace StatusCode = Analysis::Core::StatusCode;
namespace Units = Analysis::Core::Units;

constexpr double kTwoPi = 2.0 * std::numbers::pi;

// The filter passes the lobe centre with (1 - e^{-9/2}) (1 - e^{-18}): the zero-frequency notch of
// width r / 3 sits 3 widths away, the second-harmonic notch of width r / 6 six widths away. The
// modulation of a fringe of amplitude b reads that fraction of b.
const double kLobeGain = (1.0 - std::exp(-4.5)) * (1.0 - std::exp(-18.0));

// Error allowance for the method itself on the smooth test phases below, 8 pixels (two fringes)
// and more from the frame border: the phase of a frame that is not periodic leaks from the frame
// edges through the broad lobe filter. Measured on 32-bit frames without noise and rounding it is
// 0.004 rad; 0.006 leaves room.
constexpr double kMethodErrorRad = 0.006;
constexpr int kBorder = 8;

// A smooth surface phase of about a radian and a half: tilt, defocus and astigmatism.
std::function<double(int, int)> SmoothPhase(int rows, int cols) {
  return [rows, cols](int r, int c) {
    const double x = (c - cols / 2.0) / cols, y = (r - rows / 2.0) / rows;
    return 2.0 * (x * x + y * y) + 1.5 * x * y + 0.8 * x - 0.5 * y;
  };
}

struct Comparison {
  double rms = 0.0;  // after removing the mean difference (a constant the method cannot know)
  std::int64_t compared = 0;
  std::int64_t invalid = 0;  // pixels of the compared area without data
  double modulationMean = 0.0;
};

// Compares scale x phase (radians) with the truth over the pixels at least `border` from the frame
// edge for which `include(r, c)` holds.
Comparison Compare(const DoubleMatrix2D& phase, const DoubleMatrix2D& modulation,
                   const std::function<double(int, int)>& truth, int border, double scale = 1.0,
                   const std::function<bool(int, int)>& include = nullptr) {
  Comparison result;
  double sum = 0.0, sumSquares = 0.0, modulationSum = 0.0;
  for (int r = border; r < phase.GetRows() - border; ++r) {
    for (int c = border; c < phase.GetColumns() - border; ++c) {
      if (include && !include(r, c)) continue;
      if (DoubleMatrix2D::IsNoData(phase(r, c))) {
        ++result.invalid;
        continue;
      }
      const double e = std::remainder(scale * phase(r, c) - truth(r, c), kTwoPi);
      sum += e;
      sumSquares += e * e;
      modulationSum += modulation.GetCount() ? modulation(r, c) : 0.0;
      ++result.compared;
    }
  }
  if (result.compared == 0) return result;
  const double n = static_cast<double>(result.compared);
  const double piston = sum / n;
  result.rms = std::sqrt(std::max(0.0, sumSquares / n - piston * piston));
  result.modulationMean = modulationSum / n;
  return result;
}

// Phase noise of the pipeline for white camera noise of sigma counts (rounding adds 1/12 count^2):
// the filtered noise per pixel has variance sigma^2 sum F^2 / N (Parseval, inverse scaled by 1/N),
// half of it across the signal direction, against a signal of magnitude gain b / 2.
double PredictedPhaseNoise(KinephaseAlgorithm& kinephase, double sigmaCounts, double amplitude) {
  DoubleMatrix2D filter;
  kinephase.GetFilter(filter);
  double sum = 0.0;
  for (std::int64_t i = 0; i < filter.GetCount(); ++i)
    sum += filter.At(i) * filter.At(i);
  const double variance =
      (sigmaCounts * sigmaCounts + 1.0 / 12.0) * sum / static_cast<double>(filter.GetCount());
  return std::sqrt(variance / 2.0) / (kLobeGain * amplitude / 2.0);
}

// One frame of the scene (16-bit frames saturate at 4095).
FrameBuffer FrameOf(int rows, int cols, const Testing::CarrierScene& scene, Testing::SeededRandom* random,
                    FrameBuffer::ElementRes resolution = FrameBuffer::kRes8Bit) {
  FrameBuffer frames;
  frames.Allocate(Window2D(0, 0, rows, cols), 1, resolution);
  if (resolution == FrameBuffer::kRes16Bit) frames.SetMaxValue(4095);
  Testing::FillCarrierFrame(frames, 0, scene, random);
  return frames;
}

Testing::CarrierScene SmoothScene(int rows, int cols, double noiseSigma, int quadrant = 2) {
  Testing::CarrierScene scene;
  scene.phase = SmoothPhase(rows, cols);
  scene.noiseSigma = noiseSigma;
  scene.quadrant = quadrant;
  return scene;
}

struct FrameCase {
  std::string name;
  int rows, cols;
  int pixelsPerFringe;
  FrameBuffer::ElementRes resolution;
  double bias, amplitude, noise;
};

void PrintTo(const FrameCase& c, std::ostream* os) {
  *os << c.name;
}

const FrameCase kFrames[] = {
    {"8bit_96x128_P4", 96, 128, 4, FrameBuffer::kRes8Bit, 110.0, 80.0, 1.5},
    {"16bit_75x110_P5", 75, 110, 5, FrameBuffer::kRes16Bit, 2000.0, 1500.0, 12.0},
    {"8bit_90x101_P6", 90, 101, 6, FrameBuffer::kRes8Bit, 120.0, 90.0, 1.0},
};

// The fast path (the passes fused into the transform, the vector atan2) against the plain reference:
// the modulation, and with it the validity of every pixel, bit for bit; the phase within the 4 ulp
// by which SLEEF's atan2 (3.5 ulp from exact) and libm's may differ. The transforms make every
// pixel depend on the whole frame, so only whole frames are compared.
Testing::EquivalenceSettings FastPathTolerance(int rows, int cols, std::vector<int> threadCounts) {
  return {rows, cols, {{"phase", 4}, {"modulation", 0}}, std::move(threadCounts), false};
}

Testing::ImageMaps MapsOf(const DoubleMatrix2D& phase, const DoubleMatrix2D& modulation) {
  return {std::vector<double>(phase.Data(), phase.Data() + phase.GetCount()),
          std::vector<double>(modulation.Data(), modulation.Data() + modulation.GetCount())};
}

// The phase and modulation of a run that must succeed.
Testing::ImageMaps RunMaps(KinephaseAlgorithm& kinephase) {
  DoubleMatrix2D phase, modulation;
  kinephase.Process(phase, modulation);
  EXPECT_TRUE(kinephase.GetStatus().IsOk()) << kinephase.GetStatus().GetPrintString();
  return MapsOf(phase, modulation);
}

class RecoveryTest : public ::testing::TestWithParam<std::tuple<int, FrameCase>> {};

// The surface phase comes back from fringes whose carrier lies in each quadrant, when the kernel
// of that quadrant is selected: within the noise the filter lets through plus the method's own
// error, and with the modulation the filter's lobe gain predicts. Sizes that are not multiples of
// the period put the lobe between bins and give the carrier removal a constant offset. The
// opposite quadrant keeps the conjugate lobe: the same fringes read as -phi. The fast path, on 2 to
// 5 threads by quadrant, matches the plain reference on one.
TEST_P(RecoveryTest, SmoothPhaseFromCarrierFringesOfEachQuadrant) {
  const auto [quadrant, f] = GetParam();
  Testing::SeededRandom random(1000 + quadrant * 10 + f.pixelsPerFringe);
  SCOPED_TRACE(random.Describe());
  Testing::CarrierScene scene = SmoothScene(f.rows, f.cols, f.noise, quadrant);
  scene.pixelsPerFringe = f.pixelsPerFringe;
  scene.bias = f.bias;
  scene.modulation = f.amplitude;
  FrameBuffer frames = FrameOf(f.rows, f.cols, scene, &random, f.resolution);

  KinephaseAlgorithm kinephase;
  kinephase.SelectKernel(KpKernelSelector(f.pixelsPerFringe, quadrant));
  kinephase.SetModulationThreshold(10.0);
  KinephaseAlgorithm reference(kinephase);
  kinephase.SetNumberOfThreads(quadrant + 1);
  kinephase.SetIntensity(frames, 0);
  DoubleMatrix2D phase, modulation;
  kinephase.Process(phase, modulation);
  ASSERT_TRUE(kinephase.GetStatus().IsOk()) << kinephase.GetStatus().GetPrintString();
  ASSERT_EQ(phase.GetRows(), f.rows);
  ASSERT_EQ(modulation.GetColumns(), f.cols);
  reference.SetUseFastPath(false);
  reference.SetAllowMultiThreads(false);
  reference.SetIntensity(frames, 0);
  Testing::CheckImageEquivalence(
      FastPathTolerance(f.rows, f.cols, {quadrant + 1}), [&](const Window2D&) { return RunMaps(reference); },
      [&](const Window2D&, int) { return MapsOf(phase, modulation); });

  // The low-memory run computes the filter in the column pass and gives the transform's memory
  // back as it goes: the same maps to the bit, and the filter it is asked for afterwards is the one
  // the default run stored.
  KinephaseAlgorithm lowMemory(reference);
  lowMemory.SetUseFastPath(true);
  lowMemory.SetNumberOfThreads(quadrant + 1);
  lowMemory.SetLowMemory(true);
  Testing::CheckImageEquivalence(
      {f.rows, f.cols, {{"phase", 0}, {"modulation", 0}}, {quadrant + 1}, false},
      [&](const Window2D&) { return MapsOf(phase, modulation); },
      [&](const Window2D&, int) { return RunMaps(lowMemory); });
  DoubleMatrix2D filter, lowMemoryFilter;
  kinephase.GetFilter(filter);
  lowMemory.GetFilter(lowMemoryFilter);
  ASSERT_EQ(lowMemoryFilter.GetCount(), filter.GetCount());
  EXPECT_EQ(std::memcmp(lowMemoryFilter.Data(), filter.Data(), sizeof(double) * filter.GetCount()), 0);

  const Comparison c = Compare(phase, modulation, scene.phase, kBorder);
  const double noise = PredictedPhaseNoise(kinephase, f.noise, f.amplitude);
  const double bound = 1.2 * std::hypot(noise, kMethodErrorRad);
  EXPECT_EQ(c.invalid, 0) << "every interior pixel is well modulated";
  EXPECT_LT(c.rms, bound) << "predicted noise " << noise;
  // The mean modulation averages the noise of thousands of pixels: 1 % is many standard errors.
  EXPECT_NEAR(c.modulationMean, kLobeGain * f.amplitude, 0.01 * f.amplitude);

  KinephaseAlgorithm opposite;
  opposite.SelectKernel(KpKernelSelector(f.pixelsPerFringe, (quadrant + 1) % 4 + 1));
  opposite.SetIntensity(frames, 0);
  opposite.Process(phase, modulation);
  ASSERT_TRUE(opposite.GetStatus().IsOk());
  EXPECT_LT(Compare(phase, modulation, scene.phase, kBorder, -1.0).rms, bound);
}

INSTANTIATE_TEST_SUITE_P(Quadrants, RecoveryTest,
                         ::testing::Combine(::testing::Values(1, 2, 3, 4), ::testing::ValuesIn(kFrames)),
                         [](const auto& info) {
                           std::string name = std::get<1>(info.param).name;
                           name.insert(0, "Q0_");
                           name[1] = static_cast<char>('0' + std::get<0>(info.param));
                           return name;
                         });

// A 128 x 128 scene with a dark obscuration of radius 18 around (60, 70).
constexpr int kSide = 128;
bool Obscured(int r, int c) {
  return std::hypot(r - 60.0, c - 70.0) < 18.0;
}
FrameBuffer ObscuredFrame(Testing::SeededRandom& random) {
  Testing::CarrierScene scene = SmoothScene(kSide, kSide, 1.5);
  scene.obscured = Obscured;
  scene.obscuredLevel = 25.0;
  return FrameOf(kSide, kSide, scene, &random);
}

// A mask of the scene that leaves out the top left corner, the pixels with r + c < 40.
RegionIdMatrix2D CornerMask() {
  RegionIdMatrix2D mask(kSide, kSide);
  for (int r = 0; r < kSide; ++r) {
    for (int c = 0; c < kSide; ++c)
      mask(r, c) = r + c < 40 ? RegionIdMatrix2D::NoData() : 0;
  }
  return mask;
}

// An obscured frame with a mask. The obscuration is rejected by the threshold (what the trim does
// next to it is the controller's test); the filter smears its edge over a couple of fringes, and
// beyond 4 pixels from it the phase is as good as in a clear frame, hardly a pixel there lost.
// Threads share out rows (and the transform's rows and column blocks) with the same arithmetic
// whoever computes a pixel, so every thread count gives the single-threaded bits; the fast path
// matches the plain reference, here also through the trim and the mask, and on either path the
// phase asked for alone is that of the run with both maps.
TEST(KinephaseAlgorithmTest, ObscuredFrameThreadCountsAndTheReferencePath) {
  Testing::SeededRandom random(5);
  SCOPED_TRACE(random.Describe());
  FrameBuffer frames = ObscuredFrame(random);
  RegionIdMatrix2D mask = CornerMask();
  const auto run = [&](bool threads, int count, bool fast, DoubleMatrix2D& phase, DoubleMatrix2D& modulation,
                       bool lowMemory = false) {
    KinephaseAlgorithm kinephase;
    kinephase.SetAllowMultiThreads(threads);
    kinephase.SetNumberOfThreads(count);
    kinephase.SetUseFastPath(fast);
    kinephase.SetLowMemory(lowMemory);
    kinephase.SetModulationThreshold(25.0);  // 32 counts: 40 % of the filtered fringe modulation
    kinephase.SetIntensity(frames, 0, mask);
    kinephase.Process(phase, modulation);
    EXPECT_TRUE(kinephase.GetStatus().IsOk()) << kinephase.GetStatus().GetPrintString();
    // Asked for the phase alone, the pipeline makes no modulation map but still rejects by the
    // modulation: the phase of the run with both maps, to the bit.
    DoubleMatrix2D alone;
    kinephase.Process(alone);
    EXPECT_TRUE(kinephase.GetStatus().IsOk()) << kinephase.GetStatus().GetPrintString();
    EXPECT_TRUE(alone.GetCount() == phase.GetCount() &&
                std::memcmp(alone.Data(), phase.Data(), sizeof(double) * phase.GetCount()) == 0)
        << "the phase alone, " << count << " threads, " << (fast ? "fast" : "plain") << " path";
    return PredictedPhaseNoise(kinephase, 1.5, 80.0);
  };
  DoubleMatrix2D phase1, modulation1;
  const double noise = run(false, 1, true, phase1, modulation1);
  for (int r = 0; r < kSide; ++r) {
    for (int c = 0; c < kSide; ++c) {
      ASSERT_FALSE((Obscured(r, c) || r + c < 40) && DoubleMatrix2D::IsDataValid(phase1(r, c)))
          << r << "," << c;
    }
  }
  const auto away = [](int r, int c) { return std::hypot(r - 60.0, c - 70.0) > 18.0 + 4.0 && r + c >= 40; };
  const Comparison c = Compare(phase1, modulation1, SmoothPhase(kSide, kSide), kBorder, 1.0, away);
  EXPECT_LT(c.invalid, c.compared / 1000);
  EXPECT_LT(c.rms, 1.5 * std::hypot(noise, kMethodErrorRad));

  const auto fast = [&](const Window2D&, int count) {
    DoubleMatrix2D phase, modulation;
    run(true, count, true, phase, modulation, count % 2 == 1);
    return MapsOf(phase, modulation);
  };
  // Every thread count gives the single-threaded bits, also with low memory (odd counts).
  Testing::CheckImageEquivalence(
      {kSide, kSide, {{"phase", 0}, {"modulation", 0}}, {1, 2, 3, 7}, false},
      [&](const Window2D&) { return MapsOf(phase1, modulation1); }, fast);
  Testing::CheckImageEquivalence(
      FastPathTolerance(kSide, kSide, {1, 2}),
      [&](const Window2D&) {
        DoubleMatrix2D reference, referenceModulation;
        run(true, 2, false, reference, referenceModulation);
        return MapsOf(reference, referenceModulation);
      },
      fast);
}

// At 512 x 520 the transform's data (4.3 MB) is mapped from the kernel and spans three huge pages,
// so the low-memory run really gives pages back while its last pass runs, on one thread and on three
// (whose row ranges meet inside pages). Its maps are the default run's to the bit, and so are those
// of a second run on the same board, whose transform starts on the memory given back.
TEST(KinephaseAlgorithmTest, LowMemoryGivesTheSameMapsWhenTheTransformMemoryIsGivenBack) {
  const int rows = 512, cols = 520;
  Testing::SeededRandom random(31);
  SCOPED_TRACE(random.Describe());
  FrameBuffer frames = FrameOf(rows, cols, SmoothScene(rows, cols, 1.5), &random);
  // Estimated plans (a process-wide setting, put back after): measuring them would take a second.
  struct EstimatedPlans {
    EstimatedPlans() { Fft2D::SetPlanningEffort(Fft2D::PlanningEffort::kEstimate); }
    ~EstimatedPlans() { Fft2D::SetPlanningEffort(Fft2D::PlanningEffort::kMeasure); }
  } estimated;
  KinephaseAlgorithm kept;
  kept.SetModulationThreshold(10.0);
  kept.SetIntensity(frames, 0);
  const Testing::ImageMaps expected = RunMaps(kept);
  for (const int threads : {1, 3}) {
    KinephaseAlgorithm low(kept);
    low.SetLowMemory(true);
    low.SetNumberOfThreads(threads);
    for (int pass = 0; pass < 2; ++pass)
      EXPECT_TRUE(RunMaps(low) == expected) << threads << " threads, run " << pass;
  }
}

// The board keeps the frame as its 16-bit samples and converts them when a run needs them, as the
// fast path's transform loads its rows or once as a matrix for the plain path; a new frame drops
// the mask of the last. So: a masked run loses the corner; the same frame loaded again without a
// mask gets it back; runs on the loaded frame repeat to the bit whichever path ran in between, and
// the plain path matches the fast one as it does on a fresh board.
TEST(KinephaseAlgorithmTest, TheLoadedFrameServesEveryRunAndANewFrameDropsTheMask) {
  Testing::SeededRandom random(11);
  SCOPED_TRACE(random.Describe());
  Testing::CarrierScene scene = SmoothScene(kSide, kSide, 12.0);
  scene.bias = 2000.0;
  scene.modulation = 1500.0;
  FrameBuffer frames = FrameOf(kSide, kSide, scene, &random, FrameBuffer::kRes16Bit);
  RegionIdMatrix2D mask = CornerMask();
  const auto validInCorner = [](const std::vector<double>& phase) {
    if (phase.size() != static_cast<std::size_t>(kSide) * kSide) return -1;  // a failed run
    int count = 0;
    for (int r = 0; r < 40; ++r) {
      for (int c = 0; r + c < 40; ++c)
        count += DoubleMatrix2D::IsDataValid(phase[static_cast<std::size_t>(r * kSide + c)]) ? 1 : 0;
    }
    return count;
  };
  KinephaseAlgorithm kinephase;
  kinephase.SetModulationThreshold(10.0);
  kinephase.SetIntensity(frames, 0, mask);
  EXPECT_EQ(validInCorner(RunMaps(kinephase)[0]), 0);

  kinephase.SetIntensity(frames, 0);
  const Testing::ImageMaps fast = RunMaps(kinephase);
  // Away from the frame's edges (where the filter rings) the corner is well modulated.
  EXPECT_GT(validInCorner(fast[0]), 400);
  kinephase.SetUseFastPath(false);
  const Testing::ImageMaps plain = RunMaps(kinephase);
  kinephase.SetUseFastPath(true);
  EXPECT_TRUE(RunMaps(kinephase) == fast) << "the fast path again, after the plain one";
  Testing::CheckImageEquivalence(
      FastPathTolerance(kSide, kSide, {1}), [&](const Window2D&) { return plain; },
      [&](const Window2D&, int) { return fast; });
}

// Without the carrier removal the phase is that of the fringes themselves, phi + carrier; with the
// data sign +1 the phase is negated; the real and imaginary parts are the complex signal behind
// phase and modulation. A phase map in nanometres with a wavelength receives surface height (one
// radian is lambda / (4 pi)); a map whose unit is no phase or length is refused.
TEST(KinephaseAlgorithmTest, OutputConventions) {
  Testing::SeededRandom random(9);
  SCOPED_TRACE(random.Describe());
  const int rows = 64, cols = 77;
  const Testing::CarrierScene scene = SmoothScene(rows, cols, 1.0, 3);
  FrameBuffer frames = FrameOf(rows, cols, scene, &random);
  KinephaseAlgorithm kinephase;
  kinephase.SelectKernel(KpKernelSelector(4, KpQuadrant::Quadrant3));
  kinephase.SetIntensity(frames, 0);
  DoubleMatrix2D phase, modulation;
  kinephase.Process(phase, modulation);
  ASSERT_TRUE(kinephase.GetStatus().IsOk());
  const double bound = 1.2 * std::hypot(PredictedPhaseNoise(kinephase, 1.0, 80.0), kMethodErrorRad);
  EXPECT_LT(Compare(phase, modulation, scene.phase, kBorder).rms, bound);

  DoubleMatrix2D real, imaginary;
  kinephase.ProcessRealImag(real, imaginary);
  ASSERT_TRUE(kinephase.GetStatus().IsOk());
  ASSERT_EQ(imaginary.GetColumns(), cols);
  EXPECT_NEAR(2.0 * std::hypot(real(20, 30), imaginary(20, 30)), modulation(20, 30), 1e-9);
  EXPECT_NEAR(std::remainder(-std::atan2(imaginary(20, 30), real(20, 30)) - phase(20, 30), kTwoPi), 0.0,
              1e-12);

  kinephase.SetDataSign(1);
  kinephase.Process(phase, modulation);
  EXPECT_LT(Compare(phase, modulation, scene.phase, kBorder, -1.0).rms, bound);

  kinephase.SetDataSign(-1);
  kinephase.SetSubtractCarrier(false);
  kinephase.Process(phase, modulation);
  const auto withCarrier = [&](int r, int c) {
    return scene.phase(r, c) + Testing::CarrierPhase(3, 4.0, r, c);
  };
  EXPECT_LT(Compare(phase, modulation, withCarrier, kBorder).rms, bound);

  kinephase.SetSubtractCarrier(true);
  const double wavelengthNm = 632.8, nmPerRadian = wavelengthNm / (4.0 * std::numbers::pi);
  DoubleMatrix2D height;
  height.GetUnitManager().SetConverter(UnitAxis::kValue, LinearConverter(Units::kNanometers, wavelengthNm));
  kinephase.Process(height, modulation);
  ASSERT_TRUE(kinephase.GetStatus().IsOk());
  EXPECT_LT(Compare(height, modulation, scene.phase, kBorder, 1.0 / nmPerRadian).rms, bound);

  DoubleMatrix2D ramp;
  ramp.GetUnitManager().SetConverter(UnitAxis::kValue, LinearConverter(Units::kNanometersPerFrame));
  kinephase.Process(ramp);
  EXPECT_EQ(kinephase.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_EQ(kinephase.GetStatus().GetMessage(), "The phase map's unit cannot express a phase");
}

// A frame of zeros has a modulation of exactly 0, equal to a threshold of 0: every pixel is kept,
// also after a frame whose mask let none in.
// The threshold is clamped to [0, 100] percent and the trim's minimum to at least 0; the largest
// threshold (half the intensity range) rejects fringes of 80 counts, and a run without a valid
// pixel ends with code 1 and no message.
TEST(KinephaseAlgorithmTest, ThresholdsAndEmptyResults) {
  Testing::CarrierScene scene = SmoothScene(32, 48, 0.0);
  scene.bias = 0.0;
  scene.modulation = 0.0;
  FrameBuffer frames = FrameOf(32, 48, scene, nullptr);
  KinephaseAlgorithm kinephase;
  kinephase.SetModulationThreshold(-5.0);
  EXPECT_EQ(kinephase.GetModulationThreshold(), 0.0);
  kinephase.SetMinRegionSizeToTrim(-3);
  EXPECT_EQ(kinephase.GetMinRegionSizeToTrim(), 0);
  RegionIdMatrix2D nothingIn(32, 48);
  nothingIn.SetAll(RegionIdMatrix2D::NoData());
  kinephase.SetIntensity(frames, 0, nothingIn);
  kinephase.SetIntensity(frames, 0);  // a frame without a mask drops the earlier one
  DoubleMatrix2D phase, modulation;
  kinephase.Process(phase, modulation);
  ASSERT_TRUE(kinephase.GetStatus().IsOk());
  EXPECT_EQ(modulation(10, 10), 0.0);
  EXPECT_EQ(phase.CountValid(), 32 * 48);

  scene.bias = 110.0;
  scene.modulation = 80.0;
  frames = FrameOf(32, 48, scene, nullptr);
  kinephase.SetIntensity(frames, 0);
  kinephase.SetModulationThreshold(150.0);
  EXPECT_EQ(kinephase.GetModulationThreshold(), 100.0);
  EXPECT_EQ(kinephase.GetModulationThresholdInCounts(), 127.5);
  kinephase.Process(phase, modulation);
  EXPECT_EQ(kinephase.GetStatus().GetCode(), StatusCode::kNoValidResult);
  EXPECT_EQ(kinephase.GetStatus().GetMessage(), "");
  EXPECT_FALSE(phase.AnyValid());
}

// The facade keeps the filter while size and kernel stay; a different kernel invalidates it.
// A copy runs on its own board: changing the original's frame leaves the copy's result alone.
TEST(KinephaseAlgorithmTest, KernelSelectionAndCopies) {
  Testing::SeededRandom random(21);
  SCOPED_TRACE(random.Describe());
  Testing::CarrierScene scene = SmoothScene(48, 64, 1.0);
  FrameBuffer frames = FrameOf(48, 64, scene, &random);
  scene.phase = [](int, int) { return 0.0; };
  FrameBuffer flat = FrameOf(48, 64, scene, &random);

  KinephaseAlgorithm kinephase;
  kinephase.SelectKernel(KpKernelSelector(5, KpQuadrant::Quadrant2));
  kinephase.SetIntensity(frames, 0);
  DoubleMatrix2D phase;
  kinephase.Process(phase);
  EXPECT_TRUE(kinephase.GetFilterValid());
  kinephase.SelectKernel(KpKernelSelector(5, KpQuadrant::Quadrant2));
  EXPECT_TRUE(kinephase.GetFilterValid()) << "the same kernel again";
  kinephase.SelectKernel(KpKernelSelector(4, KpQuadrant::Quadrant2));
  EXPECT_FALSE(kinephase.GetFilterValid());
  kinephase.Process(phase);

  KinephaseAlgorithm copy(kinephase);
  kinephase.SetIntensity(flat, 0);
  DoubleMatrix2D copyPhase;
  copy.Process(copyPhase);
  ASSERT_TRUE(copy.GetStatus().IsOk());
  EXPECT_EQ(std::memcmp(copyPhase.Data(), phase.Data(), sizeof(double) * phase.GetCount()), 0);
  kinephase.Process(phase);
  EXPECT_GT(std::abs(phase(10, 10) - copyPhase(10, 10)), 0.1) << "the original now sees the flat phase";
}

TEST(KinephaseAlgorithmTest, BadInputsAreReported) {
  KinephaseAlgorithm kinephase;
  DoubleMatrix2D phase;
  FrameBuffer frames;
  frames.Allocate(Window2D(0, 0, 16, 20), 1, FrameBuffer::kRes8Bit);
  kinephase.SetIntensity(frames, 1);
  EXPECT_EQ(kinephase.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_EQ(kinephase.GetStatus().GetMessage(), "Frame 1 is not in the frame buffer (1 frames)");

  RegionIdMatrix2D mask(16, 21);
  kinephase.SetIntensity(frames, 0, mask);
  EXPECT_EQ(kinephase.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_EQ(kinephase.GetStatus().GetMessage(), "The mask (16 x 21) does not match the frame (16 x 20)");

  kinephase.SelectKernel(KpKernelSelector(0, KpQuadrant::Quadrant1));
  for (const bool lowMemory : {false, true}) {
    kinephase.GetStatus().ClearError();
    kinephase.SetLowMemory(lowMemory);
    kinephase.Process(phase);
    EXPECT_EQ(kinephase.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
    EXPECT_EQ(kinephase.GetStatus().GetMessage(), "The pixels per fringe must be at least 1, not 0");
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase

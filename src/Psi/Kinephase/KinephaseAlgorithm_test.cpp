#include "Psi/Kinephase/KinephaseAlgorithm.h"

#include <cmath>
#include <cstring>
#include <functional>
#include <numbers>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/Units.h"
#include "Testing/SeededRandom.h"
#include "Testing/SyntheticCarrier.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {
namespace {

using Analysis::Core::DoubleMatrix2D;
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
  double rms = 0.0;     // after removing the mean difference (a constant the method cannot know)
  double piston = 0.0;  // that mean
  std::int64_t compared = 0;
  std::int64_t invalid = 0;  // pixels of the compared area without data
  double modulationMean = 0.0;
};

// Compares sign x phase with the truth over the pixels at least `border` from the frame edge for
// which `include(r, c)` holds.
Comparison Compare(const DoubleMatrix2D& phase, const DoubleMatrix2D& modulation,
                   const std::function<double(int, int)>& truth, int border, double sign = 1.0,
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
      const double e = std::remainder(sign * phase(r, c) - truth(r, c), kTwoPi);
      sum += e;
      sumSquares += e * e;
      modulationSum += modulation.GetCount() ? modulation(r, c) : 0.0;
      ++result.compared;
    }
  }
  if (result.compared == 0) return result;
  const double n = static_cast<double>(result.compared);
  result.piston = sum / n;
  result.rms = std::sqrt(std::max(0.0, sumSquares / n - result.piston * result.piston));
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

FrameBuffer MakeFrame(const FrameCase& f, const Testing::CarrierScene& scene, Testing::SeededRandom& random) {
  FrameBuffer frames;
  frames.Allocate(Window2D(0, 0, f.rows, f.cols), 1, f.resolution);
  if (f.resolution == FrameBuffer::kRes16Bit) frames.SetMaxValue(4095);
  Testing::FillCarrierFrame(frames, 0, scene, &random);
  return frames;
}

class RecoveryTest : public ::testing::TestWithParam<std::tuple<int, FrameCase>> {};

// The surface phase comes back from fringes whose carrier lies in each quadrant, when the kernel
// of that quadrant is selected: within the noise the filter lets through plus the method's own
// error, and with the modulation the filter's lobe gain predicts. Sizes that are not multiples of
// the period put the lobe between bins and give the carrier removal a constant offset.
TEST_P(RecoveryTest, SmoothPhaseFromCarrierFringesOfEachQuadrant) {
  const auto [quadrant, f] = GetParam();
  Testing::SeededRandom random(1000 + quadrant * 10 + f.pixelsPerFringe);
  SCOPED_TRACE(random.Describe());
  Testing::CarrierScene scene;
  scene.phase = SmoothPhase(f.rows, f.cols);
  scene.quadrant = quadrant;
  scene.pixelsPerFringe = f.pixelsPerFringe;
  scene.bias = f.bias;
  scene.modulation = f.amplitude;
  scene.noiseSigma = f.noise;
  FrameBuffer frames = MakeFrame(f, scene, random);

  KinephaseAlgorithm kinephase;
  kinephase.SelectKernel(KpKernelSelector(f.pixelsPerFringe, quadrant));
  kinephase.SetModulationThreshold(10.0);
  kinephase.SetIntensity(frames, 0);
  DoubleMatrix2D phase, modulation;
  kinephase.Process(phase, modulation);
  ASSERT_TRUE(kinephase.GetStatus().IsOk()) << kinephase.GetStatus().GetPrintString();
  ASSERT_EQ(phase.GetRows(), f.rows);
  ASSERT_EQ(modulation.GetColumns(), f.cols);

  const Comparison c = Compare(phase, modulation, scene.phase, kBorder);
  const double noise = PredictedPhaseNoise(kinephase, f.noise, f.amplitude);
  EXPECT_EQ(c.invalid, 0) << "every interior pixel is well modulated";
  EXPECT_LT(c.rms, 1.2 * std::hypot(noise, kMethodErrorRad)) << "predicted noise " << noise;
  // The mean modulation averages the noise of thousands of pixels: 1 % is many standard errors.
  EXPECT_NEAR(c.modulationMean, kLobeGain * f.amplitude, 0.01 * f.amplitude);

  // The opposite quadrant keeps the conjugate lobe: the same fringes read as -phi.
  KinephaseAlgorithm opposite;
  opposite.SelectKernel(KpKernelSelector(f.pixelsPerFringe, (quadrant + 1) % 4 + 1));
  opposite.SetIntensity(frames, 0);
  opposite.Process(phase, modulation);
  ASSERT_TRUE(opposite.GetStatus().IsOk());
  EXPECT_LT(Compare(phase, modulation, scene.phase, kBorder, -1.0).rms,
            1.2 * std::hypot(noise, kMethodErrorRad));
}

INSTANTIATE_TEST_SUITE_P(Quadrants, RecoveryTest,
                         ::testing::Combine(::testing::Values(1, 2, 3, 4), ::testing::ValuesIn(kFrames)),
                         [](const auto& info) {
                           std::string name = std::get<1>(info.param).name;
                           name.insert(0, "Q0_");
                           name[1] = static_cast<char>('0' + std::get<0>(info.param));
                           return name;
                         });

// A scene with a dark obscuration: its pixels must be rejected by the threshold, the rim next to
// it trimmed, and the phase elsewhere as good as without it.
struct ObscuredScene {
  static constexpr int kRows = 128, kCols = 128;
  static bool Obscured(int r, int c) { return std::hypot(r - 60.0, c - 70.0) < 18.0; }
  Testing::CarrierScene scene;
  ObscuredScene() {
    scene.phase = SmoothPhase(kRows, kCols);
    scene.noiseSigma = 1.5;
    scene.obscured = Obscured;
    scene.obscuredLevel = 25.0;
  }
};

TEST(KinephaseAlgorithmTest, ObscuredAreaIsRejectedAndItsRimTrimmed) {
  Testing::SeededRandom random(77);
  SCOPED_TRACE(random.Describe());
  const ObscuredScene s;
  FrameBuffer frames;
  frames.Allocate(Window2D(0, 0, s.kRows, s.kCols), 1, FrameBuffer::kRes8Bit);
  Testing::FillCarrierFrame(frames, 0, s.scene, &random);
  const auto run = [&](int minRegion, DoubleMatrix2D& phase, DoubleMatrix2D& modulation) {
    KinephaseAlgorithm kinephase;
    kinephase.SetModulationThreshold(25.0);  // 32 counts: 40 % of the filtered fringe modulation
    kinephase.SetMinRegionSizeToTrim(minRegion);
    kinephase.SetIntensity(frames, 0);
    kinephase.Process(phase, modulation);
    ASSERT_TRUE(kinephase.GetStatus().IsOk()) << kinephase.GetStatus().GetPrintString();
  };
  DoubleMatrix2D phase, modulation, untrimmed, untrimmedModulation;
  run(10, phase, modulation);
  run(s.kRows * s.kCols + 1, untrimmed, untrimmedModulation);  // no hole is that large: no trim

  std::int64_t rim = 0;
  for (int r = 1; r < s.kRows - 1; ++r) {
    for (int c = 1; c < s.kCols - 1; ++c) {
      if (ObscuredScene::Obscured(r, c)) {
        ASSERT_TRUE(DoubleMatrix2D::IsNoData(phase(r, c))) << "obscured pixel " << r << "," << c << " kept";
        continue;
      }
      // Valid phase touching the rejected part of the obscuration is trimmed; nothing else is lost.
      bool touches = false;
      for (int dr = -1; dr <= 1; ++dr) {
        for (int dc = -1; dc <= 1; ++dc) {
          touches = touches || (ObscuredScene::Obscured(r + dr, c + dc) &&
                                DoubleMatrix2D::IsNoData(untrimmed(r + dr, c + dc)));
        }
      }
      if (touches && DoubleMatrix2D::IsDataValid(untrimmed(r, c))) {
        ASSERT_TRUE(DoubleMatrix2D::IsNoData(phase(r, c))) << "rim pixel " << r << "," << c << " kept";
        ++rim;
      }
      if (std::hypot(r - 60.0, c - 70.0) > 18.0 + 2.0) {
        ASSERT_EQ(phase(r, c), untrimmed(r, c));
      }
    }
  }
  EXPECT_GT(rim, 50) << "the threshold alone leaves a rim around the obscuration";

  // The filter smears the edge of the obscuration over a couple of fringes; beyond 4 pixels from
  // it the phase is as good as in a clear frame, and hardly a pixel there is lost.
  const auto away = [](int r, int c) { return std::hypot(r - 60.0, c - 70.0) > 18.0 + 4.0; };
  const Comparison c = Compare(phase, modulation, s.scene.phase, kBorder, 1.0, away);
  KinephaseAlgorithm reference;
  reference.SetIntensity(frames, 0);
  reference.Process(untrimmed);
  const double noise = PredictedPhaseNoise(reference, 1.5, s.scene.modulation);
  EXPECT_LT(c.invalid, c.compared / 1000);
  EXPECT_LT(c.rms, 1.5 * std::hypot(noise, kMethodErrorRad));
}

// Threads share out rows (and the transform's rows and column blocks); the arithmetic of every
// pixel is the same whoever computes it, so phase and modulation must be bit-identical.
TEST(KinephaseAlgorithmTest, EveryThreadCountGivesTheSingleThreadedBits) {
  Testing::SeededRandom random(5);
  SCOPED_TRACE(random.Describe());
  const ObscuredScene s;
  FrameBuffer frames;
  frames.Allocate(Window2D(0, 0, s.kRows, s.kCols), 1, FrameBuffer::kRes8Bit);
  Testing::FillCarrierFrame(frames, 0, s.scene, &random);
  RegionIdMatrix2D mask(s.kRows, s.kCols);
  for (int r = 0; r < s.kRows; ++r) {
    for (int c = 0; c < s.kCols; ++c)
      mask(r, c) = r + c < 40 ? RegionIdMatrix2D::NoData() : 0;
  }
  const auto run = [&](bool threads, int count, DoubleMatrix2D& phase, DoubleMatrix2D& modulation) {
    KinephaseAlgorithm kinephase;
    kinephase.SetAllowMultiThreads(threads);
    kinephase.SetNumberOfThreads(count);
    kinephase.SetModulationThreshold(25.0);
    kinephase.SetIntensity(frames, 0, mask);
    kinephase.Process(phase, modulation);
    ASSERT_TRUE(kinephase.GetStatus().IsOk());
  };
  DoubleMatrix2D phase1, modulation1;
  run(false, 1, phase1, modulation1);
  for (const int count : {1, 2, 3, 7}) {
    DoubleMatrix2D phase, modulation;
    run(true, count, phase, modulation);
    ASSERT_EQ(std::memcmp(phase.Data(), phase1.Data(), sizeof(double) * phase1.GetCount()), 0) << count;
    ASSERT_EQ(std::memcmp(modulation.Data(), modulation1.Data(), sizeof(double) * modulation1.GetCount()), 0)
        << count;
  }
  // The mask took its corner.
  EXPECT_TRUE(DoubleMatrix2D::IsNoData(phase1(5, 5)));
  EXPECT_TRUE(DoubleMatrix2D::IsDataValid(phase1(40, 40)));
}

// Distance in units in the last place between two doubles of the same sign.
std::int64_t UlpDistance(double a, double b) {
  std::int64_t ia, ib;
  std::memcpy(&ia, &a, sizeof a);
  std::memcpy(&ib, &b, sizeof b);
  return ia > ib ? ia - ib : ib - ia;
}

// The vector phase extraction against the one-pixel-at-a-time reference, on a width that leaves a
// tail of three pixels per row: modulation and validity bit for bit, the phase within the 2 ulp
// by which SLEEF's and libm's atan2 may differ (the scale adds none: it is applied alike).
TEST(KinephaseAlgorithmTest, FastPathMatchesTheReference) {
  Testing::SeededRandom random(17);
  SCOPED_TRACE(random.Describe());
  const int rows = 61, cols = 79;
  Testing::CarrierScene scene;
  scene.phase = SmoothPhase(rows, cols);
  scene.noiseSigma = 2.0;
  scene.obscured = [](int r, int c) { return r > 20 && r < 35 && c > 30 && c < 50; };
  FrameBuffer frames;
  frames.Allocate(Window2D(0, 0, rows, cols), 1, FrameBuffer::kRes8Bit);
  Testing::FillCarrierFrame(frames, 0, scene, &random);
  DoubleMatrix2D phase[2], modulation[2];
  for (const bool fast : {false, true}) {
    KinephaseAlgorithm kinephase;
    kinephase.SetUseFastPath(fast);
    kinephase.SetModulationThreshold(20.0);
    kinephase.SetIntensity(frames, 0);
    kinephase.Process(phase[fast], modulation[fast]);
    ASSERT_TRUE(kinephase.GetStatus().IsOk());
  }
  std::int64_t rejected = 0;
  for (std::int64_t i = 0; i < phase[0].GetCount(); ++i) {
    ASSERT_EQ(modulation[1].At(i), modulation[0].At(i)) << "pixel " << i;
    ASSERT_EQ(DoubleMatrix2D::IsNoData(phase[1].At(i)), DoubleMatrix2D::IsNoData(phase[0].At(i)))
        << "pixel " << i;
    if (DoubleMatrix2D::IsNoData(phase[0].At(i))) {
      ++rejected;
      continue;
    }
    if (std::abs(phase[0].At(i)) < 1e-300) continue;  // zero against a tiny number of either sign
    ASSERT_LE(UlpDistance(phase[1].At(i), phase[0].At(i)), 2) << "pixel " << i << ": " << phase[0].At(i);
  }
  EXPECT_GT(rejected, 14 * 19) << "the obscured block is rejected in both";
}

// Without the carrier removal the phase is that of the fringes themselves, phi + carrier; with the
// data sign +1 the phase is negated; the real and imaginary parts are the complex signal behind
// phase and modulation.
TEST(KinephaseAlgorithmTest, CarrierSignAndComplexOutputsAgree) {
  Testing::SeededRandom random(9);
  SCOPED_TRACE(random.Describe());
  const int rows = 64, cols = 80;
  Testing::CarrierScene scene;
  scene.phase = SmoothPhase(rows, cols);
  scene.quadrant = 3;
  scene.noiseSigma = 1.0;
  FrameBuffer frames;
  frames.Allocate(Window2D(0, 0, rows, cols), 1, FrameBuffer::kRes8Bit);
  Testing::FillCarrierFrame(frames, 0, scene, &random);
  KinephaseAlgorithm kinephase;
  kinephase.SelectKernel(KpKernelSelector(4, KpQuadrant::Quadrant3));
  kinephase.SetIntensity(frames, 0);
  DoubleMatrix2D phase, modulation;
  kinephase.Process(phase, modulation);
  ASSERT_TRUE(kinephase.GetStatus().IsOk());
  const double noise = PredictedPhaseNoise(kinephase, 1.0, scene.modulation);
  const double bound = 1.2 * std::hypot(noise, kMethodErrorRad);

  DoubleMatrix2D real, imaginary;
  kinephase.ProcessRealImag(real, imaginary);
  ASSERT_TRUE(kinephase.GetStatus().IsOk());
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      ASSERT_NEAR(2.0 * std::hypot(real(r, c), imaginary(r, c)), modulation(r, c), 1e-9);
      ASSERT_NEAR(std::remainder(-std::atan2(imaginary(r, c), real(r, c)) - phase(r, c), kTwoPi), 0.0, 1e-12);
    }
  }

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
}

// A phase map in nanometres with a wavelength receives surface height: one radian is
// lambda / (4 pi). A map whose unit is no phase or length is refused.
TEST(KinephaseAlgorithmTest, PhaseMapUnitsScaleThePhase) {
  Testing::SeededRandom random(13);
  SCOPED_TRACE(random.Describe());
  const int rows = 64, cols = 64;
  Testing::CarrierScene scene;
  scene.phase = SmoothPhase(rows, cols);
  scene.noiseSigma = 1.0;
  FrameBuffer frames;
  frames.Allocate(Window2D(0, 0, rows, cols), 1, FrameBuffer::kRes8Bit);
  Testing::FillCarrierFrame(frames, 0, scene, &random);
  KinephaseAlgorithm kinephase;
  kinephase.SetIntensity(frames, 0);
  DoubleMatrix2D height, modulation;
  const double wavelengthNm = 632.8, nmPerRadian = wavelengthNm / (4.0 * std::numbers::pi);
  height.GetUnitManager().SetConverter(UnitAxis::kValue, LinearConverter(Units::kNanometers, wavelengthNm));
  kinephase.Process(height, modulation);
  ASSERT_TRUE(kinephase.GetStatus().IsOk());
  const auto truthNm = [&](int r, int c) { return scene.phase(r, c) * nmPerRadian; };
  double sumSquares = 0.0;
  int n = 0;
  for (int r = kBorder; r < rows - kBorder; ++r) {
    for (int c = kBorder; c < cols - kBorder; ++c) {
      sumSquares += std::pow(height(r, c) - truthNm(r, c), 2);
      ++n;
    }
  }
  const double noise = PredictedPhaseNoise(kinephase, 1.0, scene.modulation);
  EXPECT_LT(std::sqrt(sumSquares / n), 1.2 * std::hypot(noise, kMethodErrorRad) * nmPerRadian);

  DoubleMatrix2D ramp;
  ramp.GetUnitManager().SetConverter(UnitAxis::kValue, LinearConverter(Units::kNanometersPerFrame));
  kinephase.Process(ramp);
  EXPECT_EQ(kinephase.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_EQ(kinephase.GetStatus().GetMessage(), "The phase map's unit cannot express a phase");
}

// Threshold 0 keeps every pixel, even where nothing is modulated; the largest threshold (a
// request of 150 % is stored as 100 %, half the intensity range) rejects fringes of 80 counts, and
// a run without a valid pixel ends with code 1 and no message. An undefined orientation has a zero
// filter and nothing passes any positive threshold.
TEST(KinephaseAlgorithmTest, ThresholdsAndEmptyResults) {
  FrameBuffer flat;
  flat.Allocate(Window2D(0, 0, 32, 48), 1, FrameBuffer::kRes8Bit);
  Testing::CarrierScene scene;
  scene.phase = SmoothPhase(32, 48);
  scene.modulation = 0.0;  // no fringes at all
  Testing::FillCarrierFrame(flat, 0, scene);
  KinephaseAlgorithm kinephase;
  kinephase.SetIntensity(flat, 0);
  DoubleMatrix2D phase, modulation;
  kinephase.Process(phase, modulation);
  ASSERT_TRUE(kinephase.GetStatus().IsOk());
  EXPECT_EQ(phase.CountValid(), 32 * 48);
  EXPECT_LT(modulation(10, 10), 1e-9);

  FrameBuffer fringes;
  fringes.Allocate(Window2D(0, 0, 32, 48), 1, FrameBuffer::kRes8Bit);
  scene.modulation = 80.0;
  Testing::FillCarrierFrame(fringes, 0, scene);
  kinephase.SetIntensity(fringes, 0);
  kinephase.SetModulationThreshold(150.0);
  EXPECT_EQ(kinephase.GetModulationThreshold(), 100.0);
  EXPECT_EQ(kinephase.GetModulationThresholdInCounts(), 127.5);
  kinephase.Process(phase, modulation);
  EXPECT_EQ(kinephase.GetStatus().GetCode(), StatusCode::kNoValidResult);
  EXPECT_EQ(kinephase.GetStatus().GetMessage(), "");
  EXPECT_FALSE(phase.AnyValid());

  KinephaseAlgorithm undefined;
  undefined.SelectKernel(KpKernelSelector(4, KpQuadrant::Undefined));
  undefined.SetModulationThreshold(1.0);
  undefined.SetIntensity(fringes, 0);
  undefined.Process(phase, modulation);
  EXPECT_EQ(undefined.GetStatus().GetCode(), StatusCode::kNoValidResult);
  EXPECT_EQ(modulation(16, 24), 0.0);
}

// The facade keeps the filter while size and kernel stay; a different kernel invalidates it.
// A copy runs on its own board: changing the original's frame leaves the copy's result alone.
TEST(KinephaseAlgorithmTest, KernelSelectionAndCopies) {
  Testing::SeededRandom random(21);
  SCOPED_TRACE(random.Describe());
  Testing::CarrierScene scene;
  scene.phase = SmoothPhase(48, 64);
  scene.noiseSigma = 1.0;
  FrameBuffer frames;
  frames.Allocate(Window2D(0, 0, 48, 64), 2, FrameBuffer::kRes8Bit);
  Testing::FillCarrierFrame(frames, 0, scene, &random);
  scene.phase = [](int, int) { return 0.0; };
  Testing::FillCarrierFrame(frames, 1, scene, &random);

  KinephaseAlgorithm kinephase;
  EXPECT_FALSE(kinephase.GetFilterValid());
  kinephase.SetIntensity(frames, 0);
  DoubleMatrix2D phase, modulation;
  kinephase.Process(phase, modulation);
  EXPECT_TRUE(kinephase.GetFilterValid());
  kinephase.SelectKernel(KpKernelSelector(4, KpQuadrant::Quadrant2));  // the default again
  EXPECT_TRUE(kinephase.GetFilterValid());
  kinephase.SelectKernel(KpKernelSelector(5, KpQuadrant::Quadrant2));
  EXPECT_FALSE(kinephase.GetFilterValid());
  kinephase.SelectKernel(KpKernelSelector(4, KpQuadrant::Quadrant2));
  kinephase.Process(phase, modulation);
  EXPECT_TRUE(kinephase.GetFilterValid());

  KinephaseAlgorithm copy(kinephase);
  kinephase.SetIntensity(frames, 1);  // the flat phase
  DoubleMatrix2D copyPhase, copyModulation;
  copy.Process(copyPhase, copyModulation);
  ASSERT_TRUE(copy.GetStatus().IsOk());
  EXPECT_EQ(std::memcmp(copyPhase.Data(), phase.Data(), sizeof(double) * phase.GetCount()), 0);
  kinephase.Process(phase, modulation);
  EXPECT_GT(std::abs(phase(10, 10) - copyPhase(10, 10)), 0.1) << "the original now sees the flat phase";
}

TEST(KinephaseAlgorithmTest, BadInputsAreReported) {
  KinephaseAlgorithm kinephase;
  DoubleMatrix2D phase(3, 3);
  phase.SetAll(1.0);
  kinephase.Process(phase);
  EXPECT_EQ(kinephase.GetStatus().GetCode(), StatusCode::kNotSet);
  EXPECT_EQ(kinephase.GetStatus().GetMessage(), "The width is undefined");
  EXPECT_EQ(kinephase.GetStatus().GetFile(), "Psi\\Kinephase\\KpController");
  EXPECT_EQ(phase.GetRows(), 3) << "nothing is written by a failed run";
  EXPECT_EQ(phase(1, 1), 1.0);

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
  kinephase.Process(phase);
  EXPECT_EQ(kinephase.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_EQ(kinephase.GetStatus().GetMessage(), "The pixels per fringe must be at least 1, not 0");
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase

#include "Psi/ConverterGenerator.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Psi/Convert13.h"
#include "Psi/Convert20.h"
#include "Psi/Convert7.h"
#include "Psi/ConvertSliding13.h"
#include "Testing/SeededRandom.h"
#include "Testing/SyntheticPsi.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {
namespace {

using Analysis::Core::Array;
using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::FrameBuffer;
using Analysis::Core::LinearConverter;
using Analysis::Core::UnitAxis;
using Analysis::Core::UnitManager;
using Analysis::Core::Window2D;
namespace StatusCode = Analysis::Core::StatusCode;
namespace Units = Analysis::Core::Units;

constexpr double kNoData = Analysis::Core::kNoDataDouble;

double WrapToPi(double a) {
  return std::remainder(a, 2.0 * std::numbers::pi);
}

// Distance in units in the last place between two finite doubles of the same sign region.
std::int64_t UlpDistance(double a, double b) {
  if (a == b) return 0;
  std::int64_t ia, ib;
  std::memcpy(&ia, &a, sizeof a);
  std::memcpy(&ib, &b, sizeof b);
  if (ia < 0) ia = INT64_MIN - ia;
  if (ib < 0) ib = INT64_MIN - ib;
  return ia > ib ? ia - ib : ib - ia;
}

struct AlgorithmCase {
  std::string name;
  int frames;
  std::function<std::unique_ptr<Converter, void (*)(Converter*)>()> make;
  std::function<std::vector<double>()> shifts;
};

void PrintTo(const AlgorithmCase& c, std::ostream* os) {
  *os << c.name;
}

template <typename T>
std::unique_ptr<Converter, void (*)(Converter*)> Make() {
  return {new T(), [](Converter* c) { delete static_cast<T*>(c); }};
}

std::vector<AlgorithmCase> Algorithms() {
  return {{"Convert7", 7, Make<Convert7>, [] { return Testing::ShiftsFor7(); }},
          {"Convert13", 13, Make<Convert13>, [] { return Testing::ShiftsFor13(); }},
          {"Convert20", 20, Make<Convert20>, [] { return Testing::ShiftsFor20(); }},
          {"Sliding13x24", 24, Make<ConvertSliding13>, [] { return Testing::ShiftsForSliding13(24); }}};
}

// The tilted sphere every accuracy test looks at: a few fringes of tilt plus defocus.
double SurfacePhase(int row, int col, int rows, int cols) {
  const double x = (col - cols / 2.0) / cols;
  const double y = (row - rows / 2.0) / rows;
  return 2.0 * std::numbers::pi * (3.0 * x - 1.5 * y + 4.0 * (x * x + y * y));
}

// The largest wrapped difference between a phase map and the sphere; infinite if a pixel is no-data.
double WorstSurfaceError(const DoubleMatrix2D& phase) {
  const int rows = phase.GetRows(), cols = phase.GetColumns();
  double worst = 0.0;
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      if (phase(r, c) == kNoData) return INFINITY;
      worst = std::max(worst, std::abs(WrapToPi(phase(r, c) - SurfacePhase(r, c, rows, cols))));
    }
  }
  return worst;
}

class GeneratorAccuracyTest : public ::testing::TestWithParam<AlgorithmCase> {};

TEST_P(GeneratorAccuracyTest, RecoversAKnownSurfaceFromACameraStack) {
  const AlgorithmCase& algorithm = GetParam();
  const int rows = 48, cols = 64;
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, rows, cols), algorithm.frames, FrameBuffer::kRes8Bit));
  // Fringes at 40 % of the camera range on a bias of half the range; 8-bit samples round to 1/100
  // of the amplitude, which bounds the phase error of a single frame near 0.005 rad.
  const double range = frames.GetMaxValue();
  Testing::FillPsiStack(frames, algorithm.shifts(), [&](int r, int c) {
    return Testing::PixelFringe{0.5 * range, 0.4 * range, SurfacePhase(r, c, rows, cols)};
  });
  auto converter = algorithm.make();
  ConverterGenerator generator;
  generator.SetAlgorithm(converter.get());
  DoubleMatrix2D phase(rows, cols), modulation(rows, cols);
  generator.Process(frames, phase, &modulation);
  ASSERT_TRUE(generator.GetStatus().IsOk()) << generator.GetStatus().GetPrintString();
  EXPECT_LT(WorstSurfaceError(phase), 0.01);
}

INSTANTIATE_TEST_SUITE_P(AllAlgorithms, GeneratorAccuracyTest, ::testing::ValuesIn(Algorithms()),
                         [](const auto& info) { return info.param.name; });

TEST(ConverterGeneratorTest, SaturatedAndLowModulationPixelsAreNoDataInBothMaps) {
  const int rows = 20, cols = 30;
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, rows, cols), 13, FrameBuffer::kRes8Bit));
  // Left third: bright enough to clip at 255; middle: amplitude 5 (modulation ~10 counts, below the
  // default 15 % of 255 = 38); right: well modulated.
  Testing::FillPsiStack(frames, Testing::ShiftsFor13(), [&](int r, int c) {
    const double amplitude = c < 10 ? 100.0 : c < 20 ? 5.0 : 80.0;
    const double bias = c < 10 ? 200.0 : 120.0;
    return Testing::PixelFringe{bias, amplitude, 0.1 * r};
  });
  Convert13 converter;
  ConverterGenerator generator;
  generator.SetAlgorithm(&converter);
  DoubleMatrix2D phase(rows, cols), modulation(rows, cols);
  generator.Process(frames, phase, &modulation);
  ASSERT_TRUE(generator.GetStatus().IsOk());
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      const bool expectValid = c >= 20;
      EXPECT_EQ(phase(r, c) != kNoData, expectValid) << r << "," << c;
      EXPECT_EQ(modulation(r, c) != kNoData, expectValid) << r << "," << c;
      if (expectValid) {
        EXPECT_NEAR(modulation(r, c), 2.05 * 80.0, 2.0);
      }
    }
  }

  // With no minimum every unsaturated pixel is valid, also those without modulation; saturated ones
  // stay invalid whatever their modulation.
  generator.SetMinimumModulation(0.0);
  generator.Process(frames, phase, &modulation);
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c)
      EXPECT_EQ(phase(r, c) != kNoData, c >= 10) << r << "," << c;
  }
}

TEST(ConverterGeneratorTest, SignUnitAndMagnitudeEstimateActOnTheMaps) {
  const int rows = 4, cols = 5;
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, rows, cols), 7, FrameBuffer::kRes8Bit));
  const auto truth = [](int r, int c) { return 0.3 * r - 0.2 * c; };
  Testing::FillPsiStack(frames, Testing::ShiftsFor7(), [&](int r, int c) {
    return Testing::PixelFringe{120.0, 90.0, truth(r, c)};
  });
  Convert7 converter;
  ConverterGenerator generator;
  generator.SetAlgorithm(&converter);
  DoubleMatrix2D plain(rows, cols), plainMod(rows, cols);
  generator.Process(frames, plain, &plainMod);

  // Phase sign -1 negates the phase.
  generator.SetPhaseSign(-1);
  DoubleMatrix2D negated(rows, cols);
  generator.Process(frames, negated);
  generator.SetPhaseSign(1);
  for (int i = 0; i < rows * cols; ++i)
    EXPECT_EQ(negated.At(i), -plain.At(i));

  // A map in waves receives the phase divided by 2 pi.
  DoubleMatrix2D waves(rows, cols);
  UnitManager inWaves;
  inWaves.SetConverter(UnitAxis::kValue, LinearConverter(Units::kWaves));
  waves.SetUnitManager(inWaves);
  generator.Process(frames, waves);
  for (int i = 0; i < rows * cols; ++i)
    EXPECT_NEAR(waves.At(i), plain.At(i) / (2 * std::numbers::pi), 1e-15);

  // |N| + |D| of fringes at phase phi is sqrt(N^2 + D^2) (|cos phi| + |sin phi|): the estimate
  // over- or under-states the modulation by that factor over 1.2071, and leaves the phase alone.
  // 8-bit rounding of a 90-count amplitude moves the ratio by well under 0.01.
  generator.SetEstimateMagnitude(true);
  DoubleMatrix2D estimated(rows, cols), estimatedMod(rows, cols);
  generator.Process(frames, estimated, &estimatedMod);
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      const double phi = truth(r, c);
      EXPECT_NEAR(estimatedMod(r, c) / plainMod(r, c),
                  (std::abs(std::cos(phi)) + std::abs(std::sin(phi))) / 1.2071067811865475, 0.01);
      EXPECT_EQ(estimated(r, c), plain(r, c));
    }
  }
}

// A source whose power drifts during the acquisition scales frame k by w_k. Handing those w_k as
// frame weights multiplies the kernel's weight of frame k by mean(w) / w_k, so every frame counts
// as if taken at the mean power and the phase comes back as from a steady source. Without weights,
// with the factor inverted or with the weights one frame off, the drifting bias leaks into N and D.
TEST(ConverterGeneratorTest, FrameWeightsUndoAnUnsteadySource) {
  const int rows = 24, cols = 32, frames = 13;
  std::vector<double> brightness;
  for (int k = 0; k < frames; ++k)
    brightness.push_back(1.0 + 0.1 * std::sin(1.3 * k + 0.4));
  FrameBuffer stack;
  ASSERT_TRUE(stack.Allocate(Window2D(0, 0, rows, cols), frames, FrameBuffer::kRes16Bit));
  const double range = stack.GetMaxValue();
  Testing::FillPsiStack(
      stack, Testing::ShiftsFor13(),
      [&](int r, int c) {
        return Testing::PixelFringe{0.4 * range, 0.3 * range, SurfacePhase(r, c, rows, cols)};
      },
      0.0, nullptr, brightness);

  const auto worstError = [&](const std::vector<double>& frameWeights) {
    Array<double> weights;
    for (const double w : frameWeights)
      weights.Add(w);
    Convert13 converter;  // phase sign -1: the weighted path must apply it too
    ConverterGenerator generator;
    generator.SetAlgorithm(&converter);
    DoubleMatrix2D phase(rows, cols);
    generator.Process(stack, phase, nullptr, frameWeights.empty() ? nullptr : &weights);
    EXPECT_TRUE(generator.GetStatus().IsOk()) << generator.GetStatus().GetPrintString();
    return WorstSurfaceError(phase);
  };
  // 16-bit rounding of a 20000-count amplitude leaves errors near 1e-4 rad.
  const double tolerance = 1e-3;
  EXPECT_LT(worstError(brightness), tolerance);
  std::vector<double> inverted, offByOne;
  for (int k = 0; k < frames; ++k) {
    inverted.push_back(1.0 / brightness[static_cast<std::size_t>(k)]);
    offByOne.push_back(brightness[static_cast<std::size_t>((k + 1) % frames)]);
  }
  EXPECT_GT(worstError({}), 10 * tolerance) << "no weights";
  EXPECT_GT(worstError(inverted), 10 * tolerance) << "inverted factor";
  EXPECT_GT(worstError(offByOne), 10 * tolerance) << "weights one frame off";
}

TEST(ConverterGeneratorTest, NoValidPixelIsCode1AndTheStatusIsKeptAcrossRuns) {
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 6, 6), 7, FrameBuffer::kRes8Bit));
  Testing::FillPsiStack(frames, Testing::ShiftsFor7(), [](int, int) {
    return Testing::PixelFringe{100.0, 1.0, 0.0};
  });
  Convert7 converter;
  ConverterGenerator generator;
  generator.SetAlgorithm(&converter);
  // Maps one row longer than the window, whose last row holds valid values of an earlier run: they
  // are not pixels of this run and must not hide that none of its pixels is valid.
  DoubleMatrix2D phase(7, 6), modulation(7, 6);
  phase.SetAll(0.5);
  generator.Process(frames, phase, &modulation);
  EXPECT_EQ(generator.GetStatus().GetCode(), StatusCode::kNoValidResult);
  EXPECT_EQ(generator.GetStatus().GetFile(), "Psi\\ConverterGenerator");
  for (int i = 0; i < 36; ++i) {
    EXPECT_EQ(phase.At(i), kNoData);
    EXPECT_EQ(modulation.At(i), kNoData);
  }
  // A later good run leaves the earlier failure in place.
  generator.SetMinimumModulation(0.0);
  generator.Process(frames, phase, &modulation);
  EXPECT_NE(phase.At(0), kNoData);
  EXPECT_EQ(generator.GetStatus().GetCode(), StatusCode::kNoValidResult);
}

TEST(ConverterGeneratorTest, BadInputIsRefusedWithAStatus) {
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 4, 4), 7, FrameBuffer::kRes8Bit));
  ConverterGenerator generator;
  DoubleMatrix2D phase(4, 4), small(2, 2);
  generator.Process(frames, phase);
  EXPECT_EQ(generator.GetStatus().GetCode(), StatusCode::kNotSet) << "no converter";

  Convert13 thirteen;
  generator.SetAlgorithm(&thirteen);
  generator.Process(frames, phase);
  EXPECT_EQ(generator.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange) << "too few frames";

  Convert7 seven;
  generator = ConverterGenerator();  // the status is kept across runs: start clean
  generator.SetAlgorithm(&seven);
  generator.Process(frames, phase, &small);
  EXPECT_EQ(generator.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange) << "modulation map too small";

  // Each refusal names its own cause: a sign of 0 is not the map unit's fault.
  generator.SetPhaseSign(0);
  generator.Process(frames, phase);
  EXPECT_NE(generator.GetStatus().GetMessage().find("phase sign"), std::string::npos)
      << generator.GetStatus().GetMessage();
  generator.SetPhaseSign(1);
  DoubleMatrix2D heights(4, 4);
  UnitManager nanometres;
  nanometres.SetConverter(UnitAxis::kValue, LinearConverter(Units::kNanometers));
  heights.SetUnitManager(nanometres);
  generator.Process(frames, heights);
  EXPECT_NE(generator.GetStatus().GetMessage().find("unit"), std::string::npos)
      << generator.GetStatus().GetMessage();
}

// Random samples (saturated ones included) exercise every branch: the block path must reproduce the
// per-pixel path exactly in validity, N, D and modulation, and the phase to within 2 ulp of the
// scalar atan2; every thread count must give the same maps.
struct PathCase {
  std::string kernel;  // "7", "13", "20", "sliding", "weights"
  FrameBuffer::ElementRes resolution;
  bool estimate;
};

void PrintTo(const PathCase& c, std::ostream* os) {
  *os << c.kernel << "/" << static_cast<int>(c.resolution) * 8 << "bit" << (c.estimate ? "/estimate" : "");
}

class GeneratorPathTest : public ::testing::TestWithParam<PathCase> {};

TEST_P(GeneratorPathTest, BlockPathAndEveryThreadCountMatchThePerPixelReference) {
  const PathCase& c = GetParam();
  const int frames = c.kernel == "7" ? 7 : c.kernel == "20" ? 20 : c.kernel == "sliding" ? 17 : 13;
  // 1000 pixels over 7 rows: blocks of 256 and chunk edges fall mid-row.
  const int rows = 7, cols = 143;
  FrameBuffer stack;
  ASSERT_TRUE(stack.Allocate(Window2D(3, 4, rows, cols), frames, c.resolution));
  const int maxValue = c.resolution == FrameBuffer::kRes8Bit ? 255 : 4095;
  stack.SetMaxValue(maxValue);
  Testing::SeededRandom random(static_cast<std::uint64_t>(frames * 31 + static_cast<int>(c.resolution)));
  SCOPED_TRACE(random.Describe());
  for (int k = 0; k < frames; ++k) {
    std::vector<std::int32_t> image(static_cast<std::size_t>(rows * cols));
    for (auto& v : image)
      v = random.UniformInt(0, maxValue);  // ~1/256 of samples saturate
    ASSERT_TRUE(stack.StoreFrame(k, image.data()));
  }
  Convert7 seven;
  Convert13 thirteen;
  Convert20 twenty;
  ConvertSliding13 sliding;
  Converter* converter = c.kernel == "7"         ? static_cast<Converter*>(&seven)
                         : c.kernel == "20"      ? static_cast<Converter*>(&twenty)
                         : c.kernel == "sliding" ? static_cast<Converter*>(&sliding)
                                                 : static_cast<Converter*>(&thirteen);
  Array<double> weights;
  for (int k = 0; k < frames; ++k)
    weights.Add(random.Uniform(0.5, 2.0));
  Array<double>* frameWeights = c.kernel == "weights" ? &weights : nullptr;

  const auto run = [&](bool fast, int threads, DoubleMatrix2D& phase, DoubleMatrix2D& modulation) {
    ConverterGenerator generator;
    generator.SetAlgorithm(converter);
    generator.SetUseFastPath(fast);
    generator.SetEstimateMagnitude(c.estimate);
    generator.SetMinimumModulation(3.0);
    generator.SetAllowMultiThreads(threads > 0);
    generator.SetNumberOfThreads(threads);
    phase.Resize(rows, cols);
    modulation.Resize(rows, cols);
    generator.Process(stack, phase, &modulation, frameWeights);
    return generator.GetStatus().GetCode();
  };
  DoubleMatrix2D refPhase, refMod;
  ASSERT_EQ(run(false, 0, refPhase, refMod), 0u);
  int valid = 0;
  for (int i = 0; i < rows * cols; ++i)
    valid += refPhase.At(i) != kNoData;
  EXPECT_GT(valid, 100) << "the comparison must see valid pixels";
  EXPECT_LT(valid, rows * cols) << "and rejected ones";

  for (const bool fast : {false, true}) {
    for (const int threads : {0, 1, 2, 3, 8}) {
      DoubleMatrix2D phase, modulation;
      ASSERT_EQ(run(fast, threads, phase, modulation), 0u);
      for (int i = 0; i < rows * cols; ++i) {
        ASSERT_EQ(modulation.At(i), refMod.At(i))
            << "pixel " << i << (fast ? " fast" : " plain") << " threads " << threads;
        ASSERT_EQ(phase.At(i) == kNoData, refPhase.At(i) == kNoData) << "pixel " << i;
        if (fast) {
          ASSERT_LE(UlpDistance(phase.At(i), refPhase.At(i)), 2)
              << "pixel " << i << ": " << phase.At(i) << " vs " << refPhase.At(i);
        } else {
          ASSERT_EQ(phase.At(i), refPhase.At(i)) << "pixel " << i << " threads " << threads;
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Kernels, GeneratorPathTest,
                         ::testing::Values(PathCase{"7", FrameBuffer::kRes8Bit, false},
                                           PathCase{"7", FrameBuffer::kRes16Bit, true},
                                           PathCase{"13", FrameBuffer::kRes8Bit, false},
                                           PathCase{"13", FrameBuffer::kRes32Bit, false},
                                           PathCase{"20", FrameBuffer::kRes8Bit, false},
                                           PathCase{"20", FrameBuffer::kRes16Bit, true},
                                           PathCase{"sliding", FrameBuffer::kRes8Bit, false},
                                           PathCase{"weights", FrameBuffer::kRes8Bit, false},
                                           PathCase{"weights", FrameBuffer::kRes16Bit, true}),
                         [](const auto& info) {
                           return info.param.kernel + "_" +
                                  std::to_string(static_cast<int>(info.param.resolution) * 8) + "bit" +
                                  (info.param.estimate ? "_estimate" : "");
                         });

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

#include "Psi/ConverterGenerator.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <numbers>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Psi/Convert13.h"
#include "Psi/Convert20.h"
#include "Psi/Convert7.h"
#include "Psi/ConvertSliding13.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticPsi.h"
#include "Testing/ImageEquivalence.h"

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

// The built-in converters by kind ("7", "13", "20", "sliding"), with the phase shifts each one is
// designed for.
struct Converters {
  Convert7 seven;
  Convert13 thirteen;
  Convert20 twenty;
  ConvertSliding13 sliding;
  Converter* Get(const std::string& kind) {
    return kind == "7"         ? static_cast<Converter*>(&seven)
           : kind == "20"      ? static_cast<Converter*>(&twenty)
           : kind == "sliding" ? static_cast<Converter*>(&sliding)
                               : static_cast<Converter*>(&thirteen);
  }
};

std::vector<double> ShiftsFor(const std::string& kind, int frames) {
  return kind == "7"    ? Testing::ShiftsFor7()
         : kind == "20" ? Testing::ShiftsFor20()
                        : Testing::ShiftsForSliding13(frames);
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
      worst = std::max(worst, std::abs(std::remainder(phase(r, c) - SurfacePhase(r, c, rows, cols),
                                                      2 * std::numbers::pi)));
    }
  }
  return worst;
}

class GeneratorAccuracyTest : public ::testing::TestWithParam<std::pair<std::string, int>> {};

// The phase of a camera stack, and with phase sign -1 into a map in waves the same phase negated and
// divided by 2 pi.
TEST_P(GeneratorAccuracyTest, RecoversAKnownSurfaceFromACameraStack) {
  const auto& [kind, frameCount] = GetParam();
  const int rows = 48, cols = 64;
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, rows, cols), frameCount, FrameBuffer::kRes8Bit));
  // Fringes at 40 % of the camera range on a bias of half the range; 8-bit samples round to 1/100
  // of the amplitude, which bounds the phase error of a single frame near 0.005 rad.
  Testing::FillPsiStack(frames, ShiftsFor(kind, frameCount), [&](int r, int c) {
    return Testing::PixelFringe{127.5, 102.0, SurfacePhase(r, c, rows, cols)};
  });
  Converters converters;
  ConverterGenerator generator;
  generator.SetAlgorithm(converters.Get(kind));
  DoubleMatrix2D phase(rows, cols), waves(rows, cols);
  generator.Process(frames, phase);
  ASSERT_TRUE(generator.GetStatus().IsOk()) << generator.GetStatus().GetPrintString();
  EXPECT_LT(WorstSurfaceError(phase), 0.01);

  UnitManager inWaves;
  inWaves.SetConverter(UnitAxis::kValue, LinearConverter(Units::kWaves));
  waves.SetUnitManager(inWaves);
  generator.SetPhaseSign(-1);
  generator.Process(frames, waves);
  for (int i = 0; i < rows * cols; ++i)
    ASSERT_NEAR(waves.At(i), -phase.At(i) / (2 * std::numbers::pi), 1e-15) << "pixel " << i;
}

INSTANTIATE_TEST_SUITE_P(AllAlgorithms, GeneratorAccuracyTest,
                         ::testing::Values(std::pair{"7", 7}, std::pair{"13", 13}, std::pair{"20", 20},
                                           std::pair{"sliding", 24}),
                         [](const auto& info) {
                           return "Kind" + info.param.first + "x" + std::to_string(info.param.second);
                         });

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
  Converters converters;
  ConverterGenerator generator;
  generator.SetAlgorithm(converters.Get("13"));
  DoubleMatrix2D phase(rows, cols), modulation(rows, cols), unlimited(rows, cols);
  generator.Process(frames, phase, &modulation);
  ASSERT_TRUE(generator.GetStatus().IsOk());
  // With no minimum every unsaturated pixel is valid, also those without modulation; saturated ones
  // stay invalid whatever their modulation.
  generator.SetMinimumModulation(0.0);
  generator.Process(frames, unlimited);
  for (int i = 0; i < rows * cols; ++i) {
    const int c = i % cols;
    EXPECT_EQ(phase.At(i) != kNoData, c >= 20) << "pixel " << i;
    EXPECT_EQ(modulation.At(i) != kNoData, c >= 20) << "pixel " << i;
    EXPECT_EQ(unlimited.At(i) != kNoData, c >= 10) << "pixel " << i;
    if (c >= 20) {
      EXPECT_NEAR(modulation.At(i), 2.05 * 80.0, 2.0) << "pixel " << i;
    }
  }
}

// A source whose power drifts during the acquisition scales frame k by w_k. Handing those w_k as
// frame weights multiplies the kernel's weight of frame k by mean(w) / w_k, so every frame counts
// as if taken at the mean power and the phase comes back as from a steady source. Without weights,
// with the factor inverted or with the weights one frame off, the drifting bias leaks into N and D.
TEST(ConverterGeneratorTest, FrameWeightsUndoAnUnsteadySource) {
  const int rows = 24, cols = 32, frames = 13;
  std::vector<double> brightness, inverted, offByOne;
  for (int k = 0; k < frames; ++k) {
    brightness.push_back(1.0 + 0.1 * std::sin(1.3 * k + 0.4));
    inverted.push_back(1.0 / brightness.back());
    offByOne.push_back(1.0 + 0.1 * std::sin(1.3 * (k + 1) + 0.4));
  }
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
  EXPECT_GT(worstError({}), 10 * tolerance) << "no weights";
  EXPECT_GT(worstError(inverted), 10 * tolerance) << "inverted factor";
  EXPECT_GT(worstError(offByOne), 10 * tolerance) << "weights one frame off";
}

// Run-level failures are status records: code 1 when no pixel of the run is valid, kept across a
// later good run; input the run cannot use is refused with a code and a message naming its cause.
TEST(ConverterGeneratorTest, RunFailuresAreStatusRecords) {
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 6, 6), 7, FrameBuffer::kRes8Bit));
  Testing::FillPsiStack(frames, Testing::ShiftsFor7(), [](int, int) {
    return Testing::PixelFringe{100.0, 1.0, 0.0};
  });
  Converters converters;
  ConverterGenerator generator;
  generator.SetAlgorithm(converters.Get("7"));
  // Maps one row longer than the window, whose last row holds valid values of an earlier run: they
  // are not pixels of this run and must not hide that none of its pixels is valid.
  DoubleMatrix2D phase(7, 6), modulation(7, 6);
  phase.SetAll(0.5);
  generator.Process(frames, phase, &modulation);
  EXPECT_EQ(generator.GetStatus().GetCode(), StatusCode::kNoValidResult);
  for (int i = 0; i < 36; ++i)
    EXPECT_TRUE(phase.At(i) == kNoData && modulation.At(i) == kNoData) << i;
  generator.SetMinimumModulation(0.0);
  generator.Process(frames, phase, &modulation);
  EXPECT_NE(phase.At(0), kNoData);
  EXPECT_EQ(generator.GetStatus().GetCode(), StatusCode::kNoValidResult) << "kept across a good run";

  // Refusals; a fresh generator each time, since the status is kept across runs.
  const auto refusal = [&](const std::string& kind, int sign, DoubleMatrix2D& map, DoubleMatrix2D* mod) {
    ConverterGenerator fresh;
    if (!kind.empty()) fresh.SetAlgorithm(converters.Get(kind));
    fresh.SetPhaseSign(sign);
    fresh.Process(frames, map, mod);
    return fresh.GetStatus();
  };
  DoubleMatrix2D map(6, 6), small(2, 2), heights(6, 6);
  UnitManager nanometres;
  nanometres.SetConverter(UnitAxis::kValue, LinearConverter(Units::kNanometers));
  heights.SetUnitManager(nanometres);
  EXPECT_EQ(refusal("", 1, map, nullptr).GetCode(), StatusCode::kNotSet) << "no converter";
  EXPECT_EQ(refusal("13", 1, map, nullptr).GetCode(), StatusCode::kArgumentOutOfRange) << "too few frames";
  EXPECT_EQ(refusal("7", 1, map, &small).GetCode(), StatusCode::kArgumentOutOfRange) << "small map";
  // Each names its own cause: a sign of 0 is not the map unit's fault.
  EXPECT_NE(refusal("7", 0, map, nullptr).GetMessage().find("phase sign"), std::string::npos);
  EXPECT_NE(refusal("7", 1, heights, nullptr).GetMessage().find("unit"), std::string::npos);
}

// Random samples (saturated ones included) exercise every branch: the block path must reproduce the
// per-pixel path exactly in validity, N, D and modulation, and the phase to within 4 ulp of the
// scalar atan2 (SLEEF's 3.5-ulp kernel against libm's 1-ulp one); every thread count, sub-window and a
// one-row stack must give the same maps.
struct PathCase {
  std::string kernel;  // "7", "13", "20", "sliding", "weights"
  FrameBuffer::ElementRes resolution;
  bool estimate;
};

class GeneratorPathTest : public ::testing::TestWithParam<PathCase> {};

TEST_P(GeneratorPathTest, BlockPathAndEveryThreadCountMatchThePerPixelReference) {
  const PathCase& c = GetParam();
  const int frames = c.kernel == "7" ? 7 : c.kernel == "20" ? 20 : c.kernel == "sliding" ? 17 : 13;
  // 1001 pixels over 7 rows: blocks of 256 and chunk edges fall mid-row.
  const int rows = 7, cols = 143;
  const int maxValue = c.resolution == FrameBuffer::kRes8Bit ? 255 : 4095;
  Testing::SeededRandom random(static_cast<std::uint64_t>(frames * 31 + static_cast<int>(c.resolution)));
  SCOPED_TRACE(random.Describe());
  std::vector<std::vector<std::int32_t>> images(static_cast<std::size_t>(frames));
  for (auto& image : images) {
    image.resize(static_cast<std::size_t>(rows * cols));
    for (auto& v : image)
      v = random.UniformInt(0, maxValue);  // ~1/256 of samples saturate
  }
  Converters converters;
  Converter* converter = converters.Get(c.kernel);
  Array<double> weights;
  for (int k = 0; k < frames; ++k)
    weights.Add(random.Uniform(0.5, 2.0));
  Array<double>* frameWeights = c.kernel == "weights" ? &weights : nullptr;

  // One path over a window of the random stack: a frame buffer of just that window, placed in the
  // camera at (3, 4) plus the window's origin.
  const auto run = [&](const Window2D& w, bool fast, int threads) {
    FrameBuffer stack;
    EXPECT_TRUE(stack.Allocate(Window2D(3 + w.GetStartRow(), 4 + w.GetStartCol(), w.GetRows(), w.GetCols()),
                               frames, c.resolution));
    stack.SetMaxValue(maxValue);
    for (int k = 0; k < frames; ++k) {
      const std::int32_t* first = images[static_cast<std::size_t>(k)].data() +
                                  static_cast<std::ptrdiff_t>(w.GetStartRow()) * cols + w.GetStartCol();
      EXPECT_TRUE(stack.StoreFrame(k, first, cols));
    }
    ConverterGenerator generator;
    generator.SetAlgorithm(converter);
    generator.SetUseFastPath(fast);
    generator.SetEstimateMagnitude(c.estimate);
    generator.SetMinimumModulation(3.0);
    generator.SetAllowMultiThreads(threads > 0);
    generator.SetNumberOfThreads(threads);
    DoubleMatrix2D phase(w.GetRows(), w.GetCols()), modulation(w.GetRows(), w.GetCols());
    generator.Process(stack, phase, &modulation, frameWeights);
    const auto values = [](const DoubleMatrix2D& map) {
      return std::vector<double>(map.Data(), map.Data() + map.GetCount());
    };
    return Testing::ImageMaps{values(phase), values(modulation)};
  };
  const Testing::ImageMaps whole = run(Window2D(0, 0, rows, cols), false, 0);
  const auto valid = std::count_if(whole[0].begin(), whole[0].end(), [](double v) { return v != kNoData; });
  EXPECT_GT(valid, 100) << "the comparison must see valid pixels";
  EXPECT_LT(valid, rows * cols) << "and rejected ones";

  const auto reference = [&](const Window2D& w) { return run(w, false, 0); };
  Testing::EquivalenceSettings plain{rows, cols, {{"phase", 0}, {"modulation", 0}}, {0, 1, 2, 3, 8}};
  Testing::CheckImageEquivalence(plain, reference,
                                 [&](const Window2D& w, int threads) { return run(w, false, threads); });
  Testing::EquivalenceSettings block{rows, cols, {{"phase", 4}, {"modulation", 0}}, {0, 1, 2, 3, 8}};
  Testing::CheckImageEquivalence(block, reference,
                                 [&](const Window2D& w, int threads) { return run(w, true, threads); });
  // Within the block path a pixel's phase may not depend on where a thread's range or a block ends:
  // the vector atan2 and libm's may differ by a few ulp, so every pixel must go through the same one.
  const auto blockReference = [&](const Window2D& w) { return run(w, true, 0); };
  Testing::EquivalenceSettings blockThreads{rows, cols, {{"phase", 0}, {"modulation", 0}}, {1, 2, 3, 8}};
  Testing::CheckImageEquivalence(blockThreads, blockReference,
                                 [&](const Window2D& w, int threads) { return run(w, true, threads); });
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

// The jobs against the classes they drive: each job, run on a host array, must give exactly what the
// underlying algorithm gives on the same frames (bit-equal: the job only wires and copies), and the
// known surface of a synthetic measurement back within the algorithm's own accuracy.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <mutex>
#include <numbers>
#include <vector>

#include "AlignSpotDetector/AlignSpotDetector.h"
#include "Jobs/CarrierJob.h"
#include "Jobs/FilmJob.h"
#include "Jobs/PsiCheckJob.h"
#include "Jobs/PsiJob.h"
#include "Jobs/QuadrantsJob.h"
#include "Jobs/SpotJob.h"
#include "Jobs/SwliJob.h"
#include "Psi/Convert13.h"
#include "Psi/Convert20.h"
#include "Psi/Convert7.h"
#include "Psi/ConverterGenerator.h"
#include "Psi/Corvane7.h"
#include "Psi/CorvaneCalculator.h"
#include "Psi/GainCorrectionCalculator.h"
#include "Psi/GainCorrectionPmi.h"
#include "Psi/Kinephase/FourQuadrantEvaluator.h"
#include "Psi/Kinephase/KinephaseAlgorithm.h"
#include "Swli/CoherenceDiscriminator.h"
#include "Swli/PhaseAlgorithmCentroid.h"
#include "Swli/PhaseAlgorithmFda.h"
#include "Swli/PhaseGenerator.h"
#include "Swli/ScanSampling.h"
#include "Swli/SubsampledEvaluation.h"
#include "SwliMba/LibDef/Library.h"
#include "SwliMba/LibDef/LibraryJson.h"
#include "Synthetic/SeededRandom.h"
#include "Synthetic/SyntheticCarrier.h"
#include "Synthetic/SyntheticPsi.h"
#include "Synthetic/SyntheticScan.h"
#include "Synthetic/SyntheticSpot.h"

namespace Quarn::Jobs {
namespace {

namespace Psi = ::Quarn::Metrology::PhaseProcessing::Core::Psi;
using Core::DoubleMatrix2D;
using Core::FrameBuffer;

// A frame buffer's frames as one C-contiguous host array (what a numpy stack is).
template <typename T>
std::vector<T> HostCopy(FrameBuffer& frames) {
  const std::size_t pixels = static_cast<std::size_t>(frames.GetPixelCount());
  std::vector<T> host(pixels * static_cast<std::size_t>(frames.GetNumberOfFrames()));
  for (int k = 0; k < frames.GetNumberOfFrames(); ++k)
    std::memcpy(host.data() + k * pixels, frames.GetFrameData(k), pixels * sizeof(T));
  return host;
}

// The library map and the host map hold the same values, no data as NaN, to the bit.
void ExpectSameMap(const DoubleMatrix2D& expected, const std::vector<double>& actual) {
  ASSERT_EQ(static_cast<std::size_t>(expected.GetCount()), actual.size());
  for (std::int64_t i = 0; i < expected.GetCount(); ++i) {
    if (Core::IsNoDataValue(expected.At(i))) {
      ASSERT_TRUE(std::isnan(actual[static_cast<std::size_t>(i)])) << "pixel " << i;
    } else {
      ASSERT_EQ(expected.At(i), actual[static_cast<std::size_t>(i)]) << "pixel " << i;
    }
  }
}

MapView ViewOf(std::vector<double>& map, int rows, int cols) {
  map.assign(static_cast<std::size_t>(rows) * cols, -1.0);
  return MapView{map.data(), rows, cols, 0};
}

constexpr int kRows = 24, kCols = 32;

// A tilted surface, 60 counts of modulation on 110 counts of bias.
Testing::PixelFringe Tilt(int row, int col) {
  return {110.0, 60.0, std::remainder(0.21 * col - 0.13 * row, 2.0 * std::numbers::pi)};
}

struct PsiCase {
  int frames;
  FrameBuffer::ElementRes resolution;
};

class PsiJobTest : public ::testing::TestWithParam<PsiCase> {};

TEST_P(PsiJobTest, HostArrayGivesTheGeneratorsMapsToTheBitAndTheTiltBack) {
  const PsiCase c = GetParam();
  const std::vector<double> shifts = c.frames == 7    ? Testing::ShiftsFor7()
                                     : c.frames == 13 ? Testing::ShiftsFor13()
                                                      : Testing::ShiftsFor20();
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Core::Window2D(0, 0, kRows, kCols), c.frames, c.resolution));
  frames.SetMaxValue(255);  // an 8-bit camera's range also in 16-bit frames, where --max-value says so
  Testing::FillPsiStack(frames, shifts, Tilt);

  Psi::Convert7 seven;
  Psi::Convert13 thirteen;
  Psi::Convert20 twenty;
  Psi::ConverterGenerator generator;
  generator.SetAlgorithm(c.frames == 7    ? static_cast<Psi::Converter*>(&seven)
                         : c.frames == 13 ? static_cast<Psi::Converter*>(&thirteen)
                                          : static_cast<Psi::Converter*>(&twenty));
  generator.SetMinimumModulation(15.0);
  DoubleMatrix2D phase(kRows, kCols), modulation(kRows, kCols);
  generator.Process(frames, phase, &modulation);
  ASSERT_TRUE(generator.GetStatus().IsOk());

  const bool wide = c.resolution == FrameBuffer::kRes16Bit;
  std::vector<std::uint8_t> narrow;
  std::vector<std::uint16_t> deep;
  if (wide)
    deep = HostCopy<std::uint16_t>(frames);
  else
    narrow = HostCopy<std::uint8_t>(frames);
  const ArrayView stack =
      ArrayView::Contiguous(wide ? static_cast<const void*>(deep.data()) : narrow.data(),
                            wide ? SampleType::kUInt16 : SampleType::kUInt8, c.frames, kRows, kCols, "stack");
  PsiOptions options;
  options.maxValue = 255;
  std::vector<double> hostPhase, hostModulation;
  const PsiRecord record =
      RunPsi(stack, options, ViewOf(hostPhase, kRows, kCols), ViewOf(hostModulation, kRows, kCols));
  ASSERT_TRUE(record.Ok()) << record.message;
  EXPECT_EQ(record.algorithm, std::to_string(c.frames));
  EXPECT_EQ(record.validFraction, 1.0);
  ExpectSameMap(phase, hostPhase);
  ExpectSameMap(modulation, hostModulation);
  // Rounding to whole counts moves each sample by at most 0.5 / 60 of the modulation; through the
  // kernels' weights (largest about twice the mean) that is at most about 0.02 rad of phase.
  for (int r = 0; r < kRows; ++r)
    for (int col = 0; col < kCols; ++col)
      EXPECT_NEAR(std::remainder(hostPhase[r * kCols + col] - Tilt(r, col).phase, 2 * std::numbers::pi), 0.0,
                  0.02);

  // The same frames with padded rows (not adoptable: copied) and on one or three threads.
  const int bytes = wide ? 2 : 1, pitch = kCols + 5;
  std::vector<std::uint8_t> padded(static_cast<std::size_t>(c.frames) * kRows * pitch * bytes, 0xAB);
  for (int k = 0; k < c.frames; ++k)
    for (int r = 0; r < kRows; ++r)
      std::memcpy(&padded[(static_cast<std::size_t>(k) * kRows + r) * pitch * bytes],
                  static_cast<const std::byte*>(stack.data) + (k * kRows + r) * kCols * bytes,
                  static_cast<std::size_t>(kCols) * bytes);
  ArrayView strided = stack;
  strided.data = padded.data();
  strided.rowStride = pitch * bytes;
  strided.frameStride = strided.rowStride * kRows;
  for (const int threads : {0, 3}) {
    options.threads = threads;
    std::vector<double> again;
    ASSERT_TRUE(RunPsi(strided, options, ViewOf(again, kRows, kCols)).Ok());
    ExpectSameMap(phase, again);
  }
}

INSTANTIATE_TEST_SUITE_P(Algorithms, PsiJobTest,
                         ::testing::Values(PsiCase{7, FrameBuffer::kRes8Bit},
                                           PsiCase{13, FrameBuffer::kRes16Bit},
                                           PsiCase{20, FrameBuffer::kRes8Bit}));

TEST(FrameBufferViewTest, PackedHostFramesAreAdoptedNotCopied) {
  std::vector<std::uint16_t> host(3 * 4 * 5, 7);
  const ArrayView view = ArrayView::Contiguous(host.data(), SampleType::kUInt16, 3, 4, 5);
  FrameBuffer frames;
  JobRecord record;
  ASSERT_TRUE(MakeFrameBuffer(view, frames, record));
  EXPECT_FALSE(frames.OwnsFrames());
  for (int k = 0; k < 3; ++k)
    EXPECT_EQ(frames.GetFrameData(k), static_cast<void*>(host.data() + k * 20));
}

// Refusals in the tool's words, each naming the input or the option, and a stack without fringes:
// no result (not bad input), its reason named, its map all NaN.
TEST(PsiJobTest, BadInputAndNoResultInTheToolsWords) {
  std::vector<std::uint8_t> host(12 * 4 * 4, 100);
  std::vector<double> floats(7 * 4 * 4, 100.0);
  const ArrayView twelve = ArrayView::Contiguous(host.data(), SampleType::kUInt8, 12, 4, 4, "s.tif");
  const ArrayView seven = ArrayView::Contiguous(host.data(), SampleType::kUInt8, 7, 4, 4, "s.tif");
  struct Row {
    ArrayView stack;
    PsiOptions options;
    std::string message;
    JobOutcome outcome = JobOutcome::kBadInput;
  };
  PsiOptions nanModulation, badThreads, weights, thirteen;
  nanModulation.minModulation = std::nan("");
  badThreads.threads = 2000;
  weights.frameWeights = {1.0, 1.0};
  thirteen.algorithm = "13";
  const std::vector<Row> rows = {
      {twelve,
       {},
       "s.tif has 12 frames; no algorithm fits (7, 13 or 20 frames, or more than 13 for sliding13)"},
      {seven, thirteen, "the 13-frame algorithm needs 13 frames, s.tif has 7 frames"},
      {seven, nanModulation,
       "--min-modulation: nan is not a finite number; a number from 0 to 100 is needed"},
      {seven, badThreads, "--threads: got 2000; a whole number from 0 to 1024 is needed"},
      {seven, weights, "--frame-weights gives 2 weights, s.tif has 7 frames"},
      {ArrayView::Contiguous(floats.data(), SampleType::kDouble, 7, 4, 4, "f"),
       {},
       "f: samples are floating point; camera frames are 8- or 16-bit unsigned integers"},
      {seven,
       {},
       "no valid pixel in s.tif: every pixel is saturated (a sample reaches 255) or modulated less than 15 % "
       "of it",
       JobOutcome::kNoResult},
  };
  for (const Row& row : rows) {
    std::vector<double> phase;
    const PsiRecord record = RunPsi(row.stack, row.options, ViewOf(phase, 4, 4));
    EXPECT_EQ(record.outcome, row.outcome);
    EXPECT_EQ(record.message, row.message);
    if (row.outcome == JobOutcome::kNoResult) {
      EXPECT_TRUE(std::all_of(phase.begin(), phase.end(), [](double v) { return std::isnan(v); }));
    }
  }
}

// The run a band of rows at a time (what qphase psi streams to its files) hands on, band by band and
// in order, the rows of the whole run's maps to the bit, also where a band has no valid pixel (no
// fringes above row 10: the first two bands of four rows), with the same record, on one thread and
// on three; a stack without a valid pixel at all is the whole run's failure, in its words.
TEST(PsiJobTest, BandsAreTheWholeRunsRowsAndABandWithoutDataIsNoFailure) {
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Core::Window2D(3, 5, kRows, kCols), 13, FrameBuffer::kRes8Bit));
  Testing::FillPsiStack(frames, Testing::ShiftsFor13(), [](int r, int c) {
    Testing::PixelFringe fringe = Tilt(r, c);
    if (r < 10) fringe.amplitude = 0.0;
    return fringe;
  });
  for (const int threads : {0, 3}) {
    PsiOptions options;
    options.threads = threads;
    PsiJob whole, banded;
    const PsiRecord expected = whole.Run(frames, options, "stack", true);
    ASSERT_TRUE(expected.Ok()) << expected.message;
    int nextRow = 0;
    const PsiRecord record = banded.RunInBands(
        frames, options, "stack", true, 4,
        [&](int first, const DoubleMatrix2D& phase, const DoubleMatrix2D* modulation) {
          ASSERT_EQ(first, nextRow);
          ASSERT_TRUE(modulation && phase.GetRows() == std::min(4, kRows - first) &&
                      phase.GetColumns() == kCols);
          const std::size_t bytes = sizeof(double) * static_cast<std::size_t>(phase.GetCount());
          EXPECT_EQ(std::memcmp(phase.Data(), whole.GetPhase().Row(first), bytes), 0)
              << "rows from " << first;
          EXPECT_EQ(std::memcmp(modulation->Data(), whole.GetModulation().Row(first), bytes), 0)
              << "rows from " << first;
          nextRow += phase.GetRows();
        });
    EXPECT_EQ(nextRow, kRows);
    EXPECT_TRUE(record.Ok()) << record.message;
    EXPECT_EQ(record.algorithm, expected.algorithm);
    EXPECT_EQ(record.validFraction, expected.validFraction);
    EXPECT_LT(record.validFraction, 0.6) << threads << " threads: rows 0-9 have no data";
  }
  FrameBuffer flat;
  ASSERT_TRUE(flat.Allocate(Core::Window2D(0, 0, 4, 4), 7, FrameBuffer::kRes8Bit));
  Testing::FillPsiStack(flat, Testing::ShiftsFor7(), [](int, int) {
    return Testing::PixelFringe{100.0, 0.0, 0.0};
  });
  PsiJob job;
  const PsiRecord expected = job.Run(flat, {}, "flat.tif", false);
  const PsiRecord record = job.RunInBands(flat, {}, "flat.tif", false, 3,
                                          [](int, const DoubleMatrix2D&, const DoubleMatrix2D*) {});
  EXPECT_EQ(record.outcome, JobOutcome::kNoResult);
  EXPECT_EQ(record.message, expected.message);
}

TEST(PsiCheckJobTest, StepMapAndGainEqualTheCalculatorsAndReadTheShifterError) {
  // The shifter moves 5 % too far: the step is 94.5 degrees.
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Core::Window2D(0, 0, kRows, kCols), 7, FrameBuffer::kRes16Bit));
  frames.SetMaxValue(4095);
  Testing::FillPsiStack(frames, Testing::ShiftsFor7(0.05), [](int r, int c) {
    return Testing::PixelFringe{2000.0, 1500.0, 0.21 * c - 0.13 * r};
  });
  Psi::Corvane7 algorithm;
  Psi::CorvaneCalculator corvane;
  corvane.SetAlgorithm(&algorithm);
  DoubleMatrix2D steps(kRows, kCols);
  steps.SetAll(DoubleMatrix2D::NoData());
  corvane.Calculate(frames, nullptr, steps);
  Psi::GainCorrectionPmi pmi;
  Psi::GainCorrectionCalculator gain;
  gain.SetAlgorithm(&pmi);
  gain.Calculate(frames, nullptr);

  const std::vector<std::uint16_t> host = HostCopy<std::uint16_t>(frames);
  PsiCheckOptions options;
  options.maxValue = 4095;
  std::vector<double> map;
  const PsiCheckRecord record =
      RunPsiCheck(ArrayView::Contiguous(host.data(), SampleType::kUInt16, 7, kRows, kCols), options,
                  ViewOf(map, kRows, kCols));
  ASSERT_TRUE(record.Ok()) << record.message;
  ASSERT_TRUE(record.corvaneResult && record.gainResult);
  ExpectSameMap(steps, map);
  EXPECT_EQ(record.gainCorrection, gain.GetGainCorrection());
  // 0.3 degrees: the rounding of 1500-count fringes to whole counts.
  EXPECT_NEAR(record.stepDegreesMedian, 94.5, 0.3);
  EXPECT_LT(record.gainCorrection, 0.0);  // moving too far reads negative
}

TEST(SwliJobTest, HeightsEqualTheGeneratorsWithGivenOrFoundPeaksAndTheSurfaceComesBack) {
  Testing::ScanSettings settings;
  settings.rows = 12;
  settings.cols = 16;
  settings.noiseSigmaCounts = 1.0;
  Testing::DiscriminatedScan scan;
  ASSERT_TRUE(Testing::MakeDiscriminatedScan(scan, settings, Testing::SphereWithStepNm, 7));

  namespace Swli = ::Quarn::Metrology::PhaseProcessing::Core::Swli;
  Swli::PhaseAlgorithmCentroid centroid;
  centroid.SetMinimumModulation(15.0);
  centroid.SetScanIncrement(Core::UnitNumber(80.0, Core::LinearConverter(Core::Units::kNanometers)));
  Core::IntMatrix2D intensity;
  centroid.SetIntensityMatrix(intensity);
  Swli::PhaseGenerator generator(&centroid);
  generator.SetAllowMultiThreads(false);
  generator.SetMaxNumThreads(1);
  DoubleMatrix2D height(settings.rows, settings.cols);
  height.SetAll(0.0);
  generator.Process(scan.frames, scan.peaks, scan.auxiliary, height);
  ASSERT_TRUE(generator.GetStatus().IsOk());

  SwliOptions options;
  options.scanStepNm = 80.0;
  options.threads = 1;
  SwliJob job;
  const SwliRecord record = job.Run(scan.frames, options, "scan", &scan.peaks);
  ASSERT_TRUE(record.Ok()) << record.message;
  for (std::int64_t i = 0; i < height.GetCount(); ++i) {
    ASSERT_EQ(job.GetHeight().At(i), height.At(i));
    ASSERT_EQ(job.GetIntensity().At(i), intensity.At(i));
  }
  // The centroid counts positions from one (one step above the surface); a coherence envelope of
  // about 1.6 um sampled at 80 nm with 1 count of noise on 60 locates to well within 40 nm.
  for (int r = 0; r < settings.rows; ++r)
    for (int c = 0; c < settings.cols; ++c)
      EXPECT_NEAR(job.GetHeight()(r, c) - 80.0, Testing::SphereWithStepNm(r, c), 40.0);

  // Without peaks the coherence discriminator finds them: the same heights as the discriminator and
  // the generator called one after the other.
  Core::IntMatrix2D found;
  Swli::FindPeakFrames(scan.frames, found, 1);
  generator.Process(scan.frames, found, scan.auxiliary, height);
  const SwliRecord discriminated = job.Run(scan.frames, options, "scan");
  ASSERT_TRUE(discriminated.Ok()) << discriminated.message;
  for (std::int64_t i = 0; i < height.GetCount(); ++i)
    ASSERT_EQ(job.GetHeight().At(i), height.At(i));

  options.scanStepNm = -1.0;
  EXPECT_EQ(job.Run(scan.frames, options, "scan", &scan.peaks).message,
            "--scan-step: must be a positive number of nanometres, not -1");
}

// A fine scan (20 nm steps of 600 nm light: 15 frames per fringe) through the job equals the
// sampling-aware pipeline called by hand: the period measured from the scan or set from the
// wavelength, the fda evaluated as interleaved subsamples, the centroid's default threshold scaled.
// The record states what was chosen, and the surface comes back.
struct FineScanCase {
  const char* algorithm;
  double wavelengthNm;  // 0: measured
};

class SwliJobFineScanTest : public ::testing::TestWithParam<FineScanCase> {};

TEST_P(SwliJobFineScanTest, EqualsTheSamplingAwarePipelineAndStatesItsChoices) {
  namespace Swli = ::Quarn::Metrology::PhaseProcessing::Core::Swli;
  const FineScanCase param = GetParam();
  const bool fda = std::string(param.algorithm) == "fda";
  Testing::ScanSettings settings;
  settings.rows = 12;
  settings.cols = 24;
  settings.framesScanned = 640;
  settings.scanStepNm = 20.0;
  settings.noiseSigmaCounts = 1.0;
  Testing::SeededRandom random;
  SCOPED_TRACE("seed " + std::to_string(random.Seed()));
  FrameBuffer frames;
  ASSERT_TRUE(Testing::MakeSyntheticScan(frames, settings, Testing::SphereWithStepNm, &random));

  // By hand.
  Core::IntMatrix2D peaks;
  Swli::FindPeakFrames(frames, peaks, 1);
  Swli::ScanSampling sampling;
  if (param.wavelengthNm > 0.0) {
    sampling.SetFromWavelength(param.wavelengthNm, settings.scanStepNm);
  } else {
    sampling.Measure(frames, peaks);
  }
  ASSERT_TRUE(sampling.IsKnown());
  Swli::PhaseAlgorithmCentroid centroid;
  Swli::PhaseAlgorithmFda fdaAlgorithm;
  Swli::PhaseAlgorithm& algorithm =
      fda ? static_cast<Swli::PhaseAlgorithm&>(fdaAlgorithm) : static_cast<Swli::PhaseAlgorithm&>(centroid);
  centroid.SetMinimumModulation(sampling.ScaledMinimumModulation(15.0));
  fdaAlgorithm.SetMinimumModulation(15.0);
  sampling.ApplyTo(fdaAlgorithm);
  algorithm.SetScanIncrement(Core::UnitNumber(20.0, Core::LinearConverter(Core::Units::kNanometers)));
  Core::IntMatrix2D intensity;
  algorithm.SetIntensityMatrix(intensity);
  DoubleMatrix2D height(settings.rows, settings.cols);
  height.SetAll(0.0);
  const int factor = fda ? sampling.SubsampleFactor(settings.framesScanned) : 1;
  if (fda) {
    ASSERT_GT(factor, 1);
    Swli::SubsampledEvaluation subsampled;
    ASSERT_TRUE(subsampled.Process(frames, factor, 20.0, algorithm, sampling, 1, height).IsOk());
  } else {
    Core::IntMatrix2D auxiliary(settings.rows, settings.cols);
    auxiliary.SetAll(0);
    Swli::PhaseGenerator generator(&algorithm);
    generator.SetAllowMultiThreads(false);
    generator.Process(frames, peaks, auxiliary, height);
    ASSERT_TRUE(generator.GetStatus().IsOk());
  }

  // Through the job, on a host copy of the scan, with several thread counts.
  const std::vector<std::uint8_t> host = HostCopy<std::uint8_t>(frames);
  const ArrayView view = ArrayView::Contiguous(host.data(), SampleType::kUInt8, settings.framesScanned,
                                               settings.rows, settings.cols);
  for (const int threads : {1, 3}) {
    SwliOptions options;
    options.algorithm = param.algorithm;
    options.scanStepNm = 20.0;
    options.wavelengthNm = param.wavelengthNm;
    options.threads = threads;
    std::vector<double> hostHeight, hostIntensity;
    const SwliRecord record = RunSwli(view, options, ViewOf(hostHeight, settings.rows, settings.cols),
                                      ViewOf(hostIntensity, settings.rows, settings.cols));
    ASSERT_TRUE(record.Ok()) << record.message;
    ExpectSameMap(height, hostHeight);
    EXPECT_EQ(record.framesPerFringe, sampling.GetFringePeriodFrames());
    EXPECT_EQ(record.periodFromWavelength, param.wavelengthNm > 0.0);
    EXPECT_EQ(record.subsamples, factor);
    EXPECT_EQ(record.minModulationScaled, !fda);
    EXPECT_EQ(record.minModulation, fda ? 15.0 : sampling.ScaledMinimumModulation(15.0));
    if (fda) {
      EXPECT_EQ(record.firstBandBin, fdaAlgorithm.GetFirstBandBin());
      EXPECT_EQ(record.lastBandBin, fdaAlgorithm.GetLastBandBin());
    }
    EXPECT_EQ(record.validFraction, 1.0);
  }
  // Half the centre wavelength over the step; measured from noisy fringes to a few percent.
  EXPECT_NEAR(sampling.GetFringePeriodFrames(), 15.0, 0.5);
  // The fda's averaged subsample heights keep the fringe phase's nanometre precision (1 count of
  // noise on 60-count fringes); the centroid sits one step above the surface and locates the
  // 1.8 um envelope to well within a tenth of it.
  const double offset = fda ? 0.0 : 20.0, tolerance = fda ? 5.0 : 180.0;
  for (int r = 0; r < settings.rows; ++r)
    for (int c = 0; c < settings.cols; ++c)
      EXPECT_NEAR(height(r, c) - offset, Testing::SphereWithStepNm(r, c), tolerance) << r << "," << c;
}

INSTANTIATE_TEST_SUITE_P(Sampling, SwliJobFineScanTest,
                         ::testing::Values(FineScanCase{"centroid", 0.0}, FineScanCase{"fda", 0.0},
                                           FineScanCase{"fda", 600.0}),
                         [](const auto& info) {
                           return std::string(info.param.algorithm) +
                                  (info.param.wavelengthNm > 0.0 ? "FromWavelength" : "Measured");
                         });

TEST(CarrierJobTest, PhaseAndModulationEqualThePipelines) {
  constexpr int n = 64;
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Core::Window2D(0, 0, n, n), 1, FrameBuffer::kRes8Bit));
  Testing::CarrierScene scene;
  scene.phase = [](int r, int c) { return 1e-3 * ((r - 32) * (r - 32) + (c - 32) * (c - 32)); };
  Testing::FillCarrierFrame(frames, 0, scene);
  namespace Kinephase = Psi::Kinephase;
  Kinephase::KinephaseAlgorithm kinephase;
  kinephase.SelectKernel(Kinephase::KpKernelSelector(4, 2));
  kinephase.SetModulationThreshold(10.0);
  kinephase.SetIntensity(frames, 0);
  DoubleMatrix2D phase, modulation;
  kinephase.Process(phase, modulation);
  ASSERT_TRUE(kinephase.GetStatus().IsOk());

  const std::vector<std::uint8_t> host = HostCopy<std::uint8_t>(frames);
  std::vector<double> hostPhase, hostModulation;
  const CarrierRecord record = RunCarrier(ArrayView::Contiguous(host.data(), SampleType::kUInt8, 1, n, n), {},
                                          ViewOf(hostPhase, n, n), ViewOf(hostModulation, n, n));
  ASSERT_TRUE(record.Ok()) << record.message;
  ExpectSameMap(phase, hostPhase);
  ExpectSameMap(modulation, hostModulation);
  EXPECT_GT(record.validFraction, 0.9);

  // Without a modulation map the phase is the same to the bit (the modulation only feeds the
  // threshold, which the pipeline evaluates either way), no modulation map is made, and the
  // frames are gone once the pipeline holds its copy.
  FrameBuffer lent;
  JobRecord made;
  ASSERT_TRUE(MakeFrameBuffer(ArrayView::Contiguous(host.data(), SampleType::kUInt8, 1, n, n), lent, made));
  CarrierJob job;
  const CarrierRecord phaseOnly = job.Run(lent, {}, "frame", false);
  ASSERT_TRUE(phaseOnly.Ok()) << phaseOnly.message;
  EXPECT_EQ(lent.GetNumberOfFrames(), 0);
  EXPECT_EQ(job.GetModulation().GetCount(), 0);
  EXPECT_EQ(phaseOnly.validFraction, record.validFraction);
  std::vector<double> alone;
  ASSERT_TRUE(CopyMap(job.GetPhase(), ViewOf(alone, n, n), made, "phase"));
  ExpectSameMap(phase, alone);
}

TEST(QuadrantsJobTest, TwoAndFourQuadrantsEqualTheEvaluator) {
  constexpr int n = 32;
  // Quadrant maps of one surface with an astigmatism (x y term) whose sign follows the carrier.
  std::vector<double> q[5];
  for (int k = 1; k <= 4; ++k) {
    q[k].resize(n * n);
    const double sign = k % 2 == 1 ? 1.0 : -1.0;
    for (int r = 0; r < n; ++r)
      for (int c = 0; c < n; ++c)
        q[k][r * n + c] = 5.0 * r + sign * 0.1 * (c - 16) * (r - 16) + (k == 2 ? 1.0 : 0.0);
  }
  q[1][0] = std::nan("");  // no data in one pixel of one map
  auto view = [&](int k) {
    return ArrayView::Contiguous(q[k].data(), SampleType::kDouble, 1, n, n, "q" + std::to_string(k));
  };
  for (const bool four : {false, true}) {
    DoubleMatrix2D maps[5];
    for (int k = 1; k <= 4; ++k) {
      maps[k].Resize(n, n);
      for (int i = 0; i < n * n; ++i)
        maps[k].At(i) = std::isnan(q[k][i]) ? DoubleMatrix2D::NoData() : q[k][i];
    }
    DoubleMatrix2D final, calibration(n, n);
    calibration.SetAll(DoubleMatrix2D::NoData());
    Psi::Kinephase::FourQuadrantEvaluator evaluator;
    evaluator.SetMeasurementQ1(&maps[1]);
    evaluator.SetMeasurementQ3(&maps[3]);
    if (four) {
      evaluator.SetMeasurementQ2(&maps[2]);
      evaluator.SetMeasurementQ4(&maps[4]);
    }
    evaluator.SetFinalPhaseMap(&final);
    evaluator.SetCalibrationMap(&calibration);
    four ? evaluator.EvaluateFour() : evaluator.EvaluateTwo();

    std::vector<double> hostFinal, hostCalibration;
    const QuadrantsRecord record =
        RunQuadrants(view(1), view(3), four ? view(2) : ArrayView{}, four ? view(4) : ArrayView{}, {},
                     ViewOf(hostFinal, n, n), ViewOf(hostCalibration, n, n));
    ASSERT_TRUE(record.Ok()) << record.message;
    EXPECT_EQ(record.quadrants, four ? 4 : 2);
    ExpectSameMap(final, hostFinal);
    ExpectSameMap(calibration, hostCalibration);
    // Q1 and Q3 carry the same astigmatism, so their mean keeps it: 0.1 x 31 x 31 ... a PV well above
    // the 10 nm tolerance.
    EXPECT_TRUE(record.twoPvAvailable);
    EXPECT_TRUE(record.fourRequired);
    EXPECT_DOUBLE_EQ(record.validFraction, (n * n - 1.0) / (n * n));
  }
  EXPECT_EQ(RunQuadrants(view(1), view(3), view(2), ArrayView{}, {}, {}).message,
            "--q2 and --q4 go together: give both for a four-quadrant evaluation, or neither");
}

TEST(SpotJobTest, PositionAndSpotEqualTheDetectors) {
  Core::IntMatrix2D image(120, 160);
  Testing::SpotScene scene;
  scene.background = 10.0;
  scene.spots = {{100.0, 40.0, 3.0, 2.5, 180.0}};  // right of and above the centre (80, 60)
  Testing::FillSpotImage(image, scene);
  namespace Alignment = ::Quarn::Metrology::PhaseProcessing::Core::Alignment;
  Alignment::AlignSpotDetector detector;
  detector.Initialize();
  detector.SetReticleCenterX(80.0);
  detector.SetReticleCenterY(60.0);
  detector.SetInterestRegionRadius(55.0);
  detector.SetReticleCenterR(5.0);
  detector.SetSaturationThreshold(250.0);
  detector.SetMaxNumberOfSaturatedPixels(32);
  detector.SetInput(&image);
  const Alignment::AsdSpotPosition expected = detector.DetectSpotPosition();

  std::vector<std::uint8_t> host(static_cast<std::size_t>(image.GetCount()));
  for (std::size_t i = 0; i < host.size(); ++i)
    host[i] = static_cast<std::uint8_t>(image.At(static_cast<std::int64_t>(i)));
  SpotOptions options;
  options.centerX = 80.0;
  options.centerY = 60.0;
  options.radius = 55.0;
  options.obscuration = 5.0;
  const SpotRecord record =
      RunSpot(ArrayView::Contiguous(host.data(), SampleType::kUInt8, 1, 120, 160), options);
  ASSERT_TRUE(record.Ok()) << record.message;
  EXPECT_EQ(record.position, expected.ToString());
  EXPECT_EQ(record.position, "Quadrant1");
  ASSERT_EQ(record.spots.size(), 1u);
  EXPECT_EQ(record.spots[0].text[0], detector.GetProperty("Region.0.CenterOfMassX"));
  // A noise-free Gaussian over a flat background: the centre of mass within a tenth of a pixel.
  EXPECT_NEAR(record.spots[0].centerOfMassX, 100.0, 0.1);
  EXPECT_NEAR(record.spots[0].centerOfMassY, 40.0, 0.1);
  EXPECT_EQ(record.properties.size(), detector.GetPropertyKeys().size());
}

// SiO2 on Si, thickness varied 0.3 .. 0.8 µm in 2 nm steps (251 library signals).
constexpr const char* kFilmStack = R"({"materials": {"SiO2": {"model": "Complex-Cauchy/um",
 "parameters": [1.4485, 0.00354, 0, 0, 0, 0]}}, "ambient": "Air",
 "layers": [{"material": "SiO2", "thickness_um": 1.0}], "substrate": "Si", "zero_height_layer": 0,
 "source": [{"amplitude": 1.0, "centre_rad_per_um": 10.47, "width_rad_per_um": 1.2}], "source_cutoff": 0.02,
 "numerical_aperture": 0.2, "polarization": "CircularlyPolarized",
 "vary": [{"layer": 0, "kind": "Thickness", "from_um": 0.3, "to_um": 0.8, "step_um": 0.002}]})";

// A film scan made of the library's own signals, each delayed by a fraction of a frame: the search
// must give back each pixel's signal (its thickness) and delay (its height), reject the one pixel
// that reaches the saturation level in every map, report every row once to the progress callback,
// and give the same maps on one thread and on three.
TEST(FilmJobTest, KnownFilmBackSaturatedPixelRejectedRowsCountedThreadCountIrrelevant) {
  constexpr int kFrames = 64, kRowsF = 5, kColsF = 7;
  constexpr double kStepNm = 80.0;
  DoubleMatrix2D library;
  FilmLibraryInfo info;
  JobRecord generated;
  ASSERT_TRUE(GenerateFilmLibrary(kFilmStack, "stack", kFrames, kStepNm, library, info, generated))
      << generated.message;
  const auto signal = [](int r, int c) { return 31 * c + 7 * r; };
  const auto delay = [](int r, int c) { return 0.25 * r - 0.2 * c + 0.4; };
  const int bins = kFrames / 2 + 1;
  std::vector<std::uint16_t> scan(static_cast<std::size_t>(kFrames) * kRowsF * kColsF);
  for (int r = 0; r < kRowsF; ++r)
    for (int c = 0; c < kColsF; ++c)
      for (int j = 0; j < kFrames; ++j) {
        double v = 0.0;
        for (int m = 1; m < bins - 1; ++m) {
          const std::complex<double> x(library(signal(r, c), 2 * m), library(signal(r, c), 2 * m + 1));
          v += 2.0 * (x * std::polar(1.0, 2.0 * std::numbers::pi * m * (j - delay(r, c)) / kFrames)).real();
        }
        scan[(static_cast<std::size_t>(j) * kRowsF + r) * kColsF + c] =
            static_cast<std::uint16_t>(std::lround(20000.0 + 20000.0 * v / kFrames));
      }
  // Pixel (2, 3) clips at the level set below.
  scan[(static_cast<std::size_t>(kFrames / 2) * kRowsF + 2) * kColsF + 3] = 61000;

  std::vector<double> first[4];
  for (int threads : {1, 3}) {
    SCOPED_TRACE("threads " + std::to_string(threads));
    std::vector<double> maps[4];
    std::vector<int> counts;
    std::mutex lock;
    FilmOptions options;
    options.scanStepNm = kStepNm;
    options.search = "linear";
    options.maxValue = 61000;
    options.threads = threads;
    options.progress = [&](int done, int rows) {
      const std::lock_guard<std::mutex> hold(lock);
      EXPECT_EQ(rows, kRowsF);
      counts.push_back(done);
    };
    const FilmRecord record = RunFilm(
        ArrayView::Contiguous(scan.data(), SampleType::kUInt16, kFrames, kRowsF, kColsF, "scan"), kFilmStack,
        "stack", options, ViewOf(maps[0], kRowsF, kColsF), ViewOf(maps[1], kRowsF, kColsF),
        ViewOf(maps[2], kRowsF, kColsF), ViewOf(maps[3], kRowsF, kColsF));
    ASSERT_TRUE(record.Ok()) << record.message;
    EXPECT_EQ(record.signals, 251);
    EXPECT_EQ(record.maxValue, 61000);
    EXPECT_DOUBLE_EQ(record.validFraction, 1.0 - 1.0 / (kRowsF * kColsF));
    std::sort(counts.begin(), counts.end());
    EXPECT_EQ(counts, (std::vector<int>{1, 2, 3, 4, 5}));
    for (int r = 0; r < kRowsF; ++r)
      for (int c = 0; c < kColsF; ++c) {
        const std::size_t i = static_cast<std::size_t>(r) * kColsF + c;
        if (r == 2 && c == 3) {
          for (const auto& map : maps)
            EXPECT_TRUE(std::isnan(map[i]));
          continue;
        }
        // Noise-free but for 16-bit rounding: the library step's interpolation leaves a few
        // hundredths of a nanometre in thickness, height within a small fraction of the 80 nm step.
        EXPECT_NEAR(maps[1][i], 300.0 + 2.0 * signal(r, c), 0.1) << r << "," << c;
        EXPECT_NEAR(maps[0][i], (kFrames / 2 + delay(r, c)) * kStepNm, 0.3) << r << "," << c;
        EXPECT_TRUE(std::isnan(maps[2][i]));  // one-dimensional library
        EXPECT_GT(maps[3][i], 0.999);
      }
    if (threads == 1) {
      std::copy(std::begin(maps), std::end(maps), std::begin(first));
    } else {
      for (int k = 0; k < 4; ++k)
        for (std::size_t i = 0; i < first[k].size(); ++i)
          EXPECT_TRUE(first[k][i] == maps[k][i] || (std::isnan(first[k][i]) && std::isnan(maps[k][i])));
    }
  }

  // A library definition the host built itself gives what its STACK.json text gives.
  FrameBuffer frames;
  JobRecord made;
  ASSERT_TRUE(MakeFrameBuffer(
      ArrayView::Contiguous(scan.data(), SampleType::kUInt16, kFrames, kRowsF, kColsF, "scan"), frames,
      made));
  LibDef::Library definition;
  LibDef::LibraryJson reader;
  ASSERT_TRUE(reader.Read(kFilmStack, definition));
  FilmOptions linear;
  linear.scanStepNm = kStepNm;
  linear.search = "linear";
  linear.maxValue = 61000;
  FilmJob fromDefinition;
  ASSERT_TRUE(fromDefinition.Run(frames, definition, "stack", linear, "scan").Ok());
  ExpectSameMap(fromDefinition.GetThickness(), first[1]);

  // A library made for another sampling is refused until resampled.
  FilmOptions options;
  options.scanStepNm = 40.0;
  FilmJob job;
  const FilmRecord refused = job.Run(frames, library, info, options, "scan");
  EXPECT_EQ(refused.outcome, JobOutcome::kBadInput);
  EXPECT_EQ(refused.message,
            "the library is for 64 frames of 80 nm; scan needs 64 of 40 nm (resample it first)");
}

}  // namespace
}  // namespace Quarn::Jobs

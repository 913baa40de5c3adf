#include "Analysis/Core/Fft2D.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/detail/FftwPlanning.h"
#include "Synthetic/SeededRandom.h"

namespace Quarn::Metrology::Analysis::Core {
namespace {

using Complex = std::complex<double>;
using Effort = Fft2D::PlanningEffort;
constexpr double kTwoPi = 2.0 * std::numbers::pi;

// Sizes that exercise every path: one row or column, odd and prime lengths, fewer columns than a
// column block, a block plus a tail, and 256 columns (rows then get a padded stride).
const std::vector<std::pair<int, int>> kSizes = {{1, 1},   {1, 9},   {7, 1},   {5, 7},    {12, 10},
                                                 {13, 16}, {33, 20}, {17, 50}, {64, 256}, {40, 96}};

DoubleMatrix2D RandomImage(int rows, int cols, Testing::SeededRandom& random) {
  DoubleMatrix2D image(rows, cols);
  for (std::int64_t i = 0; i < image.GetCount(); ++i)
    image.At(i) = random.Uniform(-1.0, 1.0);
  return image;
}

std::vector<Complex> Snapshot(const Fft2D& fft) {
  std::vector<Complex> values;
  for (int r = 0; r < fft.GetRows(); ++r)
    values.insert(values.end(), fft.GetRow(r), fft.GetRow(r) + fft.GetColumns());
  return values;
}

// The planning effort is a process-wide setting: a test that changes it puts the default back.
struct EffortGuard {
  explicit EffortGuard(Effort effort) { Fft2D::SetPlanningEffort(effort); }
  ~EffortGuard() { Fft2D::SetPlanningEffort(Effort::kMeasure); }
};

class Fft2DSizeTest : public ::testing::TestWithParam<std::pair<int, int>> {};

// The definition evaluated directly: X[k, l] = sum x[r, c] e^{-2 pi i (k r / R + l c / C)}, with
// the plans of either planner, at 40 bins drawn at random. Rounding of the fast transform grows
// like log(R C) eps times the largest partial sum (at most R C here), so 1e-12 of R C is a wide
// margin that still catches a wrong sign, scale or bin order. Rows and column blocks are shared
// out over the workers with the same arithmetic whoever does them: every thread count gives the
// single-threaded bits, and so does the fused round trip against its separate steps.
TEST_P(Fft2DSizeTest, MatchesTheDefinitionInvertsAndIgnoresTheThreadCount) {
  const auto [rows, cols] = GetParam();
  Testing::SeededRandom random(11 + rows * 100 + cols);
  SCOPED_TRACE(random.Describe());
  const DoubleMatrix2D image = RandomImage(rows, cols, random);
  for (const Effort effort : {Effort::kMeasure, Effort::kEstimate}) {
    SCOPED_TRACE(effort == Effort::kMeasure ? "measured plans" : "estimated plans");
    const EffortGuard guard(effort);
    Fft2D fft;
    fft.SetAllowMultiThreads(false);
    ASSERT_TRUE(fft.SetSize(rows, cols));
    ASSERT_GE(fft.GetRowStride(), cols);
    ASSERT_TRUE(fft.SetData(image, false, false, false));
    ASSERT_TRUE(fft.Transform(false));
    const std::vector<Complex> forward = Snapshot(fft);
    for (int i = 0; i < 40; ++i) {
      const int k = random.UniformInt(0, rows - 1), l = random.UniformInt(0, cols - 1);
      Complex expected = 0.0;
      for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < cols; ++c) {
          expected += image(r, c) * std::polar(1.0, -kTwoPi * (static_cast<double>(k * r) / rows +
                                                               static_cast<double>(l * c) / cols));
        }
      }
      ASSERT_NEAR(std::abs(fft.GetRow(k)[l] - expected), 0.0, 1e-12 * rows * cols) << "bin " << k << "," << l;
    }
    ASSERT_TRUE(fft.Transform(true));
    const std::vector<Complex> back = Snapshot(fft);
    for (std::size_t i = 0; i < back.size(); ++i)
      ASSERT_NEAR(std::abs(back[i] - image.At(static_cast<std::int64_t>(i))), 0.0,
                  1e-13 * (1 + std::log2(rows * cols)));
    // The fused round trip against its steps, with a weight of 0 to 1 on every bin of the spectrum.
    int weightRows = rows;
    const Fft2D::BlockPass weigh{[](void* context, int first, int count, Complex* z, std::ptrdiff_t stride) {
                                   for (int k = 0; k < *static_cast<int*>(context); ++k) {
                                     for (int l = first; l < first + count; ++l)
                                       z[k * stride + l - first] *= ((7 * k + 3 * l) % 5) * 0.25;
                                   }
                                 },
                                 &weightRows};
    ASSERT_TRUE(fft.SetData(image, false, false, false));
    ASSERT_TRUE(fft.Transform(false));
    weigh.run(weigh.context, 0, cols, fft.GetRow(0), fft.GetRowStride());
    ASSERT_TRUE(fft.Transform(true));
    const std::vector<Complex> filtered = Snapshot(fft);
    for (const int threads : {2, 3, 8}) {
      Fft2D threaded;
      threaded.SetNumberOfThreads(threads);
      ASSERT_TRUE(threaded.SetSize(rows, cols));
      ASSERT_TRUE(threaded.SetData(image, false, false, false));
      ASSERT_TRUE(threaded.Transform(false));
      ASSERT_EQ(Snapshot(threaded), forward) << threads << " threads";
      ASSERT_TRUE(threaded.Transform(true));
      ASSERT_EQ(Snapshot(threaded), back) << threads << " threads";
      // Each row of the outcome reaches the row pass once.
      struct Outcome {
        int cols;
        std::vector<Complex> values;
        std::vector<int> visits;
      } outcome{cols, std::vector<Complex>(filtered.size()),
                std::vector<int>(static_cast<std::size_t>(rows), 0)};
      const Fft2D::RowPass keep{[](void* context, int r, Complex* elements) {
                                  auto& o = *static_cast<Outcome*>(context);
                                  std::copy(elements, elements + o.cols, o.values.begin() + r * o.cols);
                                  ++o.visits[static_cast<std::size_t>(r)];
                                },
                                &outcome};
      ASSERT_TRUE(threaded.FilterRoundTrip(image, weigh, keep));
      ASSERT_EQ(outcome.values, filtered) << threads << " threads";
      ASSERT_EQ(outcome.visits, std::vector<int>(static_cast<std::size_t>(rows), 1));
      // Rows handed over by a loader instead of a matrix give the same bits, and a matrix run
      // after it reads the matrix again, not the loader.
      const Fft2D::RowPass load{[](void* context, int r, Complex* elements) {
                                  const auto& source = *static_cast<const DoubleMatrix2D*>(context);
                                  for (int c = 0; c < source.GetColumns(); ++c)
                                    elements[c] = Complex(source(r, c), 0.0);
                                },
                                const_cast<DoubleMatrix2D*>(&image)};
      std::fill(outcome.visits.begin(), outcome.visits.end(), 0);
      ASSERT_TRUE(threaded.FilterRoundTrip(load, weigh, keep));
      ASSERT_EQ(outcome.values, filtered) << threads << " threads, loaded rows";
      ASSERT_EQ(outcome.visits, std::vector<int>(static_cast<std::size_t>(rows), 1));
      DoubleMatrix2D zero(rows, cols);
      zero.SetAll(0.0);
      ASSERT_TRUE(threaded.FilterRoundTrip(zero, weigh, keep));
      ASSERT_EQ(outcome.values, std::vector<Complex>(filtered.size())) << "the matrix after the loader";
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, Fft2DSizeTest, ::testing::ValuesIn(kSizes), [](const auto& info) {
  return std::to_string(info.param.first) + "x" + std::to_string(info.param.second);
});

// A round trip that gives the transform's memory back as its last pass reads it hands on the rows
// of the one that keeps it, bit for bit, on one thread and on three (whose row ranges share pages
// at their borders), and again on the memory given back: the next round trip and a plain transform
// after it see nothing of the release. The data (300 x 1000 complex, 4.8 MB) is large enough to be
// mapped from the kernel and to span several huge pages, so pages are given back in the middle of
// the pass.
TEST(Fft2DTest, ARoundTripThatGivesItsMemoryBackHandsOnTheSameRows) {
  const int rows = 300, cols = 1000;
  Testing::SeededRandom random(12);
  SCOPED_TRACE(random.Describe());
  const DoubleMatrix2D image = RandomImage(rows, cols, random);
  const EffortGuard guard(Effort::kEstimate);  // measuring plans for this size would take a second
  struct Outcome {
    std::vector<Complex> values = std::vector<Complex>(static_cast<std::size_t>(rows) * cols);
  };
  const Fft2D::RowPass keep{[](void* context, int r, Complex* elements) {
                              auto& values = static_cast<Outcome*>(context)->values;
                              std::copy(elements, elements + cols, values.begin() + r * cols);
                            },
                            nullptr};
  const Fft2D::BlockPass halve{[](void*, int, int count, Complex* z, std::ptrdiff_t stride) {
                                 for (int k = 0; k < rows; k += 2) {
                                   for (int l = 0; l < count; ++l)
                                     z[k * stride + l] *= 0.5;
                                 }
                               },
                               nullptr};
  Outcome kept;
  Fft2D reference;
  reference.SetAllowMultiThreads(false);
  ASSERT_TRUE(reference.SetSize(rows, cols));
  ASSERT_TRUE(reference.FilterRoundTrip(image, halve, {keep.run, &kept}));
  ASSERT_TRUE(reference.SetData(image, false, false, false));
  ASSERT_TRUE(reference.Transform(false));
  const std::vector<Complex> forward = Snapshot(reference);
  for (const int threads : {1, 3}) {
    Fft2D fft;
    fft.SetNumberOfThreads(threads);
    fft.SetRoundTripReleasesData(true);
    ASSERT_TRUE(fft.SetSize(rows, cols));
    for (int run = 0; run < 2; ++run) {
      Outcome released;
      ASSERT_TRUE(fft.FilterRoundTrip(image, halve, {keep.run, &released}));
      ASSERT_EQ(released.values, kept.values) << threads << " threads, run " << run;
    }
    ASSERT_TRUE(fft.SetData(image, false, false, false));
    ASSERT_TRUE(fft.Transform(false));
    EXPECT_EQ(Snapshot(fft), forward) << threads << " threads";
  }
}

// A fringe a + b cos(theta), theta = 2 pi (u c / C + v r / R), has two side lobes of b R C / 2,
// e^{+i theta} in bin (v, u) and e^{-i theta} in bin (-v, -u). Keeping one lobe and transforming
// back leaves a signal of magnitude b / 2 with the fringe's phase in every pixel: what the
// carrier-fringe pipeline's modulation of 2 |z| relies on.
TEST(Fft2DTest, OneLobeOfARealFringeCarriesHalfItsAmplitude) {
  const int rows = 48, cols = 64, u = 16, v = -12;  // lobe at column 16, row 36 (= -12 + 48)
  const double a = 110.0, b = 80.0;
  const auto theta = [&](int r, int c) { return kTwoPi * (u * c / double(cols) + v * r / double(rows)); };
  DoubleMatrix2D fringe(rows, cols);
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c)
      fringe(r, c) = a + b * std::cos(theta(r, c));
  }
  Fft2D fft;
  ASSERT_TRUE(fft.SetSize(rows, cols));
  ASSERT_TRUE(fft.SetData(fringe, false, false, false));
  ASSERT_TRUE(fft.Transform(false));
  const double n = rows * cols;
  EXPECT_NEAR(fft.MagSquared(rows + v, u), b * n / 2 * b * n / 2, 1e-9 * b * n * b * n);
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      if (r != rows + v || c != u) fft.GetRow(r)[c] = 0.0;
    }
  }
  ASSERT_TRUE(fft.Transform(true));
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      ASSERT_NEAR(std::abs(fft.GetRow(r)[c]), b / 2, 1e-12 * b);
      ASSERT_NEAR(std::remainder(std::arg(fft.GetRow(r)[c]) - theta(r, c), kTwoPi), 0.0, 1e-12);
    }
  }
}

// Plans are made once per size and planner and then served from the cache, and threads that size
// transforms at the same time plan one after the other (FFTW's planner is not thread-safe; run
// under ThreadSanitizer this test sees any unguarded planner call). Sizes of their own, so no
// other test has planned them.
TEST(Fft2DTest, PlansAreMadeOncePerSizeAndPlanningIsSerialised) {
  Testing::SeededRandom random(4);
  SCOPED_TRACE(random.Describe());
  const std::int64_t before = detail::FftwPlanSetsMade();
  Fft2D first;
  ASSERT_TRUE(first.SetSize(29, 37));
  EXPECT_EQ(detail::FftwPlanSetsMade(), before + 1);
  Fft2D second;
  ASSERT_TRUE(second.SetSize(29, 37));
  EXPECT_EQ(detail::FftwPlanSetsMade(), before + 1) << "the second transform of the size reuses the plans";
  {
    const EffortGuard guard(Effort::kEstimate);
    Fft2D estimated;
    ASSERT_TRUE(estimated.SetSize(29, 37));
    EXPECT_EQ(detail::FftwPlanSetsMade(), before + 2) << "the other planner has plans of its own";
  }

  const std::vector<std::pair<int, int>> sizes = {{31, 23}, {19, 41}, {26, 35}, {43, 17}};
  std::vector<DoubleMatrix2D> images;
  for (const auto& [rows, cols] : sizes)
    images.push_back(RandomImage(rows, cols, random));
  std::vector<Fft2D> transforms(2 * sizes.size());
  std::vector<int> ok(transforms.size(), 0);  // not vector<bool>: each thread writes its own element
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < transforms.size(); ++t) {
    threads.emplace_back([&, t] {
      const std::size_t s = t % sizes.size();
      Fft2D& fft = transforms[t];
      fft.SetAllowMultiThreads(false);
      ok[t] = fft.SetSize(sizes[s].first, sizes[s].second) && fft.SetData(images[s], false, false, false) &&
              fft.Transform(false);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(detail::FftwPlanSetsMade(), before + 2 + static_cast<std::int64_t>(sizes.size()));
  // Two transforms of each size, made at the same time on the same plans: equal bits, and the
  // zero-frequency bin is the sum of the image.
  for (std::size_t t = 0; t < sizes.size(); ++t) {
    ASSERT_TRUE(ok[t] && ok[t + sizes.size()]);
    const std::vector<Complex> a = Snapshot(transforms[t]), b = Snapshot(transforms[t + sizes.size()]);
    EXPECT_EQ(a, b) << "size " << t;
    double sum = 0.0;
    for (std::int64_t i = 0; i < images[t].GetCount(); ++i)
      sum += images[t].At(i);
    EXPECT_NEAR(a[0].real(), sum, 1e-12 * images[t].GetCount()) << "size " << t;
  }
}

// A copy shares the plans and owns its data: transforming both gives equal bits, not one transform
// applied twice.
TEST(Fft2DTest, CopiesOwnTheirData) {
  Testing::SeededRandom random(8);
  SCOPED_TRACE(random.Describe());
  const DoubleMatrix2D image = RandomImage(20, 36, random);
  Fft2D a;
  ASSERT_TRUE(a.SetSize(20, 36));
  ASSERT_TRUE(a.SetData(image, false, false, false));
  Fft2D b(a);
  ASSERT_TRUE(a.Transform(false));
  ASSERT_TRUE(b.Transform(false));
  EXPECT_EQ(Snapshot(a), Snapshot(b));
}

// A window of a larger matrix lands at the transform's origin with zeros around it, and a no-data
// sample counts as 0.
TEST(Fft2DTest, WindowsNoDataAndBadInputs) {
  DoubleMatrix2D image(10, 10);
  image.SetAll(3.0);
  image(4, 4) = DoubleMatrix2D::NoData();
  image.SetWindow(Window2D(2, 3, 4, 5));
  Fft2D fft;
  EXPECT_FALSE(fft.Transform(false));
  EXPECT_EQ(fft.GetStatus().GetCode(), StatusCode::kNotSet);
  EXPECT_FALSE(fft.SetSize(-1, 4));
  EXPECT_EQ(fft.GetStatus().GetCode(), StatusCode::kNegativeDimension);
  ASSERT_TRUE(fft.SetSize(6, 8));
  ASSERT_TRUE(fft.SetData(image, false, false, false));
  ASSERT_TRUE(fft.Transform(false));
  EXPECT_NEAR(fft.GetRow(0)[0].real(), 3.0 * 19, 1e-12) << "19 valid samples of 3, the rest 0";

  EXPECT_FALSE(fft.SetData(image, true, false, false));
  EXPECT_EQ(fft.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  DoubleMatrix2D big(7, 4);
  EXPECT_FALSE(fft.SetData(big, false, false, false));
  EXPECT_NE(fft.GetStatus().GetMessage().find("(7 x 4) is larger than the transform (6 x 8)"),
            std::string::npos);
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

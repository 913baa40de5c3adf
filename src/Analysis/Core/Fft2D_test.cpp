#include "Analysis/Core/Fft2D.h"

#include <cmath>
#include <complex>
#include <cstring>
#include <numbers>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Testing/SeededRandom.h"

namespace Quarn::Metrology::Analysis::Core {
namespace {

using Complex = std::complex<double>;
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

class Fft2DSizeTest : public ::testing::TestWithParam<std::pair<int, int>> {};

// The definition evaluated directly: X[k, l] = sum x[r, c] e^{-2 pi i (k r / R + l c / C)}. Rounding
// of the fast transform grows like log(R C) eps times the largest partial sum (at most R C here),
// so 1e-12 of R C is a wide margin that still catches a wrong sign, scale or bin order.
TEST_P(Fft2DSizeTest, ForwardMatchesTheDefinitionAndInverseRestoresTheData) {
  const auto [rows, cols] = GetParam();
  Testing::SeededRandom random(11 + rows * 100 + cols);
  SCOPED_TRACE(random.Describe());
  const DoubleMatrix2D image = RandomImage(rows, cols, random);
  Fft2D fft;
  ASSERT_TRUE(fft.SetSize(rows, cols));
  ASSERT_GE(fft.GetRowStride(), cols);
  ASSERT_TRUE(fft.SetData(image, false, false, false));
  ASSERT_TRUE(fft.Transform(false));
  const double tolerance = 1e-12 * rows * cols;
  // Every bin of small transforms; 60 bins drawn at random of the larger ones (the sum is O(R C)).
  std::vector<std::pair<int, int>> bins;
  if (rows * cols <= 1024) {
    for (int k = 0; k < rows; ++k) {
      for (int l = 0; l < cols; ++l)
        bins.emplace_back(k, l);
    }
  } else {
    for (int i = 0; i < 60; ++i)
      bins.emplace_back(random.UniformInt(0, rows - 1), random.UniformInt(0, cols - 1));
  }
  for (const auto& [k, l] : bins) {
    {
      Complex expected = 0.0;
      for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < cols; ++c) {
          expected += image(r, c) * std::polar(1.0, -kTwoPi * (static_cast<double>(k * r) / rows +
                                                               static_cast<double>(l * c) / cols));
        }
      }
      ASSERT_NEAR(std::abs(fft.GetRow(k)[l] - expected), 0.0, tolerance) << "bin " << k << "," << l;
      ASSERT_NEAR(fft.MagSquared(k, l), std::norm(fft.GetRow(k)[l]), 1e-9 * (1.0 + std::norm(expected)));
    }
  }
  ASSERT_TRUE(fft.Transform(true));
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      EXPECT_NEAR(fft.GetRow(r)[c].real(), image(r, c), 1e-13 * (1 + std::log2(rows * cols)));
      EXPECT_NEAR(fft.GetRow(r)[c].imag(), 0.0, 1e-13 * (1 + std::log2(rows * cols)));
    }
  }
}

// Rows and column blocks are shared out over the workers; the arithmetic of every row and block is
// the same whoever does it, so every thread count must give the single-threaded bits.
TEST_P(Fft2DSizeTest, EveryThreadCountGivesTheSingleThreadedBits) {
  const auto [rows, cols] = GetParam();
  Testing::SeededRandom random(23 + rows + cols);
  SCOPED_TRACE(random.Describe());
  const DoubleMatrix2D image = RandomImage(rows, cols, random);
  Fft2D single;
  single.SetAllowMultiThreads(false);
  ASSERT_TRUE(single.SetSize(rows, cols));
  ASSERT_TRUE(single.SetData(image, true, true, false));
  ASSERT_TRUE(single.Transform(false));
  const std::vector<Complex> forward = Snapshot(single);
  ASSERT_TRUE(single.Transform(true));
  const std::vector<Complex> back = Snapshot(single);
  for (const int threads : {2, 3, 8}) {
    Fft2D fft;
    fft.SetNumberOfThreads(threads);
    ASSERT_TRUE(fft.SetSize(rows, cols));
    ASSERT_TRUE(fft.SetData(image, true, true, false));
    ASSERT_TRUE(fft.Transform(false));
    const std::vector<Complex> f = Snapshot(fft);
    ASSERT_EQ(std::memcmp(f.data(), forward.data(), f.size() * sizeof(Complex)), 0) << threads << " threads";
    ASSERT_TRUE(fft.Transform(true));
    const std::vector<Complex> b = Snapshot(fft);
    ASSERT_EQ(std::memcmp(b.data(), back.data(), b.size() * sizeof(Complex)), 0) << threads << " threads";
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, Fft2DSizeTest, ::testing::ValuesIn(kSizes), [](const auto& info) {
  return std::to_string(info.param.first) + "x" + std::to_string(info.param.second);
});

// A fringe a + b cos(2 pi (u c / C + v r / R)) has its zero-frequency spike of a R C in bin (0, 0)
// and two lobes of b R C / 2: e^{+i theta} in bin (v, u), e^{-i theta} in bin (-v, -u). Keeping one
// lobe and transforming back leaves a signal of magnitude b / 2 with the fringe's phase in every
// pixel: what the carrier-fringe pipeline's modulation of 2 |z| relies on.
TEST(Fft2DTest, OneLobeOfARealFringeCarriesHalfItsAmplitude) {
  const int rows = 48, cols = 64, u = 16, v = -12;  // lobe at column 16, row 36 (= -12 + 48)
  const double a = 110.0, b = 80.0;
  DoubleMatrix2D fringe(rows, cols);
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c)
      fringe(r, c) = a + b * std::cos(kTwoPi * (u * c / double(cols) + v * r / double(rows)));
  }
  Fft2D fft;
  ASSERT_TRUE(fft.SetSize(rows, cols));
  ASSERT_TRUE(fft.SetData(fringe, false, false, false));
  ASSERT_TRUE(fft.Transform(false));
  const double n = rows * cols;
  EXPECT_NEAR(fft.GetRow(0)[0].real(), a * n, 1e-9 * a * n);
  EXPECT_NEAR(std::abs(fft.GetRow(rows + v)[u]), b * n / 2, 1e-9 * b * n);
  EXPECT_NEAR(std::abs(fft.GetRow(-v)[cols - u]), b * n / 2, 1e-9 * b * n);
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      if (r != rows + v || c != u) fft.GetRow(r)[c] = 0.0;
    }
  }
  ASSERT_TRUE(fft.Transform(true));
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      const Complex z = fft.GetRow(r)[c];
      ASSERT_NEAR(std::abs(z), b / 2, 1e-12 * b);
      const double theta = kTwoPi * (u * c / double(cols) + v * r / double(rows));
      ASSERT_NEAR(std::remainder(std::arg(z) - theta, kTwoPi), 0.0, 1e-12);
    }
  }
}

TEST(Fft2DTest, LoadingFlagsWindowAndNoData) {
  // A constant image of 3 with one no-data sample, loaded through a 4 x 5 window of a larger matrix
  // into a 6 x 8 transform: the rest of the transform is zero, the no-data sample counts as 0.
  DoubleMatrix2D image(10, 10);
  image.SetAll(3.0);
  image(4, 4) = DoubleMatrix2D::NoData();
  image.SetWindow(Window2D(2, 3, 4, 5));
  Fft2D fft;
  ASSERT_TRUE(fft.SetSize(6, 8));
  ASSERT_TRUE(fft.SetData(image, false, false, false));
  EXPECT_EQ(fft.GetRow(0)[0], Complex(3.0, 0.0)) << "window origin lands on the transform origin";
  EXPECT_EQ(fft.GetRow(2)[1], Complex(0.0, 0.0)) << "the no-data sample";
  EXPECT_EQ(fft.GetRow(4)[0], Complex(0.0, 0.0)) << "below the window";
  EXPECT_EQ(fft.GetRow(0)[5], Complex(0.0, 0.0)) << "right of the window";
  ASSERT_TRUE(fft.Transform(false));
  EXPECT_NEAR(fft.GetRow(0)[0].real(), 3.0 * 19, 1e-12);

  // Mean removal takes the mean of the 19 valid samples: nothing is left at zero frequency.
  ASSERT_TRUE(fft.SetData(image, true, false, false));
  ASSERT_TRUE(fft.Transform(false));
  EXPECT_NEAR(std::abs(fft.GetRow(0)[0]), 0.0, 1e-12);

  // Centring moves zero frequency to (rows / 2, cols / 2).
  DoubleMatrix2D flat(6, 8);
  flat.SetAll(1.0);
  ASSERT_TRUE(fft.SetData(flat, false, false, true));
  ASSERT_TRUE(fft.Transform(false));
  EXPECT_NEAR(fft.GetRow(3)[4].real(), 48.0, 1e-12);
  EXPECT_NEAR(std::abs(fft.GetRow(0)[0]), 0.0, 1e-12);

  // The Hann taper is sin^2(pi (i + 1) / (n + 1)) along each axis: the zero-frequency bin of a flat
  // image is the product of the two weight sums, (n + 1) / 2 each.
  ASSERT_TRUE(fft.SetData(flat, false, true, false));
  ASSERT_TRUE(fft.Transform(false));
  EXPECT_NEAR(fft.GetRow(0)[0].real(), 3.5 * 4.5, 1e-12);
}

TEST(Fft2DTest, ParsevalHoldsOnARandomImage) {
  Testing::SeededRandom random(5);
  SCOPED_TRACE(random.Describe());
  const DoubleMatrix2D image = RandomImage(96, 130, random);
  double energy = 0.0;
  for (std::int64_t i = 0; i < image.GetCount(); ++i)
    energy += image.At(i) * image.At(i);
  Fft2D fft;
  ASSERT_TRUE(fft.SetSize(96, 130));
  ASSERT_TRUE(fft.SetData(image, false, false, false));
  ASSERT_TRUE(fft.Transform(false));
  double spectral = 0.0;
  for (int r = 0; r < 96; ++r) {
    for (int c = 0; c < 130; ++c)
      spectral += fft.MagSquared(r, c);
  }
  EXPECT_NEAR(spectral / (96.0 * 130.0), energy, 1e-10 * energy);

  DoubleMatrix2D real, imag;
  ASSERT_TRUE(fft.GetRealPart(real));
  ASSERT_TRUE(fft.GetImaginaryPart(imag));
  ASSERT_EQ(real.GetRows(), 96);
  ASSERT_EQ(imag.GetColumns(), 130);
  EXPECT_EQ(real(7, 9), fft.GetRow(7)[9].real());
  EXPECT_EQ(imag(7, 9), fft.GetRow(7)[9].imag());
  // The spectrum of a real image is Hermitian: X[-k, -l] = conj(X[k, l]).
  EXPECT_NEAR(std::abs(fft.GetRow(96 - 7)[130 - 9] - std::conj(fft.GetRow(7)[9])), 0.0, 1e-9);
}

TEST(Fft2DTest, CopiesAndResizedTransformsKeepWorking) {
  Testing::SeededRandom random(8);
  SCOPED_TRACE(random.Describe());
  const DoubleMatrix2D image = RandomImage(20, 36, random);
  Fft2D a;
  ASSERT_TRUE(a.SetSize(20, 36));
  ASSERT_TRUE(a.SetData(image, false, false, false));
  Fft2D b(a);  // shares the plans, owns its data
  ASSERT_TRUE(a.Transform(false));
  ASSERT_TRUE(b.Transform(false));
  const std::vector<Complex> sa = Snapshot(a), sb = Snapshot(b);
  EXPECT_EQ(std::memcmp(sa.data(), sb.data(), sa.size() * sizeof(Complex)), 0);

  // Another size and back: the data is zero after a resize and the transform is right again.
  ASSERT_TRUE(b.SetSize(9, 11));
  EXPECT_EQ(b.GetRow(8)[10], Complex(0.0, 0.0));
  ASSERT_TRUE(b.SetSize(20, 36));
  ASSERT_TRUE(b.SetData(image, false, false, false));
  ASSERT_TRUE(b.Transform(false));
  const std::vector<Complex> again = Snapshot(b);
  EXPECT_EQ(std::memcmp(sa.data(), again.data(), sa.size() * sizeof(Complex)), 0);
}

TEST(Fft2DTest, BadSizesAndWindowsAreReported) {
  Fft2D fft;
  EXPECT_FALSE(fft.Transform(false));
  EXPECT_EQ(fft.GetStatus().GetCode(), StatusCode::kNotSet);
  EXPECT_FALSE(fft.SetSize(-1, 4));
  EXPECT_EQ(fft.GetStatus().GetCode(), StatusCode::kNegativeDimension);
  ASSERT_TRUE(fft.SetSize(4, 4));
  DoubleMatrix2D big(5, 4);
  EXPECT_FALSE(fft.SetData(big, false, false, false));
  EXPECT_EQ(fft.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_NE(fft.GetStatus().GetMessage().find("(5 x 4) is larger than the transform (4 x 4)"),
            std::string::npos);
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

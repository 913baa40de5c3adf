#include "Analysis/Core/Fft1DReal.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Synthetic/SeededRandom.h"

namespace Quarn::Metrology::Analysis::Core {
namespace {

// The transform written out: X[k] = sum x[j] exp(-2 pi i j k / n), summed in long double so that
// the reference is more accurate than what it checks.
std::vector<std::complex<double>> DirectDft(const std::vector<double>& x) {
  const int n = static_cast<int>(x.size());
  std::vector<std::complex<double>> bins(static_cast<std::size_t>(n / 2 + 1));
  for (int k = 0; k <= n / 2; ++k) {
    long double re = 0.0L, im = 0.0L;
    for (int j = 0; j < n; ++j) {
      // The angle is reduced exactly (j k mod n) before it meets the trigonometric functions.
      const long double angle = -2.0L * std::numbers::pi_v<long double> *
                                static_cast<long double>((static_cast<long>(j) * k) % n) / n;
      re += x[static_cast<std::size_t>(j)] * std::cos(angle);
      im += x[static_cast<std::size_t>(j)] * std::sin(angle);
    }
    bins[static_cast<std::size_t>(k)] = {static_cast<double>(re), static_cast<double>(im)};
  }
  return bins;
}

class Fft1DRealSizeTest : public ::testing::TestWithParam<int> {};

// Every bin of random samples against the direct sum. The transform's rounding error grows like
// eps log2(n) times the input's norm; 1e-13 n times the largest sample bounds it with room to spare
// for n up to 256, while a wrong sign, a missing bin or a shifted index is off by order one. The
// same samples read where they lie give the very bits of Forward(): from an aligned heap array
// without reading the instance's input, and from one a double off alignment through its arrays.
TEST_P(Fft1DRealSizeTest, MatchesTheDirectTransform) {
  const int n = GetParam();
  Testing::SeededRandom random(1000 + static_cast<std::uint64_t>(n));
  SCOPED_TRACE(random.Describe());
  Fft1DReal fft(n);
  ASSERT_TRUE(fft.GetStatus().IsOk()) << fft.GetStatus().GetPrintString();
  std::vector<double> x(static_cast<std::size_t>(n));
  for (int j = 0; j < n; ++j)
    fft.Input()[j] = x[static_cast<std::size_t>(j)] = random.Uniform(-100.0, 255.0);
  fft.Forward();
  const std::vector<std::complex<double>> own(fft.Output(), fft.Output() + n / 2 + 1);
  std::vector<double> elsewhere(static_cast<std::size_t>(n) + 1);
  std::vector<std::complex<double>> bins(static_cast<std::size_t>(n / 2 + 1));
  for (const std::size_t offset : {0, 1}) {
    std::copy(x.begin(), x.end(), elsewhere.begin() + static_cast<std::ptrdiff_t>(offset));
    const double poison = offset == 0 ? 1.0 : 0.0;  // an aligned array is read where it lies
    fft.Input()[0] += poison;
    fft.Forward(elsewhere.data() + offset, bins.data());
    fft.Input()[0] -= poison;
    for (int k = 0; k <= n / 2; ++k)
      ASSERT_EQ(bins[static_cast<std::size_t>(k)], own[static_cast<std::size_t>(k)]) << "bin " << k;
  }
  const auto expected = DirectDft(x);
  const double tolerance = 1e-13 * n * 255.0;
  for (int k = 0; k <= n / 2; ++k) {
    EXPECT_NEAR(fft.Output()[k].real(), expected[static_cast<std::size_t>(k)].real(), tolerance)
        << "bin " << k;
    EXPECT_NEAR(fft.Output()[k].imag(), expected[static_cast<std::size_t>(k)].imag(), tolerance)
        << "bin " << k;
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, Fft1DRealSizeTest, ::testing::Values(1, 2, 7, 16, 63, 64, 128, 256));

// A refused size leaves an empty transform that Forward leaves alone; a later good size is planned,
// and so is a moved-from instance.
TEST(Fft1DRealTest, BadSizesAreRefusedAndLeaveAnEmptyTransform) {
  Fft1DReal fft(0);
  EXPECT_EQ(fft.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_EQ(fft.Input(), nullptr);
  fft.Forward();
  EXPECT_FALSE(fft.Resize(-4));
  EXPECT_TRUE(fft.Resize(8));
  Fft1DReal taken(std::move(fft));
  EXPECT_EQ(taken.GetSize(), 8);
  EXPECT_TRUE(fft.Resize(4));  // NOLINT(bugprone-use-after-move): the documented moved-from state
  EXPECT_EQ(fft.GetSize(), 4);
}

// Planning from many threads at once: the planner lock keeps FFTW's global state consistent (the
// thread sanitizer run checks that nothing races), and every instance computes the same bins, bit
// for bit, so per-thread transforms never make results depend on the thread count.
TEST(Fft1DRealTest, InstancesPlannedConcurrentlyAgreeBitForBit) {
  constexpr int kThreads = 6;
  constexpr int n = 64;
  std::vector<double> x(n);
  Testing::SeededRandom random(77);
  SCOPED_TRACE(random.Describe());
  for (double& v : x)
    v = random.Uniform(0.0, 255.0);
  std::vector<std::vector<std::complex<double>>> results(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 20; ++round) {
        Fft1DReal fft(round % 2 == 0 ? n : 2 * n);
        fft.Resize(n);
        for (int j = 0; j < n; ++j)
          fft.Input()[j] = x[static_cast<std::size_t>(j)];
        fft.Forward();
        results[static_cast<std::size_t>(t)].assign(fft.Output(), fft.Output() + fft.GetNumberOfBins());
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  for (int t = 1; t < kThreads; ++t)
    EXPECT_EQ(results[static_cast<std::size_t>(t)], results[0]) << "thread " << t;
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

#include "Psi/Converter.h"

#include <cmath>
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
#include "Synthetic/SyntheticPsi.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {
namespace {

double WrapToPi(double a) {
  return std::remainder(a, 2.0 * std::numbers::pi);
}

// One converter with the phase-shift model its weights are designed for.
struct ConverterCase {
  std::string name;
  int frames;
  std::function<std::shared_ptr<Converter>()> make;
  std::function<std::vector<double>(double gainError)> shifts;
  // sqrt(N^2 + D^2) / modulation scale for fringes of unit amplitude (from the weights: 16 for the
  // 7-frame kernel, 93.255 for each 13-frame kernel copy, 1.0129 for the 20-frame one).
  double modulationPerAmplitude;
};

void PrintTo(const ConverterCase& c, std::ostream* os) {
  *os << c.name;
}

// The converter's weight tables applied to the samples in double, with its phase sign.
void WeightedSums(const Converter& converter, const std::vector<double>& samples, double& n, double& d) {
  n = d = 0.0;
  for (std::size_t k = 0; k < samples.size(); ++k) {
    n += converter.GetNumerator()[k] * samples[k];
    d += converter.GetDenominator()[k] * samples[k];
  }
  n *= converter.GetPhaseSign();
}

// `Convert` of integer samples against the weight tables applied to the same samples.
template <typename Sample>
void ExpectKernelMatchesTables(const Converter& converter, const std::vector<Sample>& samples) {
  double n = 0, d = 0, nRef = 0, dRef = 0;
  converter.Convert(n, d, samples.data());
  WeightedSums(converter, std::vector<double>(samples.begin(), samples.end()), nRef, dRef);
  // Integer weights give exact sums; the 20-frame pairs round differently by a few ulp at most.
  EXPECT_NEAR(n, nRef, 1e-9 * (1.0 + std::abs(nRef))) << sizeof(Sample) << "-byte samples";
  EXPECT_NEAR(d, dRef, 1e-9 * (1.0 + std::abs(dRef))) << sizeof(Sample) << "-byte samples";
}

class ConverterTest : public ::testing::TestWithParam<ConverterCase> {};

// The weights recover the phase of exact fringes over the whole circle, with the converter's sign,
// and their magnitude is the fringe amplitude times the converter's factor. The integer kernel reads
// the same fringe as 8-bit and as 16-bit camera samples and must give the tables' sums of them.
TEST_P(ConverterTest, RecoversThePhaseAndModulationOverTheWholeCircle) {
  const std::shared_ptr<Converter> converter = GetParam().make();
  converter->Initialize(GetParam().frames);
  const std::vector<double> shifts = GetParam().shifts(0.0);
  double modulationSum = 0.0;
  for (int i = 0; i < 72; ++i) {
    const double phase = -std::numbers::pi + (i + 0.5) * std::numbers::pi / 36;
    const std::vector<double> exact = Testing::FringeSamples({120.0, 80.0, phase}, shifts);
    double n = 0, d = 0;
    WeightedSums(*converter, exact, n, d);
    // The 20-frame coefficients are rounded to five digits, which bounds the error near 1e-6.
    EXPECT_NEAR(WrapToPi(std::atan2(n, d) - phase), 0.0, 1e-6) << "at phase " << phase;
    modulationSum += std::hypot(n, d) / converter->GetModulationScale() / 80.0;
    std::vector<unsigned char> narrow;
    std::vector<int> wide;
    for (const double v : exact) {
      narrow.push_back(static_cast<unsigned char>(std::lround(v)));
      wide.push_back(static_cast<int>(std::lround(300.0 * v)));
    }
    ExpectKernelMatchesTables(*converter, narrow);
    ExpectKernelMatchesTables(*converter, wide);
  }
  EXPECT_NEAR(modulationSum / 72, GetParam().modulationPerAmplitude,
              1e-3 * GetParam().modulationPerAmplitude);
}

INSTANTIATE_TEST_SUITE_P(
    AllAlgorithms, ConverterTest,
    ::testing::Values(ConverterCase{"Convert7", 7, [] { return std::make_shared<Convert7>(); },
                                    [](double e) { return Testing::ShiftsFor7(e); }, 16.0 / 7.2},
                      ConverterCase{"Convert13", 13, [] { return std::make_shared<Convert13>(); },
                                    [](double e) { return Testing::ShiftsFor13(e); }, 93.255 / 45.438},
                      ConverterCase{"Convert20", 20, [] { return std::make_shared<Convert20>(); },
                                    [](double e) { return Testing::ShiftsFor20(e); }, 1.0129 / 0.5},
                      ConverterCase{"Sliding13x21", 21, [] { return std::make_shared<ConvertSliding13>(); },
                                    [](double e) { return Testing::ShiftsForSliding13(21, e); },
                                    9 * 93.255 / 45.438}),
    [](const auto& info) { return info.param.name; });

// Peak-to-valley of the phase error over the circle for a shifter with a gain error.
double PhaseErrorRipple(Converter& converter, const std::vector<double>& shifts) {
  double lo = 1e9, hi = -1e9;
  for (int i = 0; i < 360; ++i) {
    const double phase = -std::numbers::pi + i * std::numbers::pi / 180;
    double n = 0, d = 0;
    WeightedSums(converter, Testing::FringeSamples({120.0, 80.0, phase}, shifts), n, d);
    const double e = WrapToPi(std::atan2(n, d) - phase);
    lo = std::min(lo, e);
    hi = std::max(hi, e);
  }
  return hi - lo;
}

TEST(ConverterPhysicsTest, MiscalibratedShifterErrorsFollowTheDesignOrder) {
  Convert7 seven;
  Convert13 thirteen;
  // Both kernels compensate a linear gain error: a plain four-frame algorithm would ripple by about
  // eps pi / 2 (0.08 rad at 5 %), these stay orders of magnitude below.
  const double r7at2 = PhaseErrorRipple(seven, Testing::ShiftsFor7(0.02));
  const double r7at5 = PhaseErrorRipple(seven, Testing::ShiftsFor7(0.05));
  const double r13at2 = PhaseErrorRipple(thirteen, Testing::ShiftsFor13(0.02));
  const double r13at5 = PhaseErrorRipple(thirteen, Testing::ShiftsFor13(0.05));
  EXPECT_LT(r7at5, 1e-5);
  EXPECT_LT(r13at5, 1e-4);
  // Raising eps 2.5-fold raises the 7-frame ripple by 2.5^4 (fourth-order compensation) and the
  // 13-frame ripple by 2.5^3 (third order): the 7-frame kernel is the more gain-tolerant one.
  EXPECT_NEAR(r7at5 / r7at2, std::pow(2.5, 4), 0.1 * std::pow(2.5, 4));
  EXPECT_NEAR(r13at5 / r13at2, std::pow(2.5, 3), 0.1 * std::pow(2.5, 3));
  EXPECT_LT(r7at5, r13at5);
}

// With 13 frames the sliding kernel is Convert13 bit for bit; with fewer it has no weights, since
// its kernel would read past the stack.
TEST(ConvertSliding13Test, ThirteenFramesAreConvert13AndFewerGiveNoWeights) {
  ConvertSliding13 sliding;
  sliding.Initialize(12);
  EXPECT_EQ(sliding.GetNumerator(), nullptr);
  sliding.Initialize(13);
  const int samples[13] = {31, 2, 97, 4, 50, 6, 7, 88, 9, 10, 141, 12, 13};
  double n = 0, d = 0, n13 = 0, d13 = 0;
  sliding.Convert(n, d, samples);
  Convert13().Convert(n13, d13, samples);
  EXPECT_EQ(n, n13);
  EXPECT_EQ(d, d13);
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

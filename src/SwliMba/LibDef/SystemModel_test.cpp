// The instrument part of a library definition: source spectrum, arm mismatch, dispersion, pupil
// intensity models and pupil roll-off, and the defaults the system model starts from.
#include "SwliMba/LibDef/SystemModel.h"

#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {
namespace {

using Analysis::Core::Array;

Array<double> MakeArray(const std::vector<double>& values) {
  Array<double> a;
  for (double v : values)
    a.Add(v);
  return a;
}

TEST(SystemModelTest, DefaultsAndClearKeepsTheCutOff) {
  SystemModel system;
  EXPECT_EQ(system.GetObjectiveMagnification(), Analysis::Core::kNoDataDouble);
  EXPECT_EQ(system.GetPolarization(), PolarizationType::CircularlyPolarized);
  EXPECT_EQ(system.GetPolarization().ToString(), "CircularlyPolarized");
  EXPECT_EQ(PolarizationType(1).ToString(), "LinearlyPolarized");
  EXPECT_EQ(PolarizationType(5).ToString(), "(unknown)");
  EXPECT_EQ(system.GetObjectiveType(), "");
  EXPECT_EQ(system.GetPupilRollOff().GetModelNumber(), 6);
  EXPECT_TRUE(system.GetPupilRollOff().IsUnset());
  EXPECT_EQ(system.GetSource().GetNumberOfGaussians(), 0);
  EXPECT_DOUBLE_EQ(system.GetSource().GetCutOff(), 0.02);
  EXPECT_TRUE(system.GetTau().IsIdentity());
  EXPECT_TRUE(system.GetDispersion().IsZero());

  system.GetSource().SetCutOff(0.05);
  system.GetSource().AddGaussian(1, 10, 1);
  system.SetObjectiveType("Mirau 50x");
  system.SetPolarization(PolarizationType::LinearlyPolarized);
  system.GetPupilRollOff().SetModelNumber(2);
  system.GetPupilIntensity().NewModel(0.6);
  system.Clear();
  EXPECT_DOUBLE_EQ(system.GetSource().GetCutOff(), 0.05) << "Clear keeps the cut-off";
  EXPECT_EQ(system.GetSource().GetNumberOfGaussians(), 0);
  EXPECT_EQ(system.GetObjectiveType(), "");
  EXPECT_EQ(system.GetPolarization(), PolarizationType::CircularlyPolarized);
  EXPECT_EQ(system.GetPupilRollOff().GetModelNumber(), 6);
  EXPECT_EQ(system.GetPupilIntensity().GetNumberOfModels(), 0);
}

TEST(SourceTest, IntensityIsTheSumOfGaussiansInWavenumber) {
  Source source;
  EXPECT_EQ(source.Intensity(0.6), 0.0);
  source.AddGaussian(1.0, 10.0, 1.0);
  source.AddGaussian(0.5, 12.0, 2.0);
  const double k = 11.0;
  const double expected = std::exp(-0.5) + 0.5 * std::exp(-0.125);
  EXPECT_NEAR(source.Intensity(2 * std::numbers::pi / k), expected, 1e-14);
  EXPECT_NEAR(source.IntensityAtWavenumber(k), expected, 1e-14);

  double a = -1, c = -1, w = -1;
  source.GetGaussian(2, a, c, w);  // out of range: untouched
  EXPECT_EQ(a, -1);
  source.GetGaussian(-1, a, c, w);
  EXPECT_EQ(c, -1);
  source.GetGaussian(1, a, c, w);
  EXPECT_EQ(a, 0.5);
  EXPECT_EQ(c, 12.0);
  EXPECT_EQ(w, 2.0);

  Source copy(source);  // deep: clearing the copy leaves the original
  copy.Clear();
  EXPECT_EQ(copy.GetNumberOfGaussians(), 0);
  EXPECT_EQ(source.GetNumberOfGaussians(), 2);
}

TEST(TauTest, ClearedRatioIsExactlyOneAndCoefficientsAct) {
  Tau tau;
  EXPECT_EQ(tau.TransmissionRatio(10.0, 0.3), std::complex<double>(1.0, 0.0));
  tau.SetMagCoefficients(0.1, 0.01, 0.0, 0.2, 0.0, 0.001);
  tau.SetPhaseCoefficients(0.5, 0, 0, 0.001, 0.2, 0, 0.01, 0);
  const double a = 10.0, b = 0.2;
  const double m = 1 - (0.1 + 0.01 * a) * b * b - (0.2 + 0.001 * a * a) * b * b * b;
  const double phi = (0.5 + 0.001 * a * a * a) * b * b + (0.2 + 0.01 * a * a) * b * b * b;
  const std::complex<double> r = tau.TransmissionRatio(a, b);
  EXPECT_NEAR(r.real(), m * std::cos(phi), 1e-15);
  EXPECT_NEAR(r.imag(), m * std::sin(phi), 1e-15);
  EXPECT_EQ(tau.TransmissionRatio(a, 0.0), std::complex<double>(1.0, 0.0)) << "on the axis";

  Array<double> shortArray = MakeArray({9, 9, 9, 9, 9});
  tau.SetMagCoefficients(shortArray);  // fewer than 6: nothing changes
  Array<double> out;
  tau.GetMagCoefficients(out);
  ASSERT_EQ(out.Size(), 6);
  EXPECT_EQ(out[0], 0.1);
  tau.SetPhaseCoefficients(MakeArray({1, 2, 3, 4, 5, 6, 7, 8, 9}));  // the first 8 are taken
  tau.GetPhaseCoefficients(out);
  ASSERT_EQ(out.Size(), 8);
  EXPECT_EQ(out[7], 8);
  tau.Clear();
  EXPECT_TRUE(tau.IsIdentity());
}

TEST(DispersionTest, PhaseGapsFollowTheirPolynomials) {
  Dispersion d;
  d.SetNoThetaCoefficients(1, 2, 3, 4, 5, 6);
  d.SetTwoThetaCoefficients(0.1, 0.2, 0.3, 0.4, 0.5, 0.6);
  const double x = 0.7, theta = 0.3, c = std::cos(theta);
  EXPECT_NEAR(d.NoThetaPhaseGap(x, theta), x * x + 2 * x * c + 3 * c * c + 4 * x + 5 * c + 6, 1e-14);
  const std::complex<double> two = d.TwoThetaPhaseGap(x, theta);
  EXPECT_NEAR(two.real(), 0.1 * c * c + 0.2 * c + 0.3, 1e-15);
  EXPECT_NEAR(two.imag(), 0.4 * c * c + 0.5 * c + 0.6, 1e-15);
  EXPECT_EQ(d.TwoThetaPhaseGap(-50.0, theta), two) << "the first argument is not used";

  d.SetNoThetaCoefficients(MakeArray({9, 9}));  // ignored
  Array<double> out;
  d.GetNoThetaCoefficients(out);
  EXPECT_EQ(out[1], 2);
  d.Clear();
  EXPECT_EQ(d.NoThetaPhaseGap(x, theta), 0.0);
}

TEST(PupilIntensityTest, PolynomialAndDarkBands) {
  PupilIntensityModel model;
  model.SetPolynomial(1, 0.5, 2, 0.1, 0.2, 3);
  const double theta = 0.4, phi = 0.9;
  const double x = std::cos(phi) * std::sin(theta), y = std::sin(phi) * std::sin(theta);
  const double plain = x * x + 0.5 * x * y + 2 * y * y + 0.1 * x + 0.2 * y + 3;
  EXPECT_NEAR(model.Intensity(theta, phi), plain, 1e-14);
  model.SetDarkBandsRhoAngle(0.3);
  model.SetDarkBandsRho1(0.05);
  model.SetDarkBandsDistance(0.1);
  model.SetDarkBandsVariance(0.01);
  EXPECT_NEAR(model.Intensity(theta, phi), plain, 1e-14) << "amplitude 0: no bands";
  model.SetDarkBandsAmplitude(0.5);
  const double r = std::cos(0.3) * x + std::sin(0.3) * y - 0.05;
  const double bands =
      0.5 * (std::exp(-(r - 0.1) * (r - 0.1) / 0.01) + std::exp(-(r + 0.1) * (r + 0.1) / 0.01));
  EXPECT_NEAR(model.Intensity(theta, phi), plain - bands, 1e-14);
}

TEST(PupilIntensityTest, OneModelServesAllWavelengthsAndTiesGoToTheShorter) {
  PupilIntensity pupil;
  EXPECT_EQ(pupil.Intensity(0.6, 0.1, 0.0), 0.0);
  EXPECT_EQ(pupil.GetStatus().GetMessage(), "0 == pim");
  EXPECT_EQ(pupil.GetStatus().GetCode(), 2u);

  PupilIntensity fresh;
  fresh.NewModel(0.5)->SetPolynomial(0, 0, 0, 0, 0, 1);
  EXPECT_EQ(fresh.Intensity(5.0, 0.1, 0.0), 1.0) << "one model: the wavelength is ignored";
  fresh.NewModel(0.6)->SetPolynomial(0, 0, 0, 0, 0, 2);
  EXPECT_EQ(fresh.Intensity(0.55, 0.1, 0.0), 1.0) << "tie: the shorter wavelength";
  EXPECT_EQ(fresh.Intensity(0.56, 0.1, 0.0), 2.0);
  EXPECT_EQ(fresh.Intensity(0.1, 0.1, 0.0), 1.0);
  EXPECT_EQ(fresh.Intensity(0.9, 0.1, 0.0), 2.0);
  EXPECT_TRUE(fresh.GetStatus().IsOk());

  EXPECT_EQ(fresh.NewModel(0.6), nullptr);
  EXPECT_EQ(fresh.GetStatus().GetMessage(), "Specified wavelength already exists in the model list");

  PupilIntensity copy(fresh);  // shares the model list
  copy.Clear();
  EXPECT_EQ(fresh.GetNumberOfModels(), 0);
}

TEST(PupilRollOffTest, ModelNumberAndParameterRules) {
  PupilRollOff rollOff;
  rollOff.SetModelNumber(7);
  EXPECT_EQ(rollOff.GetModelNumber(), 6);
  rollOff.SetModelNumber(-1);
  EXPECT_EQ(rollOff.GetModelNumber(), 6);
  rollOff.SetModelNumber(0);
  for (double a : {0.0, 0.1, 0.5, 1.5})
    EXPECT_EQ(rollOff.Model(a), 0.0);

  rollOff.SetParameters(MakeArray({1, 2, 3, 4, 5, 6, 7}));
  rollOff.SetParameters(MakeArray({9, 8}));  // length 2: only p0, p1 change
  Array<double> p;
  rollOff.GetParameters(p);
  ASSERT_EQ(p.Size(), 7);
  EXPECT_EQ(p[0], 9);
  EXPECT_EQ(p[1], 8);
  EXPECT_EQ(p[2], 3);
  EXPECT_EQ(p[6], 7);
  rollOff.SetParameters(MakeArray({0, 0, 0, 0, 0, 0, 0, 5}));  // 8 values: the first 7
  rollOff.GetParameters(p);
  EXPECT_EQ(p[6], 0);
  rollOff.Clear();
  EXPECT_EQ(rollOff.GetModelNumber(), 6);
  EXPECT_TRUE(rollOff.IsUnset());
}

struct RollOffCase {
  int model;
  std::vector<double> p;
  double sine;  // the angle is asin(sine) (model 1: acos of the cosine given here instead)
  double expected;
};

class PupilRollOffModelTest : public testing::TestWithParam<RollOffCase> {};

TEST_P(PupilRollOffModelTest, Value) {
  const RollOffCase& c = GetParam();
  PupilRollOff r;
  r.SetModelNumber(c.model);
  r.SetParameters(MakeArray(c.p));
  const double alpha = c.model == 1 ? std::acos(c.sine) : std::asin(c.sine);
  EXPECT_NEAR(r.Model(alpha), c.expected, 1e-12);
}

// Flat top 0.2 .. 0.6 of level 1, inner slope 2, outer slope 3 (cubic in model 2), aperture
// 0.1 .. 0.8 for models 5 and 6.
const std::vector<double> kFlank = {0.2, 0.6, 1.0, 2.0, 3.0, 0.1, 0.8};
INSTANTIATE_TEST_SUITE_P(
    Table, PupilRollOffModelTest,
    testing::Values(
        // Model 1 in cosine space: parabola below c = 0.9, flat up to 0.99, closed above.
        RollOffCase{1, {0.9, 1.0, 50.0, 0.99, 0, 0, 0}, 0.85, 1.0 - 50.0 * 0.05 * 0.05},
        RollOffCase{1, {0.9, 1.0, 50.0, 0.99, 0, 0, 0}, 0.7, 0.0},  // clamped
        RollOffCase{1, {0.9, 1.0, 50.0, 0.99, 0, 0, 0}, 0.95, 1.0},
        RollOffCase{1, {0.9, 1.0, 50.0, 0.99, 0, 0, 0}, 0.995, 0.0},
        RollOffCase{2, kFlank, 0.1, 1.0 - 2.0 * 0.1}, RollOffCase{2, kFlank, 0.4, 1.0},
        RollOffCase{2, kFlank, 0.7, 1.0 - 3.0 * 0.001}, RollOffCase{2, kFlank, 0.0, 0.6},
        // Model 3 with the second flank between p0 = 0.2 and p5 = 0.3, slope p6 = 4.
        RollOffCase{3, {0.2, 0.6, 1.0, 2.0, 3.0, 0.3, 4.0}, 0.25, 1.0 - 4.0 * 0.05},
        RollOffCase{3, {0.2, 0.6, 1.0, 2.0, 3.0, 0.3, 4.0}, 0.1, 1.0 - 4.0 * 0.1 - 2.0 * 0.1},
        RollOffCase{3, {0.2, 0.6, 1.0, 2.0, 3.0, 0.3, 4.0}, 0.4, 1.0},
        RollOffCase{3, {0.2, 0.6, 1.0, 2.0, 3.0, 0.3, 4.0}, 0.7, 1.0 - 3.0 * 0.001},
        RollOffCase{4, kFlank, 0.7, 1.0 - 3.0 * 0.1}, RollOffCase{4, kFlank, 0.95, 0.0},
        RollOffCase{5, kFlank, 0.05, 0.0}, RollOffCase{5, kFlank, 0.7, 1.0 - 3.0 * 0.001},
        RollOffCase{5, kFlank, 0.85, 0.0}, RollOffCase{6, kFlank, 0.15, 1.0 - 2.0 * 0.05},
        RollOffCase{6, kFlank, 0.7, 0.5 * std::cos(0.3) + 0.5}, RollOffCase{6, kFlank, 0.9, 0.0},
        // The cosine flank stops at π: a steep flank reaches 0 and stays there.
        RollOffCase{6, {0.2, 0.6, 1.0, 2.0, 100.0, 0.1, 0.8}, 0.7, 0.0}));

TEST(PupilRollOffTest, TransitionsOfModel6FollowTheApertureRules) {
  PupilRollOff r;
  r.SetParameters(MakeArray({0.2, 0.4, 1.0, 0.0, 0.0, 0.1, 0.6}));
  const double a5 = std::asin(0.1), a0 = std::asin(0.2), a1 = std::asin(0.4), a6 = std::asin(0.6);
  struct Case {
    double alphaMax;
    std::vector<double> expected;
  };
  const std::vector<Case> cases = {{0.05, {}},
                                   {0.15, {a5, 0.15}},
                                   {0.3, {a5, a0, 0.3}},
                                   {0.5, {a5, a0, a1, 0.5}},
                                   {1.0, {a5, a0, a1, a6}}};
  for (const Case& c : cases) {
    Array<double> out;
    out.Add(99.0);  // emptied first
    r.GetTransitions(c.alphaMax, out);
    ASSERT_EQ(out.Size(), static_cast<int>(c.expected.size())) << "alpha max " << c.alphaMax;
    for (int i = 0; i < out.Size(); ++i)
      EXPECT_DOUBLE_EQ(out[i], c.expected[i]) << "alpha max " << c.alphaMax << " entry " << i;
  }
  EXPECT_DOUBLE_EQ(r.GetAlphaMin(), a5);
  EXPECT_DOUBLE_EQ(r.GetAlphaMax(), a6);
}

TEST(PupilRollOffTest, TransitionsOfTheOtherModelsAndTheCandidateOverload) {
  PupilRollOff r;
  r.SetModelNumber(2);
  r.SetParameters(MakeArray({0.2, 0.4, 1.0, 0.0, 0.0, 0.0, 0.0}));
  Array<double> out;
  r.GetTransitions(0.3, out);
  ASSERT_EQ(out.Size(), 2);
  EXPECT_DOUBLE_EQ(out[0], std::asin(0.2));
  EXPECT_DOUBLE_EQ(out[1], 0.3);
  EXPECT_DOUBLE_EQ(r.GetAlphaMin(), 0.0);
  EXPECT_DOUBLE_EQ(r.GetAlphaMax(), std::numbers::pi / 2);

  r.SetModelNumber(1);
  r.SetParameters(MakeArray({0.9, 1.0, 1.0, 0.99, 0, 0, 0}));
  r.GetTransitions(1.0, out);
  ASSERT_EQ(out.Size(), 3);
  EXPECT_DOUBLE_EQ(out[0], std::acos(0.99));
  EXPECT_DOUBLE_EQ(out[1], std::acos(0.9));
  EXPECT_DOUBLE_EQ(out[2], 1.0);
  EXPECT_DOUBLE_EQ(r.GetAlphaMin(), std::acos(0.99));

  Array<double> candidates = MakeArray({0.5, 0.1, 0.9, 0.3});
  Array<double> listed;
  PupilRollOff::GetTransitions(candidates, 0.6, listed);
  EXPECT_EQ(candidates[0], 0.1) << "sorted in place";
  ASSERT_EQ(listed.Size(), 4);
  EXPECT_EQ(listed[0], 0.1);
  EXPECT_EQ(listed[2], 0.5);
  EXPECT_EQ(listed[3], 0.6);
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

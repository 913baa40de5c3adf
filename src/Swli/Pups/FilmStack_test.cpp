// Film-stack optics: the characteristic-matrix method against the Airy recursion, and both against
// closed forms (Fresnel at a bare substrate, Brewster's angle, quarter- and half-wave layers, an
// absorbing substrate, a layer too thick and absorbing for light to return from).
#include "Swli/Pups/FilmStack.h"

#include <cmath>
#include <complex>
#include <numbers>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Synthetic/SeededRandom.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups {
namespace {

using Complex = std::complex<double>;
using Method = FilmStack::Method;
constexpr double kPi = std::numbers::pi;

RefractiveIndexMaterial* Cauchy(double n, double k) {
  auto* m = new RefractiveIndexMaterial();
  m->SetCauchy(n, 0, 0, k, 0, 0);
  return m;
}

// A library of dispersion-free test media: "n1.5", "n2.0", "n2.3", "absorber" (2.0 + 0.5i),
// "metal" (0.2 + 3.4i), plus the built-in Air and Si.
void FillMaterials(RefractiveIndexLibrary& library) {
  library.AddBuiltInMaterials();
  library.AddMaterial("n1.5", Cauchy(1.5, 0));
  library.AddMaterial("n2.0", Cauchy(2.0, 0));
  library.AddMaterial("n2.3", Cauchy(2.3, 0));
  library.AddMaterial("absorber", Cauchy(2.0, 0.5));
  library.AddMaterial("metal", Cauchy(0.2, 3.4));
}

void Reflect(FilmStack& stack, double k, double beta, Method method, Complex& rs, Complex& rp) {
  ASSERT_TRUE(stack.GetReflection(k, beta, rs, rp, method)) << stack.GetStatus().GetMessage();
}

class FilmStackMethodTest : public testing::TestWithParam<Method> {
 protected:
  void SetUp() override {
    FillMaterials(library_);
    stack_.SetAmbient("Air");
  }
  RefractiveIndexLibrary library_;
  FilmStack stack_{library_};
};

// Bare substrate: Fresnel's formulas written out with the refraction angle from Snell's law. The
// arithmetic is the same few operations in another order, so agreement is to rounding.
TEST_P(FilmStackMethodTest, BareSubstrateIsFresnel) {
  for (const char* substrate : {"n1.5", "Si", "metal"}) {
    stack_.SetSubstrate(substrate);
    for (double beta : {0.0, 0.1, 0.3, 0.7, 1.2}) {
      const double k = 2 * kPi / 0.6;
      const Complex n1 = library_.GetMaterial(substrate)->GetIndex(0.6);
      const Complex cos1 = std::sqrt(1.0 - std::pow(std::sin(beta) / n1, 2));
      const double cos0 = std::cos(beta);
      const Complex rs = (cos0 - n1 * cos1) / (cos0 + n1 * cos1);
      const Complex rp = (1.0 / cos0 - n1 / cos1) / (1.0 / cos0 + n1 / cos1);
      Complex gs, gp;
      Reflect(stack_, k, beta, GetParam(), gs, gp);
      EXPECT_NEAR(std::abs(gs - rs), 0.0, 1e-14) << substrate << " beta " << beta;
      EXPECT_NEAR(std::abs(gp - rp), 0.0, 1e-14) << substrate << " beta " << beta;
      if (beta == 0.0) {
        EXPECT_NEAR(std::abs(gs - gp), 0.0, 1e-15) << "normal incidence: rs = rp";
      }
    }
  }
}

// p light is not reflected at Brewster's angle tan β = n1 / n0.
TEST_P(FilmStackMethodTest, NoPReflectionAtBrewstersAngle) {
  stack_.SetSubstrate("n1.5");
  Complex rs, rp;
  Reflect(stack_, 10.0, std::atan(1.5), GetParam(), rs, rp);
  EXPECT_NEAR(std::abs(rp), 0.0, 1e-15);
  EXPECT_GT(std::abs(rs), 0.3);
}

// Absorbing substrate at normal incidence: r = (1 − N) / (1 + N), N = n + iκ, which fixes the sign
// convention: with exp(−iωt) an absorber has Im r < 0 for κ > 0 here.
TEST_P(FilmStackMethodTest, AbsorbingSubstrate) {
  stack_.SetSubstrate("metal");
  Complex rs, rp;
  Reflect(stack_, 10.0, 0.0, GetParam(), rs, rp);
  const Complex n(0.2, 3.4);
  const Complex expected = (1.0 - n) / (1.0 + n);
  EXPECT_NEAR(std::abs(rs - expected), 0.0, 1e-15);
  EXPECT_LT(rs.imag(), 0.0);
  EXPECT_NEAR(std::norm(rs), (0.64 + 3.4 * 3.4) / (1.44 + 3.4 * 3.4), 1e-14);
}

// A quarter-wave layer turns the substrate's admittance n2 into n1² / n2; a half-wave layer is
// absent. Both at the layer's design wavelength, normal incidence.
TEST_P(FilmStackMethodTest, QuarterAndHalfWaveLayers) {
  stack_.SetSubstrate("n1.5");
  const double lambda = 0.55;
  const double k = 2 * kPi / lambda;
  stack_.AddLayer("n2.3", lambda / (4 * 2.3));
  Complex rs, rp;
  Reflect(stack_, k, 0.0, GetParam(), rs, rp);
  const double quarter = (1.5 - 2.3 * 2.3) / (1.5 + 2.3 * 2.3);
  EXPECT_NEAR(std::abs(rs - quarter), 0.0, 1e-14);
  EXPECT_NEAR(std::abs(rp - quarter), 0.0, 1e-14);

  stack_.SetLayerThickness(0, lambda / (2 * 2.3));
  Reflect(stack_, k, 0.0, GetParam(), rs, rp);
  EXPECT_NEAR(std::abs(rs - (1.0 - 1.5) / (1.0 + 1.5)), 0.0, 1e-14);

  // Off normal incidence the quarter-wave condition holds for n1 t cos θ1 = λ / 4, with the tilted
  // admittances of each polarisation.
  const double beta = 0.4;
  const double cos1 = std::sqrt(1 - std::pow(std::sin(beta) / 2.3, 2));
  const double cos2 = std::sqrt(1 - std::pow(std::sin(beta) / 1.5, 2));
  stack_.SetLayerThickness(0, lambda / (4 * 2.3 * cos1));
  Reflect(stack_, k, beta, GetParam(), rs, rp);
  auto quarterWave = [](double eta0, double eta1, double eta2) {
    return (eta0 - eta1 * eta1 / eta2) / (eta0 + eta1 * eta1 / eta2);
  };
  EXPECT_NEAR(std::abs(rs - quarterWave(std::cos(beta), 2.3 * cos1, 1.5 * cos2)), 0.0, 1e-14);
  EXPECT_NEAR(std::abs(rp - quarterWave(1 / std::cos(beta), 2.3 / cos1, 1.5 / cos2)), 0.0, 1e-14);
}

// Through 20 µm of an absorber (κ = 0.5: amplitude decays by e^-105 on the way down) nothing comes
// back from below, so the stack reflects like the absorber's bulk.
TEST_P(FilmStackMethodTest, ThickAbsorberHidesWhatIsBelow) {
  stack_.SetSubstrate("n1.5");
  stack_.AddLayer("absorber", 20.0);
  Complex rs, rp;
  Reflect(stack_, 2 * kPi / 0.6, 0.2, GetParam(), rs, rp);
  FilmStack bulk(library_);
  bulk.SetAmbient("Air");
  bulk.SetSubstrate("absorber");
  Complex bs, bp;
  Reflect(bulk, 2 * kPi / 0.6, 0.2, GetParam(), bs, bp);
  EXPECT_NEAR(std::abs(rs - bs), 0.0, 1e-13);
  EXPECT_NEAR(std::abs(rp - bp), 0.0, 1e-13);
}

INSTANTIATE_TEST_SUITE_P(Methods, FilmStackMethodTest,
                         testing::Values(Method::kCharacteristicMatrix, Method::kAiryRecursion),
                         [](const testing::TestParamInfo<Method>& info) {
                           return info.param == Method::kCharacteristicMatrix ? std::string("Matrix")
                                                                              : std::string("Airy");
                         });

// Random stacks of up to five layers of transparent and absorbing media (thicknesses to 3 µm,
// angles to 60°, the visible band): the two methods agree. They share only the admittances, so
// agreement to 1e-12 is agreement of two independent propagations (each layer's matrix entries
// are below e^(k κ t) ~ 10^7 here, which bounds the rounding of the matrix product).
TEST(FilmStackTest, MatrixAndAiryAgreeOnRandomStacks) {
  Testing::SeededRandom random(1407);
  SCOPED_TRACE(random.Describe());
  RefractiveIndexLibrary library;
  FillMaterials(library);
  const std::vector<std::string> media = {"n1.5", "n2.0", "n2.3", "absorber", "Si"};
  for (int trial = 0; trial < 200; ++trial) {
    FilmStack stack(library);
    stack.SetAmbient("Air");
    stack.SetSubstrate(media[random.UniformInt(0, 4)]);
    const int layers = random.UniformInt(0, 5);
    for (int j = 0; j < layers; ++j) {
      const std::string& m = media[random.UniformInt(0, 4)];
      stack.AddLayer(m, m == "absorber" ? random.Uniform(0.0, 0.8) : random.Uniform(0.0, 3.0));
    }
    const double k = 2 * kPi / random.Uniform(0.4, 0.8);
    const double beta = random.Uniform(0.0, kPi / 3);
    Complex ms, mp, as, ap;
    ASSERT_TRUE(stack.GetReflection(k, beta, ms, mp, Method::kCharacteristicMatrix));
    ASSERT_TRUE(stack.GetReflection(k, beta, as, ap, Method::kAiryRecursion));
    EXPECT_NEAR(std::abs(ms - as), 0.0, 1e-12) << "trial " << trial;
    EXPECT_NEAR(std::abs(mp - ap), 0.0, 1e-12) << "trial " << trial;
    // A passive stack reflects at most what arrives.
    EXPECT_LE(std::abs(as), 1.0 + 1e-12);
    EXPECT_LE(std::abs(ap), 1.0 + 1e-12);
  }
}

// A transparent film over a transparent substrate: the reflectance swings with the film's phase
// thickness between the bare-substrate value (half-wave) and the quarter-wave value, periodic in
// the thickness with period λ / (2 n1).
TEST(FilmStackTest, ThinFilmReflectanceIsPeriodicInThickness) {
  RefractiveIndexLibrary library;
  FillMaterials(library);
  FilmStack stack(library);
  stack.SetAmbient("Air");
  stack.SetSubstrate("n1.5");
  stack.AddLayer("n2.0", 0.0);
  const double lambda = 0.6;
  const double period = lambda / (2 * 2.0);
  for (double t : {0.013, 0.05, 0.11}) {
    Complex a, ap, b, bp;
    stack.SetLayerThickness(0, t);
    stack.GetReflection(2 * kPi / lambda, 0.0, a, ap);
    stack.SetLayerThickness(0, t + 3 * period);
    stack.GetReflection(2 * kPi / lambda, 0.0, b, bp);
    EXPECT_NEAR(std::abs(a - b), 0.0, 1e-13) << "t " << t;
  }
}

TEST(FilmStackTest, UnknownMaterialAndBadThicknessAreRefused) {
  RefractiveIndexLibrary library;
  FillMaterials(library);
  FilmStack stack(library);
  stack.SetAmbient("Air");
  stack.SetSubstrate("GaAs");
  Complex rs(7, 7), rp(7, 7);
  EXPECT_FALSE(stack.GetReflection(10.0, 0.0, rs, rp));
  EXPECT_EQ(rs, Complex(7, 7)) << "outputs untouched";
  EXPECT_EQ(stack.GetStatus().GetMessage(), "Unknown material \"GaAs\" of the substrate");
  EXPECT_EQ(stack.GetStatus().GetFacility(), 10u);
  EXPECT_FALSE(stack.AddLayer("n1.5", -0.1));
  EXPECT_FALSE(stack.AddLayer("n1.5", std::nan("")));
  EXPECT_FALSE(stack.SetLayerThickness(0, 1.0)) << "no layer 0 yet";
  EXPECT_EQ(stack.GetNumberOfLayers(), 0);
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups

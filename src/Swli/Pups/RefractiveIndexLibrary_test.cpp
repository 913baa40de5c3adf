// Materials and the material library: the two dispersion models, the built-in materials, cloning
// and the rules for names.
#include "Swli/Pups/RefractiveIndexLibrary.h"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups {
namespace {

using Analysis::Core::Array;

Array<double> MakeArray(const std::vector<double>& values) {
  Array<double> a;
  for (double v : values)
    a.Add(v);
  return a;
}

TEST(RefractiveIndexMaterialTest, CauchyFormula) {
  RefractiveIndexMaterial m;
  m.SetCauchy(1.4485, 0.00354, 0.0001, 0.001, 0.0002, 0.00003);
  const double l = 0.55, l2 = l * l, l4 = l2 * l2;
  const std::complex<double> n = m.GetIndex(l);
  EXPECT_NEAR(n.real(), 1.4485 + 0.00354 / l2 + 0.0001 / l4, 1e-15);
  EXPECT_NEAR(n.imag(), 0.001 + 0.0002 / l2 + 0.00003 / l4, 1e-15);
  EXPECT_TRUE(m.IsCauchy());
}

// Linear between rows, end values held outside (no extrapolation of a dispersion curve).
TEST(RefractiveIndexMaterialTest, TableInterpolatesLinearlyAndHoldsTheEnds) {
  RefractiveIndexMaterial m;
  ASSERT_TRUE(m.Set("Table", MakeArray({0.4, 1.70, 0.0, 0.8, 1.62, 0.02, 1.0, 1.60, 0.0})));
  EXPECT_NEAR(m.GetIndex(0.6).real(), 1.66, 1e-15);
  EXPECT_NEAR(m.GetIndex(0.6).imag(), 0.01, 1e-15);
  EXPECT_NEAR(m.GetIndex(0.9).real(), 1.61, 1e-15);
  EXPECT_EQ(m.GetIndex(0.3), std::complex<double>(1.70, 0.0));
  EXPECT_EQ(m.GetIndex(2.0), std::complex<double>(1.60, 0.0));
  EXPECT_EQ(m.GetIndex(0.8), std::complex<double>(1.62, 0.02));
}

struct InvalidCase {
  std::string model;
  std::vector<double> parameters;
  std::string reason;
};

class RefractiveIndexMaterialInvalidTest : public testing::TestWithParam<InvalidCase> {};

TEST_P(RefractiveIndexMaterialInvalidTest, RefusedWithAReasonAndNothingChanges) {
  const InvalidCase& c = GetParam();
  RefractiveIndexMaterial m;
  m.SetCauchy(1.5, 0, 0, 0, 0, 0);
  EXPECT_FALSE(m.Set(c.model, MakeArray(c.parameters)));
  EXPECT_EQ(m.GetStatus().GetMessage(), c.reason);
  EXPECT_EQ(m.GetStatus().GetFacility(), 10u);
  EXPECT_EQ(m.GetModel(), "Complex-Cauchy/um");
  EXPECT_EQ(m.GetIndex(0.5), std::complex<double>(1.5, 0.0));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RefractiveIndexMaterialInvalidTest,
    testing::Values(
        InvalidCase{"Sellmeier", {1, 2, 3}, "unknown model \"Sellmeier\""},
        InvalidCase{
            "Complex-Cauchy/um", {1, 2, 3, 4, 5}, "model \"Complex-Cauchy/um\" takes 6 parameters, not 5"},
        InvalidCase{"Complex-Cauchy/um",
                    {1, 2, 3, 4, 5, 6, 7},
                    "model \"Complex-Cauchy/um\" takes 6 parameters, not 7"},
        InvalidCase{"Complex-Cauchy/um", {1, 0, 0, NAN, 0, 0}, "parameters must be finite numbers"},
        InvalidCase{"Table", {0.4, 1.7}, "model \"Table\" takes (wavelength, n, k) triples"},
        InvalidCase{"Table", {0.5, 1.7, 0, 0.4, 1.6, 0}, "table wavelengths must ascend strictly"},
        InvalidCase{"Table", {0.0, 1.7, 0}, "table wavelengths must be positive"},
        InvalidCase{"Table", {0.5, 1.7, -0.1}, "table extinction k must not be negative"}));

TEST(RefractiveIndexLibraryTest, BuiltInsNamesAndClones) {
  RefractiveIndexLibrary library;
  EXPECT_EQ(library.FindMaterial("Si"), -1);
  ASSERT_TRUE(library.AddBuiltInMaterials());
  ASSERT_TRUE(library.AddBuiltInMaterials()) << "a second call adds nothing";
  EXPECT_EQ(library.GetNumberOfMaterials(), 2);
  EXPECT_EQ(library.GetMaterial("Air")->GetIndex(0.5), std::complex<double>(1.0, 0.0));
  // Green's table at 600 and 500 nm, and halfway between 600 and 610 nm.
  EXPECT_EQ(library.GetMaterial("Si")->GetIndex(0.6), std::complex<double>(3.940, 0.020));
  EXPECT_NEAR(library.GetMaterial("Si")->GetIndex(0.5).real(), 4.294, 1e-12);
  EXPECT_NEAR(library.GetMaterial("Si")->GetIndex(0.605).real(), 0.5 * (3.940 + 3.918), 1e-12);

  const int si = library.FindMaterial("Si");
  RefractiveIndexMaterial* clone = library.CloneMaterial(si);
  ASSERT_NE(clone, nullptr);
  clone->GetParameters()[1] = 9.0;  // a deep copy
  EXPECT_NE(library.GetMaterial(si)->GetParameters()[1], 9.0);
  EXPECT_FALSE(library.AddMaterial("Si", clone)) << "the name is taken (the clone is deleted)";
  EXPECT_EQ(library.CloneMaterial(7), nullptr);
  EXPECT_EQ(library.GetMaterial(-1), nullptr);
  EXPECT_EQ(library.GetMaterialName(si), "Si");

  library.Clear();
  EXPECT_EQ(library.GetNumberOfMaterials(), 0);
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups

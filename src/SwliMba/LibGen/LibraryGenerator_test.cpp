// The library generator against closed forms of the signal model, against itself (fast and plain
// paths, refined grids, invariances of the physics) and on unusable definitions.
#include "SwliMba/LibGen/LibraryGenerator.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <numbers>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/Fft1DReal.h"
#include "SwliMba/LibGen/LgIntegrationGrid.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen {
namespace {

using Complex = std::complex<double>;
using LibDef::Library;
using LibDef::VariableKind;
using Swli::Pups::RefractiveIndexLibrary;
using Swli::Pups::RefractiveIndexMaterial;
constexpr double kPi = std::numbers::pi;

RefractiveIndexMaterial* Cauchy(double a, double b = 0.0, double d = 0.0) {
  auto* m = new RefractiveIndexMaterial();
  m->SetCauchy(a, b, 0, d, 0, 0);
  return m;
}

// Materials: built-in Air and Si, the SiO2, a dispersion-free glass "n1.5".
void FillMaterials(RefractiveIndexLibrary& materials) {
  materials.AddBuiltInMaterials();
  materials.AddMaterial("SiO2", Cauchy(1.4485, 0.00354));
  materials.AddMaterial("n1.5", Cauchy(1.5));
}

struct Definition {
  std::vector<std::pair<std::string, double>> layers;
  std::string substrate = "Si";
  int zeroLayer = 0;
  double na = 0.2;
  int samples = 128;
  double stepNm = 80.0;
  double centre = 10.47, width = 1.2;
  int kind1 = VariableKind::Undefined;
  int layer1 = 0;
  double from1 = 0, to1 = 0, step1 = 1;
};

void Fill(Library& library, const Definition& d) {
  RefractiveIndexLibrary materials;
  FillMaterials(materials);
  auto& part = library.GetPartModel();
  part.SetAmbient(materials, "Air");
  for (const auto& [material, t] : d.layers)
    part.AddLayer(materials, material, t);
  part.SetSubstrate(materials, d.substrate);
  part.SetZeroHeightLayerIndex(d.zeroLayer);
  ASSERT_TRUE(part.GetStatus().IsOk()) << part.GetStatus().GetMessage();
  auto& system = library.GetSystemModel();
  system.SetNumericalAperture(d.na);
  system.GetSource().AddGaussian(1.0, d.centre, d.width);
  library.GetSpecifications().SetNumberOfSamples(d.samples);
  library.GetSpecifications().GetRampSlope().SetValue(d.stepNm);
  auto& v = library.GetSkew().GetVariable1();
  v.SetKind(d.kind1);
  v.SetLayerIndex(d.layer1);
  v.SetRange(d.from1, d.to1, d.step1);
}

std::vector<Complex> Spectrum(Library& library, int index) {
  const auto* s = library.GetSpectra().GetSpectrum(index);
  return std::vector<Complex>(s->begin(), s->end());
}

double MaxAbs(const std::vector<Complex>& v) {
  double m = 0.0;
  for (const Complex& c : v)
    m = std::max(m, std::abs(c));
  return m;
}

double MaxDifference(const std::vector<Complex>& a, const std::vector<Complex>& b) {
  double m = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i)
    m = std::max(m, std::abs(a[i] - b[i]));
  return m;
}

// The forward real transform of samples f(ζ_j), ζ_j = (j − N/2) step, restricted to bins first..last.
std::vector<Complex> TransformOf(int samples, double stepUm, int first, int last,
                                 double (*f)(double, const void*), const void* context) {
  Analysis::Core::Fft1DReal fft(samples);
  for (int j = 0; j < samples; ++j)
    fft.Input()[j] = f((j - samples / 2) * stepUm, context);
  fft.Forward();
  std::vector<Complex> out(samples / 2 + 1);
  for (int m = first; m <= last; ++m)
    out[m] = fft.Output()[m];
  return out;
}

// On the axis (NA 0), a dispersion-free substrate and one Gaussian N(c, w) in k, the signal model's
// integral has a closed form: ∫ N(k) Re{r e^{2ikζ}} dk = r e^{−2 w² ζ²} cos(2 c ζ). The generator's
// sum over its wavenumber grid must reproduce it: what it leaves out are Gaussian tails beyond 7
// widths (1e-11) and aliases 8 coherence widths outside the scan (1e-14), so 1e-9 of the peak bin
// is a generous bound.
TEST(LibraryGeneratorTest, OnAxisBareSubstrateIsTheClosedForm) {
  Library library;
  Definition d;
  d.substrate = "n1.5";
  d.na = 0.0;
  Fill(library, d);
  LibraryGenerator generator;
  ASSERT_TRUE(generator.Generate(library)) << generator.GetStatus().GetPrintString();
  const auto& spectra = library.GetSpectra();
  ASSERT_EQ(spectra.GetNumberOfSpectra(), 1);
  struct Context {
    double r, c, w;
  } context{(1.0 - 1.5) / (1.0 + 1.5), d.centre, d.width};
  auto signal = [](double zeta, const void* p) {
    const auto* x = static_cast<const Context*>(p);
    return x->r * std::exp(-2 * x->w * x->w * zeta * zeta) * std::cos(2 * x->c * zeta);
  };
  const auto expected = TransformOf(d.samples, d.stepNm / 1000, spectra.GetFirstBinValid(),
                                    spectra.GetLastBinValid(), signal, &context);
  const auto actual = Spectrum(library, 0);
  EXPECT_LT(MaxDifference(actual, expected), 1e-9 * MaxAbs(expected));
  context.r = 1.0;
  const auto mirror = TransformOf(d.samples, d.stepNm / 1000, spectra.GetFirstBinValid(),
                                  spectra.GetLastBinValid(), signal, &context);
  const auto& m = spectra.GetPerfectMirrorSpectrum();
  EXPECT_LT(MaxDifference(std::vector<Complex>(m.begin(), m.end()), mirror), 1e-9 * MaxAbs(mirror));
}

// The valid bins follow from the source band S ≥ cut-off × peak: k = c ± w √(2 ln(1/cut-off)),
// reached at q = 2 k cos β_max (low end) and 2 k (high end); bin m holds q = 2π m / (N step).
TEST(LibraryGeneratorTest, ValidBinsFromTheCutOffAndZeroOutside) {
  Library library;
  Definition d;
  d.layers = {{"SiO2", 1.0}};
  Fill(library, d);
  LibraryGenerator generator;
  ASSERT_TRUE(generator.Generate(library)) << generator.GetStatus().GetPrintString();
  const double half = d.width * std::sqrt(2 * std::log(1 / 0.02));
  const double scan = d.samples * d.stepNm / 1000 / (2 * kPi);
  const int first = static_cast<int>(std::ceil(2 * (d.centre - half) * std::sqrt(1 - 0.04) * scan));
  const int last = static_cast<int>(std::floor(2 * (d.centre + half) * scan));
  EXPECT_EQ(library.GetSpectra().GetFirstBinValid(), first);
  EXPECT_EQ(library.GetSpectra().GetLastBinValid(), last);
  const auto s = Spectrum(library, 0);
  for (int m = 0; m < static_cast<int>(s.size()); ++m) {
    if (m < first || m > last) {
      EXPECT_EQ(s[m], Complex()) << "bin " << m;
    } else {
      EXPECT_GT(std::abs(s[m]), 0.0) << "bin " << m;
    }
  }
}

TEST(LibraryGeneratorTest, ExampleLibraryTiming) {
  Library library;
  Definition d;
  d.layers = {{"SiO2", 1.0}};
  d.kind1 = VariableKind::Thickness;
  d.from1 = 0.05;
  d.to1 = 2.5;
  d.step1 = 0.002;
  Fill(library, d);
  LibraryGenerator generator;
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(generator.Generate(library)) << generator.GetStatus().GetPrintString();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%d spectra in %.3f s, grid %s, %d nodes\n", library.GetSpectra().GetNumberOfSpectra(), seconds,
              generator.GetIntegrationGrid().Describe().c_str(),
              generator.GetIntegrationGrid().NumberOfNodes());
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen

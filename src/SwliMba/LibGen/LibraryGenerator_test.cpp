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
  materials.AddMaterial("SiC", Cauchy(3.6, 0.1, 0.02));
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

// The analytic signal z_j = Σ_{m>0} 2 X_m e^{2πi jm/N} / N of a spectrum: its magnitude is the
// fringe envelope at the samples.
std::vector<double> Envelope(const std::vector<Complex>& spectrum, int samples) {
  std::vector<double> envelope(samples);
  for (int j = 0; j < samples; ++j) {
    Complex z = 0.0;
    for (int m = 1; m < static_cast<int>(spectrum.size()); ++m)
      z += 2.0 * spectrum[m] * std::polar(1.0, 2 * kPi * j * m / samples);
    envelope[j] = std::abs(z) / samples;
  }
  return envelope;
}

// The local maxima of an envelope above a fraction of its largest value, as sample indices.
std::vector<int> Peaks(const std::vector<double>& e, double fraction) {
  const double top = *std::max_element(e.begin(), e.end());
  std::vector<int> peaks;
  for (int j = 1; j + 1 < static_cast<int>(e.size()); ++j) {
    if (e[j] > fraction * top && e[j] >= e[j - 1] && e[j] > e[j + 1]) peaks.push_back(j);
  }
  return peaks;
}

Library Generated(const Definition& d, LibraryGenerator& generator) {
  Library library;
  Fill(library, d);
  EXPECT_TRUE(generator.Generate(library)) << generator.GetStatus().GetPrintString();
  return library;
}

// A layer of the ambient itself is no layer: with height zero at the substrate, the signal of
// Air (t) over glass is the bare glass's for every t and every pupil angle. This holds only when
// the layer's round trip exp(2i k n0 cos β t) and the top's offset exp(−i q h_top) cancel, so it
// checks the sign conventions of both (to rounding).
TEST(LibraryGeneratorTest, AnAmbientLayerIsInvisible) {
  Definition d;
  d.layers = {{"Air", 0.0}};
  d.substrate = "n1.5";
  d.zeroLayer = 1;
  d.kind1 = VariableKind::Thickness;
  d.from1 = 0.0;
  d.to1 = 1.7;
  d.step1 = 0.85;
  LibraryGenerator generator;
  Library library = Generated(d, generator);
  ASSERT_EQ(library.GetSpectra().GetNumberOfSpectra(), 3);
  const auto bare = Spectrum(library, 0);
  for (int i = 1; i < 3; ++i)
    EXPECT_LT(MaxDifference(Spectrum(library, i), bare), 1e-12 * MaxAbs(bare)) << "configuration " << i;
}

// A 1.5 µm oxide on silicon returns two fringe packets. With height zero at the top surface the
// top's packet peaks at ζ = 0 (frame N/2) and the substrate's one group depth n_g t lower, i.e. at
// an earlier frame (n_g = A + 3B/λ² = 1.478 at 0.6 µm; the pupil's obliquity and the spread of the
// band move it by less than a frame). With height zero at the substrate the whole signal moves up
// by t: the substrate's packet is then at t − n_g t and the top's at t.
TEST(LibraryGeneratorTest, BuriedInterfacePeaksAtAnEarlierFrame) {
  const double t = 1.5, step = 0.08, groupIndex = 1.4485 + 3 * 0.00354 / 0.36;
  for (int zeroLayer : {0, 1}) {
    Definition d;
    d.layers = {{"SiO2", t}};
    d.zeroLayer = zeroLayer;
    LibraryGenerator generator;
    Library library = Generated(d, generator);
    const auto peaks = Peaks(Envelope(Spectrum(library, 0), d.samples), 0.2);
    ASSERT_EQ(peaks.size(), 2u) << "zero-height layer " << zeroLayer;
    const double top = zeroLayer == 0 ? 0.0 : t;
    EXPECT_NEAR((peaks[1] - d.samples / 2) * step, top, 1.0 * step)
        << "top surface, zero layer " << zeroLayer;
    EXPECT_NEAR((peaks[0] - d.samples / 2) * step, top - groupIndex * t, 1.0 * step)
        << "substrate, zero layer " << zeroLayer;
  }
}

// The fast path (per-node terms, matrix product over the valid bins) against the plain one
// (per-configuration Airy recursion with the library's complex division, per-sample sums, FFT),
// on a two-variable library that shifts an index and on a thickness library with height zero
// below two layers. Only the order of additions and the division formula differ: 1e-12 of the
// peak bin.
TEST(LibraryGeneratorTest, FastPathMatchesThePlainPath) {
  std::vector<Definition> cases(2);
  cases[0].layers = {{"SiO2", 1.0}};
  cases[0].kind1 = VariableKind::Thickness;
  cases[0].from1 = 0.1;
  cases[0].to1 = 2.1;
  cases[0].step1 = 0.25;
  cases[1].layers = {{"n1.5", 0.3}, {"SiO2", 0.7}};
  cases[1].zeroLayer = 2;
  cases[1].na = 0.55;
  cases[1].kind1 = VariableKind::Thickness;
  cases[1].layer1 = 1;
  cases[1].from1 = 0.0;
  cases[1].to1 = 1.0;
  cases[1].step1 = 0.125;
  for (std::size_t c = 0; c < cases.size(); ++c) {
    for (int shifted = 0; shifted < 2; ++shifted) {
      Library fast, plain;
      Fill(fast, cases[c]);
      Fill(plain, cases[c]);
      if (shifted) {
        for (Library* l : {&fast, &plain}) {
          auto& v2 = l->GetSkew().GetVariable2();
          v2.SetKind(VariableKind::CauchyN0);
          v2.SetLayerIndex(cases[c].layers.size() - 1);
          v2.SetRange(1.25, 1.75, 0.25);
        }
      }
      LibraryGenerator a, b;
      b.SetUseReferencePath(true);
      ASSERT_TRUE(a.Generate(fast)) << a.GetStatus().GetPrintString();
      ASSERT_TRUE(b.Generate(plain)) << b.GetStatus().GetPrintString();
      ASSERT_EQ(fast.GetSpectra().GetNumberOfSpectra(), plain.GetSpectra().GetNumberOfSpectra());
      for (int i = 0; i < fast.GetSpectra().GetNumberOfSpectra(); ++i) {
        const auto expected = Spectrum(plain, i);
        EXPECT_LT(MaxDifference(Spectrum(fast, i), expected), 1e-12 * MaxAbs(expected))
            << "case " << c << (shifted ? " with an index variable" : "") << ", configuration " << i;
      }
    }
  }
}

// Refining the grid changes the spectra less and less. For a stack of Cauchy materials the default
// grid is within 1e-7 of the peak bin of a grid twice as dense in wavenumber and with twice the
// angular nodes (the sums converge faster than any power of the spacing there), while a coarse grid
// (a quarter of the wavenumber nodes, 3 angular nodes) is far off. Silicon's table is interpolated
// linearly, so its kinks make the sums converge only algebraically (dk² or a little faster):
// doubling the density cuts the difference from a 4x denser grid by at least 3, and the default
// grid is within 1e-4 of the peak bin.
TEST(LibraryGeneratorTest, SpectraConvergeAsTheGridIsRefined) {
  Definition d;
  d.layers = {{"SiO2", 1.0}};
  d.kind1 = VariableKind::Thickness;
  d.from1 = 0.1;
  d.to1 = 2.5;
  d.step1 = 0.6;
  auto run = [&](double oversampling, int nodes) {
    LibraryGenerator generator;
    generator.SetWavenumberOversampling(oversampling);
    generator.SetAngularNodesPerInterval(nodes);
    Library library = Generated(d, generator);
    return library;
  };
  auto largestDifference = [](Library& a, Library& b) {
    double e = 0.0;
    for (int i = 0; i < a.GetSpectra().GetNumberOfSpectra(); ++i) {
      const auto reference = Spectrum(b, i);
      e = std::max(e, MaxDifference(Spectrum(a, i), reference) / MaxAbs(reference));
    }
    return e;
  };
  d.substrate = "SiC";
  {
    LibraryGenerator probe;
    Library standard = Generated(d, probe);
    const int nodes = probe.GetIntegrationGrid().NodesPerInterval();
    Library fine = run(2.0, 2 * nodes), coarse = run(0.25, 3);
    const double standardError = largestDifference(standard, fine);
    const double coarseError = largestDifference(coarse, fine);
    std::printf(
        "Cauchy substrate: default grid (%d wavenumbers, %d angles) within %.1e of the peak bin of the "
        "fine grid, coarse %.1e\n",
        probe.GetIntegrationGrid().NumberOfWavenumbers(), nodes, standardError, coarseError);
    EXPECT_LT(standardError, 1e-7);
    EXPECT_GT(coarseError, 1e-3);
  }
  d.substrate = "Si";
  Library k1 = run(1.0, 0), k2 = run(2.0, 0), k4 = run(4.0, 0);
  const double e1 = largestDifference(k1, k4), e2 = largestDifference(k2, k4);
  std::printf("Silicon table: %.1e at the default density, %.1e at twice it (from 4x)\n", e1, e2);
  EXPECT_GT(e1 / e2, 3.0);
  EXPECT_LT(e1, 1e-4);
}

// A constant dispersion phase d5 multiplies every positive-frequency bin by exp(i d5); a Tau that
// is 1 on the axis changes nothing for on-axis light; circular light equals linear light when the
// pupil is uniform, and also under a rotationally symmetric pupil model (⟨I cos²φ⟩ = ⟨I sin²φ⟩),
// but not under an asymmetric one.
// (A thin film on a Cauchy substrate, so that the signal has died out at the scan's ends and the
// negative frequencies do not leak into the bins: a thicker film's multiple reflections, one
// optical thickness apart and 0.08 weaker each, reach the ends, and the kinks of silicon's linearly
// interpolated table leave tails of about 1e-5 there.)
TEST(LibraryGeneratorTest, InstrumentTermsActAsTheModelSays) {
  Definition d;
  d.layers = {{"SiO2", 0.3}};
  d.substrate = "SiC";
  LibraryGenerator generator;
  Library plain = Generated(d, generator);
  const auto base = Spectrum(plain, 0);

  Library dispersed;
  Fill(dispersed, d);
  dispersed.GetSystemModel().GetDispersion().SetNoThetaCoefficients(0, 0, 0, 0, 0, 0.7);
  ASSERT_TRUE(generator.Generate(dispersed));
  std::vector<Complex> rotated(base);
  for (auto& v : rotated)
    v *= std::polar(1.0, 0.7);
  EXPECT_LT(MaxDifference(Spectrum(dispersed, 0), rotated), 1e-10 * MaxAbs(base));

  Definition axial = d;
  axial.na = 0.0;
  Library onAxis = Generated(axial, generator);
  Library tau;
  Fill(tau, axial);
  tau.GetSystemModel().GetTau().SetMagCoefficients(0.5, 0, 0, 0.2, 0, 0);
  tau.GetSystemModel().GetTau().SetPhaseCoefficients(1, 0, 0, 0, 0, 0, 0, 0);
  ASSERT_TRUE(generator.Generate(tau));
  EXPECT_EQ(Spectrum(tau, 0), Spectrum(onAxis, 0));

  Library linear;
  Fill(linear, d);
  linear.GetSystemModel().SetPolarization(LibDef::PolarizationType::LinearlyPolarized);
  ASSERT_TRUE(generator.Generate(linear));
  EXPECT_EQ(Spectrum(linear, 0), base);

  for (bool symmetric : {true, false}) {
    Library circularPupil, linearPupil;
    for (Library* l : {&circularPupil, &linearPupil}) {
      Fill(*l, d);
      l->GetSystemModel().SetNumericalAperture(0.6);
      l->GetSystemModel().GetPupilIntensity().NewModel(0.6)->SetPolynomial(1, 0, symmetric ? 1 : 0, 0, 0,
                                                                           0.2);
    }
    linearPupil.GetSystemModel().SetPolarization(LibDef::PolarizationType::LinearlyPolarized);
    ASSERT_TRUE(generator.Generate(circularPupil));
    ASSERT_TRUE(generator.Generate(linearPupil));
    const auto c = Spectrum(circularPupil, 0);
    const double difference = MaxDifference(Spectrum(linearPupil, 0), c) / MaxAbs(c);
    if (symmetric) {
      EXPECT_LT(difference, 1e-12);
    } else {
      EXPECT_GT(difference, 1e-4);
    }
  }
}

struct RefusalCase {
  std::string name;
  void (*edit)(Library&);
  std::string message;
};

class LibraryGeneratorRefusalTest : public testing::TestWithParam<RefusalCase> {};

TEST_P(LibraryGeneratorRefusalTest, UnusableDefinitionsNameTheField) {
  Definition d;
  d.layers = {{"SiO2", 1.0}};
  d.kind1 = VariableKind::Thickness;
  d.from1 = 0.5;
  d.to1 = 1.0;
  d.step1 = 0.25;
  Library library;
  Fill(library, d);
  GetParam().edit(library);
  LibraryGenerator generator;
  EXPECT_FALSE(generator.Generate(library));
  EXPECT_EQ(generator.GetStatus().GetMessage(), GetParam().message);
  EXPECT_EQ(generator.GetStatus().GetCode(), Analysis::Core::StatusCode::kNotSet);
  EXPECT_EQ(generator.GetStatus().GetFile(), "SwliMba\\LibGen\\LibraryGenerator");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LibraryGeneratorRefusalTest,
    testing::Values(
        RefusalCase{"OddSamples", [](Library& l) { l.GetSpecifications().SetNumberOfSamples(127); },
                    "Scan sampling: the number of samples must be even and at least 4, not 127"},
        RefusalCase{"ZeroStep", [](Library& l) { l.GetSpecifications().GetRampSlope().SetValue(0.0); },
                    "Scan sampling: the ramp slope must be positive"},
        RefusalCase{"NoGaussians", [](Library& l) { l.GetSystemModel().GetSource().Clear(); },
                    "The source has no Gaussians"},
        RefusalCase{"NumericalAperture", [](Library& l) { l.GetSystemModel().SetNumericalAperture(1.2); },
                    "The numerical aperture must lie in [0, 1)"},
        RefusalCase{"MissingLayer", [](Library& l) { l.GetSkew().GetVariable1().SetLayerIndex(3); },
                    "Skew: variable 1 names layer 3, which does not exist"},
        RefusalCase{
            "ZeroHeightLayer", [](Library& l) { l.GetPartModel().SetZeroHeightLayerIndex(2); },
            "PartModel: the zero-height layer index 2 must lie between 0 and the number of layers (1)"},
        RefusalCase{"InvertedRange", [](Library& l) { l.GetSkew().GetVariable1().SetRange(1.0, 0.5, 0.25); },
                    "Skew: variable 1 needs a finite range with from <= to and a positive increment"},
        RefusalCase{"NegativeThickness",
                    [](Library& l) { l.GetSkew().GetVariable1().SetRange(-0.5, 0.5, 0.25); },
                    "Skew: configuration 0 gives layer 0 the thickness -0.500000 um"},
        RefusalCase{"SameVariableTwice",
                    [](Library& l) {
                      l.GetSkew().GetVariable2().SetKind(VariableKind::Thickness);
                      l.GetSkew().GetVariable2().SetRange(0.5, 1.0, 0.25);
                    },
                    "Skew: variables 1 and 2 vary the same parameter of the same layer"},
        RefusalCase{
            "CauchyOnTable",
            [](Library& l) {
              RefractiveIndexLibrary materials;
              FillMaterials(materials);
              l.GetPartModel().AddLayer(materials, "Si", 0.1);
              l.GetSkew().GetVariable2().SetKind(VariableKind::CauchyN0);
              l.GetSkew().GetVariable2().SetLayerIndex(1);
              l.GetSkew().GetVariable2().SetRange(3.5, 4.0, 0.25);
            },
            "Skew: variable 2 varies a Cauchy term of layer 1, whose material is not \"Complex-Cauchy/um\""},
        RefusalCase{"ClosedPupil",
                    [](Library& l) {
                      Analysis::Core::Array<double> p;
                      p.Add(0.0, 0.1, 1.0, 0.0, 0.0);
                      p.Add(0.5, 0.9);  // the aperture opens at sin β = 0.5, beyond NA 0.2
                      l.GetSystemModel().GetPupilRollOff().SetParameters(p);
                    },
                    "The pupil transmits no light"},
        RefusalCase{"TooCoarseStep",
                    [](Library& l) {
                      l.GetSpecifications().SetNumberOfSamples(8);
                      l.GetSpecifications().GetRampSlope().SetValue(400.0);  // the band lies beyond bin 4
                    },
                    "Scan sampling: no spectrum bin lies in the source band (the scan step is too coarse or "
                    "the scan "
                    "too short)"}),
    [](const testing::TestParamInfo<RefusalCase>& info) { return info.param.name; });

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen

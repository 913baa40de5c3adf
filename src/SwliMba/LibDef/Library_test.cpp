// The library definition as a whole: shared parts of shallow copies, material import into the part
// model, the spectra and their matrix form, and allocation failures during construction.
#include "SwliMba/LibDef/Library.h"

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Testing/FailingAllocations.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {
namespace {

using Analysis::Core::DoubleMatrix2D;
namespace StatusCode = Analysis::Core::StatusCode;
using Swli::Pups::RefractiveIndexLibrary;
using Swli::Pups::RefractiveIndexMaterial;

// Air and Si built in, SiO2 as a Cauchy material.
void FillMaterials(RefractiveIndexLibrary& materials, double oxideA = 1.4485) {
  materials.AddBuiltInMaterials();
  auto* oxide = new RefractiveIndexMaterial();
  oxide->SetCauchy(oxideA, 0.00354, 0, 0, 0, 0);
  materials.AddMaterial("SiO2", oxide);
}

TEST(LibraryTest, CopiesShareTheirParts) {
  Library library;
  ASSERT_TRUE(library.GetStatus().IsOk());
  Library copy(library);
  EXPECT_EQ(&copy.GetSkew(), &library.GetSkew());
  EXPECT_EQ(&copy.GetSpectra(), &library.GetSpectra());
  EXPECT_EQ(&copy.GetPartModel(), &library.GetPartModel());
  copy.GetSpecifications().SetNumberOfSamples(128);
  EXPECT_EQ(library.GetSpecifications().GetNumberOfSamples(), 128);

  Library other;
  other = library;
  EXPECT_EQ(&other.GetSystemModel(), &library.GetSystemModel());

  // The parts outlive the original.
  auto* survivor = new Library(library);
  library = Library();
  EXPECT_EQ(survivor->GetSpecifications().GetNumberOfSamples(), 128);
  delete survivor;
}

TEST(LibraryTest, ClearResetsEverythingButCutOffAndValidBins) {
  Library library;
  RefractiveIndexLibrary materials;
  FillMaterials(materials);
  library.GetPartModel().SetAmbient(materials, "Air");
  library.GetPartModel().AddLayer(materials, "SiO2", 1.0);
  library.GetPartModel().SetZeroHeightLayerIndex(1);
  library.GetSystemModel().GetSource().SetCutOff(0.1);
  library.GetSystemModel().GetSource().AddGaussian(1, 10, 1);
  library.GetSpecifications().SetNumberOfSamples(64);
  library.GetSpecifications().GetRampSlope().SetValue(80);
  library.GetSkew().GetVariable1().SetKind(VariableKind::Thickness);
  library.GetSpectra().Resize(3, 33);
  library.GetSpectra().SetFirstBinValid(4);
  library.GetSpectra().SetLastBinValid(20);

  library.Clear();
  EXPECT_TRUE(library.GetStatus().IsOk());
  EXPECT_EQ(library.GetPartModel().GetFilmStack().GetNumberOfLayers(), 0);
  EXPECT_EQ(library.GetPartModel().GetRefractiveIndexLibrary().GetNumberOfMaterials(), 0);
  EXPECT_EQ(library.GetPartModel().GetZeroHeightLayerIndex(), 0);
  EXPECT_EQ(library.GetSystemModel().GetSource().GetNumberOfGaussians(), 0);
  EXPECT_DOUBLE_EQ(library.GetSystemModel().GetSource().GetCutOff(), 0.1);
  EXPECT_EQ(library.GetSpecifications().GetNumberOfSamples(), 0);
  EXPECT_DOUBLE_EQ(library.GetSpecifications().GetRampSlope().GetValue(), 0.03);
  EXPECT_EQ(library.GetSkew().GetVariable1().GetKind(), VariableKind::Undefined);
  EXPECT_EQ(library.GetSpectra().GetNumberOfSpectra(), 0);
  EXPECT_EQ(library.GetSpectra().GetPerfectMirrorSpectrum().Size(), 0);
  EXPECT_EQ(library.GetSpectra().GetFirstBinValid(), 4);
  EXPECT_EQ(library.GetSpectra().GetLastBinValid(), 20);
}

TEST(PartModelTest, ImportCopiesOnceAndThenDemandsIdenticalData) {
  RefractiveIndexLibrary materials;
  FillMaterials(materials);
  PartModel part;
  part.SetAmbient(materials, "Air");
  part.AddLayer(materials, "SiO2", 1.0);
  part.AddLayer(materials, "SiO2", 0.5);  // same name, same data: accepted
  part.SetSubstrate(materials, "Si");
  ASSERT_TRUE(part.GetStatus().IsOk()) << part.GetStatus().GetMessage();
  const auto& stack = part.GetFilmStack();
  EXPECT_EQ(stack.GetAmbient(), "Air");
  EXPECT_EQ(stack.GetSubstrate(), "Si");
  ASSERT_EQ(stack.GetNumberOfLayers(), 2);
  EXPECT_EQ(stack.GetLayer(1).thicknessUm, 0.5);
  EXPECT_EQ(part.GetRefractiveIndexLibrary().GetNumberOfMaterials(), 3);

  // The part model holds private copies: changing the external material does not reach it.
  materials.GetMaterial("SiO2")->GetParameters()[0] = 1.46;
  EXPECT_DOUBLE_EQ(part.GetRefractiveIndexLibrary().GetMaterial("SiO2")->GetParameters()[0], 1.4485);
  part.AddLayer(materials, "SiO2", 0.2);
  EXPECT_EQ(part.GetStatus().GetCode(), StatusCode::kNoData);
  EXPECT_EQ(part.GetStatus().GetMessage(), "Internal and external material data do not match");
  EXPECT_EQ(part.GetStatus().GetFile(), "SwliMba\\LibDef\\PartModel");
  EXPECT_EQ(stack.GetNumberOfLayers(), 2) << "a failed import adds no layer";
}

TEST(PartModelTest, AnyChangeOrNanIsAMismatch) {
  for (double changed :
       {1.4485 + 1e-15, 1.4485 * (1 + 1e-16) + 2.3e-16, std::numeric_limits<double>::quiet_NaN()}) {
    RefractiveIndexLibrary first, second;
    FillMaterials(first);
    FillMaterials(second, changed);
    PartModel part;
    part.AddLayer(first, "SiO2", 1.0);
    ASSERT_TRUE(part.GetStatus().IsOk());
    part.AddLayer(second, "SiO2", 1.0);
    const bool identical = changed == 1.4485;
    EXPECT_EQ(part.GetStatus().IsOk(), identical) << "A = " << changed;
  }
}

TEST(PartModelTest, MissingMaterialIsCode20) {
  RefractiveIndexLibrary materials;
  FillMaterials(materials);
  PartModel part;
  part.SetSubstrate(materials, "GaAs");
  EXPECT_EQ(part.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_EQ(part.GetStatus().GetMessage(),
            "External refractive index library does not contain the specified material");
  EXPECT_EQ(part.GetFilmStack().GetSubstrate(), "");
}

TEST(PartModelTest, CopiesShareTheStackAndTestAddsNitride) {
  PartModel part;
  PartModel copy(part);
  EXPECT_EQ(&copy.GetFilmStack(), &part.GetFilmStack());
  part.Test();
  EXPECT_GE(copy.GetRefractiveIndexLibrary().FindMaterial("Si3N4"), 0);
  EXPECT_EQ(copy.GetRefractiveIndexLibrary().FindMaterial("SiW"), -1);
}

TEST(SpectraTest, ResizeZeroesAndMatrixInterleaves) {
  Spectra spectra;
  ASSERT_TRUE(spectra.Resize(3, 5));
  ASSERT_EQ(spectra.GetNumberOfSpectra(), 3);
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(spectra.GetSpectrum(i)->Size(), 5);
    for (const auto& v : *spectra.GetSpectrum(i))
      EXPECT_EQ(v, std::complex<double>());
  }
  EXPECT_EQ(spectra.GetPerfectMirrorSpectrum().Size(), 5);
  (*spectra.GetSpectrum(1))[2] = {0.5, -0.25};
  (*spectra.GetSpectrum(2))[4] = {3.0, 4.0};

  DoubleMatrix2D m(7, 7);
  m.SetAll(9.0);
  spectra.GetAsDoubleMatrix2D(m);
  ASSERT_EQ(m.GetRows(), 3);
  ASSERT_EQ(m.GetColumns(), 10);
  EXPECT_EQ(m(1, 4), 0.5);
  EXPECT_EQ(m(1, 5), -0.25);
  EXPECT_EQ(m(2, 8), 3.0);
  EXPECT_EQ(m(2, 9), 4.0);
  EXPECT_EQ(m(0, 0), 0.0) << "set to 0 before writing";

  // A second Resize starts from zero again.
  ASSERT_TRUE(spectra.Resize(2, 3));
  EXPECT_EQ((*spectra.GetSpectrum(1))[2], std::complex<double>());
  ASSERT_TRUE(spectra.Clear());
  spectra.GetAsDoubleMatrix2D(m);
  EXPECT_EQ(m.GetRows(), 0);
  EXPECT_EQ(m.GetColumns(), 0);
}

// The parts are made in field order: spectra (which makes its spectrum array and mirror spectrum),
// part model (its refractive-index library, then its film stack), system model (with the pupil
// intensity's model list), scan sampling, skew. Failing each non-throwing allocation in turn, the
// library's own failures name the parts in that order, each once, and the parts' failures name
// what they could not make.
TEST(LibraryTest, AllocationFailureAtConstructionNamesThePart) {
  std::vector<std::string> libraryMessages;
  std::vector<std::string> partMessages;
  int failing = 1;
  for (; failing < 100; ++failing) {
    Testing::FailNthNothrowAllocation(failing);
    auto* library = new Library();
    // More allocations were still to go than the construction made: it was not affected.
    const bool unaffected = Testing::FailNthNothrowAllocation(0) > 0;
    if (library->GetStatus().IsError()) {
      EXPECT_EQ(library->GetStatus().GetCode(), StatusCode::kAllocationFailed);
      EXPECT_EQ(library->GetStatus().GetFile(), "SwliMba\\LibDef\\Library");
      libraryMessages.push_back(library->GetStatus().GetMessage());
    } else {
      for (const auto* status : {&library->GetSpectra().GetStatus(), &library->GetPartModel().GetStatus(),
                                 &library->GetSystemModel().GetPupilIntensity().GetStatus()}) {
        if (status->IsError() && !status->GetMessage().empty()) partMessages.push_back(status->GetMessage());
      }
    }
    delete library;
    if (unaffected) break;
  }
  EXPECT_LT(failing, 100);
  const std::vector<std::string> parts = {"Allocation of spectra failed", "Allocation of partModel failed",
                                          "Allocation of systemModel failed",
                                          "Allocation of specifications failed", "Allocation of skew failed"};
  EXPECT_EQ(libraryMessages, parts);
  const std::vector<std::string> inner = {
      "Allocation of spectra failed", "Allocation of perfect mirror spectrum failed",
      "Allocation of refractiveIndexLibrary failed", "Allocation of filmStack failed",
      "Allocation of model container failed"};
  EXPECT_EQ(partMessages, inner);
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef

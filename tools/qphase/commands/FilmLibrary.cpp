#include "commands/FilmLibrary.h"

#include <fstream>
#include <sstream>

#include "SwliMba/LibDef/Library.h"
#include "SwliMba/LibDef/LibraryJson.h"
#include "SwliMba/LibGen/LibraryGenerator.h"
#include "ToolError.h"

namespace Quarn::Qphase {

namespace LibDef = ::Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef;
namespace LibGen = ::Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen;

namespace {

LibraryVariable Describe(const LibDef::VariableSpecification& v, bool used) {
  LibraryVariable out;
  if (!used) return out;
  out.kind = v.GetKind().ToString();
  out.layer = v.GetLayerIndex();
  out.from = v.GetRangeFrom();
  out.step = v.GetRangeIncrement();
  out.count = v.GetNumberOfValues();
  return out;
}

}  // namespace

void BuildFilmLibrary(const std::string& stackPath, int samples, double scanStepNm,
                      Core::DoubleMatrix2D& matrix, LibraryFileInfo& info) {
  std::ifstream in(stackPath, std::ios::binary);
  if (!in) throw UsageError(stackPath + ": cannot be read");
  std::ostringstream text;
  text << in.rdbuf();

  LibDef::Library library;
  LibDef::LibraryJson reader;
  if (!reader.Read(text.str(), library)) throw UsageError(stackPath + ": " + reader.GetStatus().GetMessage());
  library.GetSpecifications().SetNumberOfSamples(samples);
  library.GetSpecifications().GetRampSlope().SetValue(scanStepNm);
  LibGen::LibraryGenerator generator;
  if (!generator.Generate(library))
    throw UsageError(stackPath + ": the library cannot be generated: " + generator.GetStatus().GetMessage());
  library.GetSpectra().GetAsDoubleMatrix2D(matrix);
  if (matrix.GetStatus().IsError()) throw UsageError(stackPath + ": the library does not fit in memory");

  info.samples = samples;
  info.scanStepNm = scanStepNm;
  info.firstValidBin = library.GetSpectra().GetFirstBinValid();
  info.lastValidBin = library.GetSpectra().GetLastBinValid();
  const auto& mirror = library.GetSpectra().GetPerfectMirrorSpectrum();
  info.perfectMirror.assign(mirror.begin(), mirror.end());
  const LibDef::Skew& skew = library.GetSkew();
  const bool first = skew.GetVariable1().GetKind() != LibDef::VariableKind::Undefined;
  info.variable1 = Describe(skew.GetVariable1(), first);
  info.variable2 = Describe(skew.GetVariable2(), first && skew.IsTwoDimensional());
}

void ToggleSpectrumOrigin(Core::DoubleMatrix2D& matrix) {
  for (int r = 0; r < matrix.GetRows(); ++r) {
    double* row = matrix.Row(r);
    for (int c = 2; c + 1 < matrix.GetColumns(); c += 4) {
      row[c] = -row[c];
      row[c + 1] = -row[c + 1];
    }
  }
}

}  // namespace Quarn::Qphase

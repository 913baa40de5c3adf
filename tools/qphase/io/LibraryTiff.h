#pragma once

#include <complex>
#include <string>
#include <vector>

#include "Analysis/Core/DoubleMatrix2D.h"

#include "OutputFiles.h"

namespace Quarn::Qphase {

namespace Core = ::Quarn::Metrology::Analysis::Core;

// What a film library file records besides its matrix: the scan sampling it was computed for, the
// valid bins, the perfect-mirror spectrum and the varied variables (kind, layer, first value,
// step, number of values; kind "Undefined" with count 1 for an unused variable 2).
struct LibraryVariable {
  std::string kind = "Undefined";
  int layer = 0;
  double from = 0.0;
  double step = 0.0;
  int count = 1;
};

struct LibraryFileInfo {
  int samples = 0;
  double scanStepNm = 0.0;
  int firstValidBin = 0;
  int lastValidBin = 0;
  std::vector<std::complex<double>> perfectMirror;
  LibraryVariable variable1, variable2;
};

// Writes the library matrix (rows = signals, columns = 2 × bins) as a one-page 64-bit float
// grayscale TIFF whose ImageDescription holds the information above as JSON.
void WriteLibraryTiff(WriteTarget target, const Core::DoubleMatrix2D& matrix, const LibraryFileInfo& info);

// Reads such a file; a usage error (exit 2) names the file and what is wrong with it.
void ReadLibraryTiff(const std::string& path, Core::DoubleMatrix2D& matrix, LibraryFileInfo& info);

}  // namespace Quarn::Qphase

#pragma once

#include <complex>
#include <string>
#include <vector>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Jobs/FilmJob.h"

#include "OutputFiles.h"

namespace Quarn::Qphase {

namespace Core = ::Quarn::Metrology::Analysis::Core;

// What a film library file records besides its matrix: the scan sampling it was computed for, the
// valid bins, the perfect-mirror spectrum and the varied variables (kind, layer, first value,
// step, number of values; kind "Undefined" with count 1 for an unused variable 2). The film job's
// own description of a library.
using LibraryVariable = Jobs::FilmVariable;
using LibraryFileInfo = Jobs::FilmLibraryInfo;

// Writes the library matrix (rows = signals, columns = 2 × bins) as a one-page 64-bit float
// grayscale TIFF whose ImageDescription holds the information above as JSON.
void WriteLibraryTiff(WriteTarget target, const Core::DoubleMatrix2D& matrix, const LibraryFileInfo& info);

// Reads such a file; a usage error (exit 2) names the file and what is wrong with it.
void ReadLibraryTiff(const std::string& path, Core::DoubleMatrix2D& matrix, LibraryFileInfo& info);

}  // namespace Quarn::Qphase

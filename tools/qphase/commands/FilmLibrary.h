#pragma once

#include <string>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "io/LibraryTiff.h"

namespace Quarn::Qphase {

// Reads a film-stack description (STACK.json) and generates its library for a scan of `samples`
// frames of `scanStepNm`: the library matrix and what the library file records with it. A usage
// error (exit 2) names the file and the field when the description or the sampling is unusable.
void BuildFilmLibrary(const std::string& stackPath, int samples, double scanStepNm,
                      Core::DoubleMatrix2D& matrix, LibraryFileInfo& info);

}  // namespace Quarn::Qphase

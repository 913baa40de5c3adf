// Writing grayscale TIFF files: float maps (results) and integer stacks (synthetic data).
#pragma once

#include <string>

#include "Analysis/Core/DataMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "OutputFiles.h"

namespace Quarn::Qphase {

namespace Core = ::Quarn::Metrology::Analysis::Core;

// Writes a map as a 32-bit float grayscale TIFF, row by row; no-data elements (at or above the
// largest finite double) become NaN. Throws a usage error when the file cannot be written.
// The target is the file opened once (see OutputFiles::Stage); the path form creates the file.
void WriteFloatTiff(WriteTarget target, const Core::DataMatrix2D<double>& map);
void WriteFloatTiff(const std::string& path, const Core::DataMatrix2D<double>& map);
// An int map (such as a white-light intensity) the same way: the int no-data value becomes NaN.
void WriteFloatTiff(WriteTarget target, const Core::DataMatrix2D<int>& map);

// Writes an 8- or 16-bit multi-page stack (used by the demo and the tests to hand data to tools).
void WriteTiffStack(const std::string& path, const Core::FrameBuffer& frames);

}  // namespace Quarn::Qphase

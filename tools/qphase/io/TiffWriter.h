// Writing grayscale TIFF files: float maps (results) and integer stacks (synthetic data).
#pragma once

#include <memory>
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

// FloatTiffWriter
//
// The float TIFF of WriteFloatTiff, written a band of rows at a time in the same strips (the file is
// the same byte for byte), for a producer that makes a map band by band and never holds all of it.
// Throws a usage error naming the file when it cannot be written.
class FloatTiffWriter {
 public:
  FloatTiffWriter(WriteTarget target, int rows, int cols);
  ~FloatTiffWriter();
  FloatTiffWriter(const FloatTiffWriter&) = delete;
  FloatTiffWriter& operator=(const FloatTiffWriter&) = delete;

  // Rows per strip: bands of a multiple of this many rows are written without being held back.
  int RowsPerStrip() const;
  // Appends every row of `band`, which has the map's column count.
  void Append(const Core::DataMatrix2D<double>& band);
  void Append(const Core::DataMatrix2D<int>& band);
  // Writes what is held back and flushes; every row of the map must have been appended.
  void Finish();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// Writes an 8- or 16-bit multi-page stack (used by the demo and the tests to hand data to tools).
void WriteTiffStack(const std::string& path, const Core::FrameBuffer& frames);

}  // namespace Quarn::Qphase

// What the TIFF reader and writer share: libtiff's messages caught for ours, and an open file.
#pragma once

#include <tiffio.h>

#include <memory>
#include <string>

namespace Quarn::Qphase::detail {

// libtiff's last error on this thread ("" when none since the last OpenTiff).
std::string& LastTiffError();

// " (libtiff's message)" when libtiff said something, else "".
std::string TiffErrorSuffix();

struct TiffCloser {
  void operator()(TIFF* tiff) const { TIFFClose(tiff); }
};
using TiffHandle = std::unique_ptr<TIFF, TiffCloser>;

// Opens a TIFF to read ("r") or write ("w"); messages name the user's path, also when `path` is the
// temporary file of an output.
TiffHandle OpenTiff(const std::string& path, const char* mode);

}  // namespace Quarn::Qphase::detail

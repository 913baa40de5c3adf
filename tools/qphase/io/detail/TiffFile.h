// What the TIFF reader and writer share: libtiff's messages caught for ours, and an open file.
#pragma once

#include <tiffio.h>

#include <memory>
#include <string>

#include "InputFile.h"
#include "OutputFiles.h"

namespace Quarn::Qphase::detail {

// libtiff's last error and last warning on this thread since ClearTiffMessages. libtiff reports
// through process-wide handlers; these keep its words for the message about the file at hand.
std::string& LastTiffError();
std::string& LastTiffWarning();
void ClearTiffMessages();

// " (libtiff's error, else its warning)" when libtiff said something, else "".
std::string TiffMessageSuffix();

struct TiffCloser {
  void operator()(TIFF* tiff) const { TIFFClose(tiff); }
};
using TiffHandle = std::unique_ptr<TIFF, TiffCloser>;

// A TIFF on the input's open descriptor, which libtiff then owns (the file is not opened again).
// Throws a usage error naming the file when it is no TIFF libtiff can read.
TiffHandle OpenTiffForReading(InputFile& file);

// A TIFF written to the target's open descriptor, which libtiff then owns.
TiffHandle OpenTiffForWriting(WriteTarget& target);

}  // namespace Quarn::Qphase::detail

// Reading grayscale TIFF files: camera stacks and single images, and float maps.
#pragma once

#include <cstdint>
#include <string>

#include "Analysis/Core/DataMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/IntMatrix2D.h"

namespace Quarn::Qphase {

namespace Core = ::Quarn::Metrology::Analysis::Core;

// The layout of a grayscale multi-page TIFF: one page per camera frame.
struct TiffStackInfo {
  int pages = 0;
  int rows = 0;
  int cols = 0;
  int bitsPerSample = 0;  // 8 or 16
};

// Every reader opens its file once (see InputFile: only a regular file is read) and checks each
// page before anything of its size is allocated: its declared pixels must fit in what its strips
// can hold at the best ratio its compression could reach, and in the frame-size limit below. A
// warning of libtiff while pixels are decoded (libjpeg's "Corrupt JPEG data", a short strip) means
// damaged data and fails the read; libtiff's words are part of the message.

// The most pixels one page (frame, image or map) may have: 4096 x 4096 (16,777,216) unless the
// environment variable QPHASE_MAX_FRAME_PIXELS gives another whole number. Throws a usage error when
// that variable is set to anything else.
std::int64_t MaxFramePixels();

// Reads the layout and checks that every page is an 8- or 16-bit unsigned grayscale image of the
// same size. Throws a usage error (exit 2) naming the file and the problem otherwise.
TiffStackInfo InspectTiffStack(const std::string& path);

// Reads every page into `frames`, allocated here over a window at the origin: page k becomes frame
// k, written straight into the frame buffer's storage (8-bit pages into 8-bit frames, 16-bit into
// 16-bit). `framesScanned` > pages makes a ring of the pages (white-light scans keep only the last
// frames); 0 means as many frames as pages.
TiffStackInfo ReadTiffStack(const std::string& path, Core::FrameBuffer& frames, int framesScanned = 0,
                            int scanDirection = 1);

// Reads one page (the first, or `page`) as an integer image.
TiffStackInfo ReadTiffImage(const std::string& path, Core::IntMatrix2D& image, int page = 0);

// Reads a 32-bit float (or 8-/16-bit integer) grayscale map, such as one written by WriteFloatTiff;
// NaN becomes no-data.
void ReadFloatTiff(const std::string& path, Core::DataMatrix2D<double>& map);

}  // namespace Quarn::Qphase

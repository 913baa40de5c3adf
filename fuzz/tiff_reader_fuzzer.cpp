// The tool's TIFF readers on arbitrary bytes: the stack (also as a ring of a longer scan), one page
// as an image or mask, and a float map. A reader either refuses the file with a usage error (exit 2)
// or returns what it promises: a layout within the frame limit and every sample readable.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "FuzzCheck.h"
#include "TiffIO.h"
#include "ToolError.h"

namespace Core = ::Quarn::Metrology::Analysis::Core;
namespace Fuzz = ::Quarn::Fuzz;
namespace Qphase = ::Quarn::Qphase;
using Fuzz::Require;

namespace {

std::string& InputPath() {
  static std::string path = "/tmp/qphase_tiff_fuzz_" + std::to_string(getpid()) + ".tif";
  return path;
}

// A usage error is the readers' way to refuse a file; anything else escaping is a fault.
template <typename F>
bool Refused(F&& read) {
  try {
    read();
    return false;
  } catch (const Qphase::ToolError& e) {
    Require(e.GetExitStatus() == Qphase::kExitUsage, "a refused file is a usage error");
    return true;
  }
}

void CheckLayout(const Qphase::TiffStackInfo& info) {
  Require(info.pages >= 1 && info.rows >= 1 && info.cols >= 1, "a stack has pages with pixels");
  Require(info.bitsPerSample == 8 || info.bitsPerSample == 16, "8- or 16-bit samples");
  Require(static_cast<std::int64_t>(info.rows) * info.cols <= Qphase::MaxFramePixels(),
          "within the frame limit");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Small frames keep each run fast; the limit itself is part of what is checked.
  setenv("QPHASE_MAX_FRAME_PIXELS", "1048576", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string& path = InputPath();
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return 0;
  std::fwrite(data, 1, size, file);
  std::fclose(file);

  Core::FrameBuffer frames;
  Qphase::TiffStackInfo info;
  if (!Refused([&] { info = Qphase::ReadTiffStack(path, frames); })) {
    CheckLayout(info);
    Require(frames.GetRows() == info.rows && frames.GetColumns() == info.cols, "frames of the page size");
    Require(frames.GetNumberOfFrames() == info.pages, "one frame per page");
    // Every sample is readable (ASan sees a frame that reaches past its storage).
    std::uint64_t sum = 0;
    for (int f = 0; f < info.pages; ++f) {
      const auto* bytes = static_cast<const std::uint8_t*>(frames.GetFrameData(f));
      for (std::size_t i = 0, n = static_cast<std::size_t>(info.rows) * info.cols * (info.bitsPerSample / 8);
           i < n; ++i)
        sum += bytes[i];
    }
    Require(sum < (std::uint64_t{1} << 63), "sums of samples stay small");
    // The same pages as the tail of a longer scan, read backwards: a ring.
    Core::FrameBuffer ring;
    const Qphase::TiffStackInfo again = Qphase::ReadTiffStack(path, ring, info.pages + 3, -1);
    Require(again.pages == info.pages && ring.GetNumberOfFrames() == info.pages + 3, "a ring of the pages");
  }

  Core::IntMatrix2D image;
  if (!Refused([&] { info = Qphase::ReadTiffImage(path, image, static_cast<int>(size % 3)); })) {
    CheckLayout(info);
    Require(image.GetRows() == info.rows && image.GetColumns() == info.cols, "an image of the page size");
    const int top = info.bitsPerSample == 8 ? 255 : 65535;
    for (std::int64_t i = 0; i < image.GetCount(); ++i)
      Require(image.At(i) >= 0 && image.At(i) <= top, "samples within their bit depth");
  }

  Core::DoubleMatrix2D map;
  if (!Refused([&] { Qphase::ReadFloatTiff(path, map); })) {
    Require(map.GetRows() >= 1 && map.GetColumns() >= 1, "a map with pixels");
    Require(static_cast<std::int64_t>(map.GetRows()) * map.GetColumns() <= Qphase::MaxFramePixels(),
            "a map within the frame limit");
    for (std::int64_t i = 0; i < map.GetCount(); ++i)
      Require(!std::isnan(map.At(i)), "NaN becomes no data");
  }
  std::remove(path.c_str());
  return 0;
}

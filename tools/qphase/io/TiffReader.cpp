#include "TiffReader.h"

#include <sys/mman.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "Analysis/Core/NoData.h"
#include "InputFile.h"
#include "ToolError.h"
#include "detail/TiffFile.h"

namespace Quarn::Qphase {

namespace {

using detail::TiffHandle;
using detail::TiffMessageSuffix;

constexpr std::int64_t kDefaultMaxFramePixels = std::int64_t{4096} * 4096;
constexpr const char* kFrameLimitVariable = "QPHASE_MAX_FRAME_PIXELS";

// The best ratio of sample bytes to stored bytes that a compression can reach on any data; a page
// that claims more pixels than its strips could hold at that ratio is not in the file.
std::uint64_t MaxCompressionRatio(std::uint16_t compression) {
  switch (compression) {
    case COMPRESSION_NONE:
      return 1;
    case COMPRESSION_PACKBITS:
      return 64;  // a two-byte run stands for at most 128 bytes
    case COMPRESSION_DEFLATE:
    case COMPRESSION_ADOBE_DEFLATE:
      return 1032;  // a 258-byte match costs at least two bits
    case COMPRESSION_LZW:
      return 4096;  // a code of 9 or more bits stands for at most 4096 bytes
    case COMPRESSION_JPEG:
      return 512;  // an 8 x 8 block costs at least two bits; samples of up to 16 bits
    default:
      return 1 << 14;
  }
}

std::string MegaBytes(std::uint64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
  return text;
}

// The most sample bytes the current page can deliver: its strips (or tiles), as far as they lie in
// the file, times the best ratio its compression could reach.
std::uint64_t PageCapacity(TIFF* tiff, std::uint64_t fileSize, std::uint16_t compression) {
  const std::uint32_t striles = TIFFIsTiled(tiff) ? TIFFNumberOfTiles(tiff) : TIFFNumberOfStrips(tiff);
  std::uint64_t stored = 0;
  for (std::uint32_t s = 0; s < striles; ++s) {
    const std::uint64_t offset = TIFFGetStrileOffset(tiff, s);
    if (offset < fileSize)
      stored += std::min<std::uint64_t>(TIFFGetStrileByteCount(tiff, s), fileSize - offset);
  }
  return stored * MaxCompressionRatio(compression);
}

// The layout of one page, checked: what it declares must be a grayscale image the tool reads, fit
// the frame-size limit and fit in the file.
struct PageLayout {
  int rows = 0;
  int cols = 0;
  int bits = 0;
  std::uint16_t compression = COMPRESSION_NONE;
  // Where the page's samples lie when stored uncompressed in one run of bytes, in the machine's byte
  // order; -1 otherwise.
  std::int64_t contiguousOffset = -1;
};

std::string PageName(const std::string& path, int page) {
  return path + ": page " + std::to_string(page + 1);
}

PageLayout ReadPageLayout(TIFF* tiff, const std::string& path, int page, std::uint64_t fileSize,
                          bool integerSamples = true) {
  std::uint32_t width = 0, height = 0;
  std::uint16_t bits = 1, samples = 1, format = SAMPLEFORMAT_UINT;
  TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &samples);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLEFORMAT, &format);
  const std::string where = PageName(path, page);
  if (width == 0 || height == 0) throw UsageError(where + " is empty (zero-size image)");
  if (samples != 1) {
    throw UsageError(where + " has " + std::to_string(samples) +
                     " samples per pixel; a grayscale image (one sample) is needed");
  }
  if (integerSamples) {
    if (bits != 8 && bits != 16)
      throw UsageError(where + " has " + std::to_string(bits) + "-bit samples; 8 or 16 are needed");
    if (format != SAMPLEFORMAT_UINT)
      throw UsageError(where + " holds signed or floating-point samples; unsigned integers are needed");
  } else {
    const bool isFloat = format == SAMPLEFORMAT_IEEEFP && bits == 32;
    const bool isInteger = format == SAMPLEFORMAT_UINT && (bits == 8 || bits == 16);
    if (!isFloat && !isInteger)
      throw UsageError(path + ": a grayscale map of 32-bit floats (or 8-/16-bit integers) is needed");
  }
  const std::int64_t pixels = static_cast<std::int64_t>(width) * static_cast<std::int64_t>(height);
  PageLayout layout{static_cast<int>(height), static_cast<int>(width), bits};
  TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &layout.compression);
  const std::uint64_t declared = static_cast<std::uint64_t>(pixels) * (bits / 8);
  if (declared > PageCapacity(tiff, fileSize, layout.compression)) {
    throw UsageError(where + " declares " + std::to_string(width) + " x " + std::to_string(height) + " " +
                     std::to_string(bits) + "-bit pixels (" + MegaBytes(declared) +
                     "), more than the file holds: truncated or damaged");
  }

  if (width > 65536 || height > 65536) throw UsageError(where + " is larger than 65536 pixels on a side");
  if (const std::int64_t limit = MaxFramePixels(); pixels > limit) {
    throw UsageError(where + " is " + std::to_string(width) + " x " + std::to_string(height) +
                     " pixels, more than " + std::to_string(limit) + " pixels a frame may have (set " +
                     kFrameLimitVariable + " to read larger frames)");
  }

  std::uint16_t fillOrder = FILLORDER_MSB2LSB;
  TIFFGetFieldDefaulted(tiff, TIFFTAG_FILLORDER, &fillOrder);
  if (layout.compression == COMPRESSION_NONE && fillOrder == FILLORDER_MSB2LSB && !TIFFIsTiled(tiff) &&
      !(bits == 16 && TIFFIsByteSwapped(tiff))) {
    const std::uint64_t first = TIFFGetStrileOffset(tiff, 0);
    std::uint64_t expected = first;
    bool contiguous = true;
    for (std::uint32_t s = 0, strips = TIFFNumberOfStrips(tiff); s < strips && contiguous; ++s) {
      contiguous = TIFFGetStrileOffset(tiff, s) == expected;
      expected += TIFFGetStrileByteCount(tiff, s);
    }
    if (contiguous && expected - first >= declared && first + declared <= fileSize &&
        first % (bits / 8) == 0) {
      layout.contiguousOffset = static_cast<std::int64_t>(first);
    }
  }
  return layout;
}

// Every page of the open file, checked; `tiff` is left at the last page.
struct StackLayout {
  TiffStackInfo info;
  std::vector<std::int64_t> offsets;  // each page's contiguous offset (or -1)
};

StackLayout InspectPages(TIFF* tiff, const std::string& path, std::uint64_t fileSize) {
  StackLayout stack;
  TiffStackInfo& info = stack.info;
  std::uint64_t capacity = 0;
  for (int page = 0;; ++page) {
    const PageLayout layout = ReadPageLayout(tiff, path, page, fileSize);
    if (page == 0) {
      info.rows = layout.rows;
      info.cols = layout.cols;
      info.bitsPerSample = layout.bits;
    } else if (layout.rows != info.rows || layout.cols != info.cols || layout.bits != info.bitsPerSample) {
      throw UsageError(PageName(path, page) + " is " + std::to_string(layout.cols) + " x " +
                       std::to_string(layout.rows) + " " + std::to_string(layout.bits) + "-bit, page 1 is " +
                       std::to_string(info.cols) + " x " + std::to_string(info.rows) + " " +
                       std::to_string(info.bitsPerSample) + "-bit; all frames must match");
    }
    stack.offsets.push_back(layout.contiguousOffset);
    capacity = std::max(capacity, MaxCompressionRatio(layout.compression));
    info.pages = page + 1;
    if (TIFFLastDirectory(tiff)) break;
    // A directory that follows but cannot be read is damage, not the end of the stack.
    detail::ClearTiffMessages();
    if (!TIFFReadDirectory(tiff)) {
      throw UsageError(PageName(path, page + 1) + " cannot be read" +
                       (TiffMessageSuffix().empty() ? " (damaged directory)" : TiffMessageSuffix()));
    }
  }
  // Pages may share their strips; together they still cannot hold more than the file.
  const std::uint64_t stackBytes =
      static_cast<std::uint64_t>(info.rows) * static_cast<std::uint64_t>(info.cols) *
      static_cast<std::uint64_t>(info.bitsPerSample / 8) * static_cast<std::uint64_t>(info.pages);
  if (stackBytes > fileSize * capacity) {
    throw UsageError(path + ": " + std::to_string(info.pages) + " pages of " + std::to_string(info.cols) +
                     " x " + std::to_string(info.rows) + " pixels (" + MegaBytes(stackBytes) +
                     ") are more than the file holds: truncated or damaged");
  }
  return stack;
}

// Moves libtiff to `page` (numbered from 0).
void GoToPage(TIFF* tiff, const std::string& path, int page) {
  detail::ClearTiffMessages();
  if (!TIFFSetDirectory(tiff, static_cast<tdir_t>(page)))
    throw UsageError(PageName(path, page) + " cannot be read" + TiffMessageSuffix());
}

// Decodes the current page, a strip (or tile) at a time, handing each decoded run of rows to
// `store(firstRow, rowCount, bytes)`; rows of `rowBytes` bytes follow each other in `bytes`. A libtiff
// error, or a warning while decoding, fails the read with libtiff's words.
template <typename Store>
void DecodePage(TIFF* tiff, const std::string& path, int page, const PageLayout& layout, std::size_t rowBytes,
                Store&& store) {
  const auto check = [&](bool ok) {
    if (ok && detail::LastTiffWarning().empty() && detail::LastTiffError().empty()) return;
    throw UsageError(PageName(path, page) + " could not be decoded" +
                     (TiffMessageSuffix().empty() ? " (damaged data)" : TiffMessageSuffix()));
  };
  detail::ClearTiffMessages();
  const std::size_t bytesPerSample = static_cast<std::size_t>(layout.bits / 8);
  if (TIFFIsTiled(tiff)) {
    std::uint32_t tileWidth = 0, tileHeight = 0;
    TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &tileWidth);
    TIFFGetField(tiff, TIFFTAG_TILELENGTH, &tileHeight);
    // A tile reaches past the page by less than a tile; a crafted one may claim far more.
    const std::uint64_t tileBytes = static_cast<std::uint64_t>(TIFFTileSize64(tiff));
    check(tileWidth > 0 && tileHeight > 0 && tileBytes > 0 &&
          tileBytes <= 4 * static_cast<std::uint64_t>(layout.rows) * rowBytes + (1u << 20));
    std::vector<std::byte> tile(static_cast<std::size_t>(tileBytes));
    std::vector<std::byte> band(static_cast<std::size_t>(tileHeight) * rowBytes);
    for (std::uint32_t y = 0; y < static_cast<std::uint32_t>(layout.rows); y += tileHeight) {
      const std::uint32_t h =
          std::min<std::uint32_t>(tileHeight, static_cast<std::uint32_t>(layout.rows) - y);
      for (std::uint32_t x = 0; x < static_cast<std::uint32_t>(layout.cols); x += tileWidth) {
        check(TIFFReadTile(tiff, tile.data(), x, y, 0, 0) >= 0);
        const std::uint32_t w =
            std::min<std::uint32_t>(tileWidth, static_cast<std::uint32_t>(layout.cols) - x);
        for (std::uint32_t r = 0; r < h; ++r) {
          std::memcpy(band.data() + r * rowBytes + x * bytesPerSample,
                      tile.data() + static_cast<std::size_t>(r) * tileWidth * bytesPerSample,
                      w * bytesPerSample);
        }
      }
      store(static_cast<int>(y), static_cast<int>(h), band.data());
    }
    return;
  }
  std::uint32_t rowsPerStrip = 0;
  TIFFGetFieldDefaulted(tiff, TIFFTAG_ROWSPERSTRIP, &rowsPerStrip);
  rowsPerStrip = std::clamp<std::uint32_t>(rowsPerStrip, 1, static_cast<std::uint32_t>(layout.rows));
  check(TIFFStripSize64(tiff) == static_cast<std::uint64_t>(rowsPerStrip) * rowBytes);
  std::vector<std::byte> strip(static_cast<std::size_t>(rowsPerStrip) * rowBytes);
  for (std::uint32_t top = 0, s = 0; top < static_cast<std::uint32_t>(layout.rows);
       top += rowsPerStrip, ++s) {
    const std::uint32_t rows = std::min(rowsPerStrip, static_cast<std::uint32_t>(layout.rows) - top);
    const tmsize_t wanted = static_cast<tmsize_t>(rows * rowBytes);
    check(TIFFReadEncodedStrip(tiff, s, strip.data(), wanted) == wanted);
    store(static_cast<int>(top), static_cast<int>(rows), strip.data());
  }
}

// A private, copy-on-write mapping of a whole file: the frames are read from the page cache where
// they already are, with no copy and no zeroing of fresh memory.
struct FileMapping {
  void* base = MAP_FAILED;
  std::size_t length = 0;
  ~FileMapping() {
    if (base != MAP_FAILED) munmap(base, length);
  }
};

std::shared_ptr<FileMapping> MapFile(int fd, std::uint64_t length) {
  auto mapping = std::make_shared<FileMapping>();
  mapping->length = static_cast<std::size_t>(length);
  // Populated read-only, so that the page-cache pages are mapped as they are; made writable
  // afterwards (a write then copies only the page it touches).
  mapping->base = mmap(nullptr, mapping->length, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
  if (mapping->base != MAP_FAILED && mprotect(mapping->base, mapping->length, PROT_READ | PROT_WRITE) != 0) {
    munmap(mapping->base, mapping->length);
    mapping->base = MAP_FAILED;
  }
  return mapping->base == MAP_FAILED ? nullptr : mapping;
}

// The file, its checked pages, and libtiff on it: each reader's one open.
struct OpenStack {
  explicit OpenStack(const std::string& path) : file(path), size(file.Size()) {
    tiff = detail::OpenTiffForReading(file);
    layout = InspectPages(tiff.get(), path, size);
  }
  InputFile file;
  std::uint64_t size;
  TiffHandle tiff;
  StackLayout layout;
};

}  // namespace

std::int64_t MaxFramePixels() {
  const char* text = std::getenv(kFrameLimitVariable);
  if (!text) return kDefaultMaxFramePixels;
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text, &end, 10);
  if (*text == '\0' || *end != '\0' || errno != 0 || value < 1) {
    throw UsageError(std::string(kFrameLimitVariable) + ": got '" + text +
                     "'; a whole number of pixels of at least 1 is needed");
  }
  return value;
}

TiffStackInfo InspectTiffStack(const std::string& path) {
  return OpenStack(path).layout.info;
}

TiffStackInfo ReadTiffStack(const std::string& path, Core::FrameBuffer& frames, int framesScanned,
                            int scanDirection) {
  OpenStack stack(path);
  const TiffStackInfo info = stack.layout.info;
  const auto resolution =
      info.bitsPerSample == 8 ? Core::FrameBuffer::kRes8Bit : Core::FrameBuffer::kRes16Bit;
  const int scanned = framesScanned > 0 ? framesScanned : info.pages;
  const Core::Window2D window(0, 0, info.rows, info.cols);
  // Pages are the last frames of the scan: a ring keeps the scan's tail, frame f in slot f mod S.
  const auto slotOfPage = [&](int page) { return (scanned - info.pages + page) % info.pages; };
  const std::vector<std::int64_t>& offsets = stack.layout.offsets;

  if (std::none_of(offsets.begin(), offsets.end(), [](std::int64_t o) { return o < 0; })) {
    if (std::shared_ptr<FileMapping> mapping = MapFile(TIFFFileno(stack.tiff.get()), stack.size)) {
      std::vector<std::byte*> slots(static_cast<std::size_t>(info.pages));
      for (int page = 0; page < info.pages; ++page) {
        slots[static_cast<std::size_t>(slotOfPage(page))] =
            static_cast<std::byte*>(mapping->base) + offsets[static_cast<std::size_t>(page)];
      }
      if (frames.AdoptFrames(window, scanned, resolution, std::move(slots), mapping, scanDirection))
        return info;
    }
  }

  // Any other layout: decode page by page into frames of our own.
  if (!frames.Allocate(window, scanned, resolution, info.pages, scanDirection)) {
    throw UsageError(path + ": " + frames.GetStatus().GetMessage());
  }
  const std::size_t rowBytes =
      static_cast<std::size_t>(info.cols) * static_cast<std::size_t>(info.bitsPerSample / 8);
  for (int page = 0; page < info.pages; ++page) {
    GoToPage(stack.tiff.get(), path, page);
    auto* target = static_cast<std::byte*>(frames.GetFrameData(slotOfPage(page)));
    const PageLayout layout{info.rows, info.cols, info.bitsPerSample};
    DecodePage(stack.tiff.get(), path, page, layout, rowBytes,
               [&](int top, int rows, const std::byte* bytes) {
                 std::memcpy(target + static_cast<std::size_t>(top) * rowBytes, bytes,
                             static_cast<std::size_t>(rows) * rowBytes);
               });
  }
  return info;
}

TiffStackInfo ReadTiffImage(const std::string& path, Core::IntMatrix2D& image, int page) {
  OpenStack stack(path);
  const TiffStackInfo info = stack.layout.info;
  if (page < 0 || page >= info.pages) {
    throw UsageError(path + ": has " + std::to_string(info.pages) + " pages, page " +
                     std::to_string(page + 1) + " was asked for");
  }
  GoToPage(stack.tiff.get(), path, page);
  if (!image.Resize(0, 0, info.rows, info.cols)) throw UsageError(path + ": image too large");
  const std::size_t rowBytes =
      static_cast<std::size_t>(info.cols) * static_cast<std::size_t>(info.bitsPerSample / 8);
  const PageLayout layout{info.rows, info.cols, info.bitsPerSample};
  DecodePage(stack.tiff.get(), path, page, layout, rowBytes, [&](int top, int rows, const std::byte* bytes) {
    for (int r = 0; r < rows; ++r) {
      const std::byte* in = bytes + static_cast<std::size_t>(r) * rowBytes;
      int* out = image.Row(top + r);
      if (info.bitsPerSample == 8) {
        for (int c = 0; c < info.cols; ++c)
          out[c] = static_cast<int>(static_cast<std::uint8_t>(in[c]));
      } else {
        for (int c = 0; c < info.cols; ++c) {
          std::uint16_t v;
          std::memcpy(&v, in + 2 * c, 2);
          out[c] = v;
        }
      }
    }
  });
  return info;
}

void ReadFloatTiff(const std::string& path, Core::DataMatrix2D<double>& map) {
  InputFile file(path);
  const std::uint64_t size = file.Size();
  TiffHandle tiff = detail::OpenTiffForReading(file);
  const PageLayout layout = ReadPageLayout(tiff.get(), path, 0, size, false);
  std::uint16_t format = SAMPLEFORMAT_UINT;
  TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_SAMPLEFORMAT, &format);
  const bool isFloat = format == SAMPLEFORMAT_IEEEFP;
  if (!map.Resize(0, 0, layout.rows, layout.cols)) throw UsageError(path + ": map too large");
  const std::size_t rowBytes =
      static_cast<std::size_t>(layout.cols) * static_cast<std::size_t>(layout.bits / 8);
  DecodePage(tiff.get(), path, 0, layout, rowBytes, [&](int top, int rows, const std::byte* bytes) {
    for (int r = 0; r < rows; ++r) {
      const std::byte* in = bytes + static_cast<std::size_t>(r) * rowBytes;
      double* out = map.Row(top + r);
      for (int c = 0; c < layout.cols; ++c) {
        double v = 0.0;
        if (isFloat) {
          float f;
          std::memcpy(&f, in + 4 * c, 4);
          v = std::isnan(f) ? Core::kNoDataDouble : static_cast<double>(f);
        } else if (layout.bits == 8) {
          v = static_cast<double>(static_cast<std::uint8_t>(in[c]));
        } else {
          std::uint16_t u;
          std::memcpy(&u, in + 2 * c, 2);
          v = u;
        }
        out[c] = v;
      }
    }
  });
}

}  // namespace Quarn::Qphase

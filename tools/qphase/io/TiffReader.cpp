#include "TiffReader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "Analysis/Core/NoData.h"
#include "OutputFiles.h"
#include "ToolError.h"
#include "detail/TiffFile.h"

namespace Quarn::Qphase {

namespace {

using detail::OpenTiff;
using detail::TiffErrorSuffix;
using detail::TiffHandle;

std::uint64_t FileSize(TIFF* tiff) {
  struct stat info {};
  return fstat(TIFFFileno(tiff), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
}

// No codec packs camera data more tightly than this many bytes of samples per stored byte (deflate
// cannot pass about 1000, LZW a few thousand); a page that claims more is not in the file.
constexpr std::uint64_t kMaxCompression = 1 << 14;

// The most sample bytes the current page can deliver: its strips (or tiles), as far as they lie in
// the file, times the best ratio its compression could reach.
std::uint64_t PageCapacity(TIFF* tiff, std::uint64_t fileSize) {
  std::uint16_t compression = COMPRESSION_NONE;
  TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &compression);
  const std::uint32_t striles = TIFFIsTiled(tiff) ? TIFFNumberOfTiles(tiff) : TIFFNumberOfStrips(tiff);
  std::uint64_t stored = 0;
  for (std::uint32_t s = 0; s < striles; ++s) {
    const std::uint64_t offset = TIFFGetStrileOffset(tiff, s);
    if (offset < fileSize)
      stored += std::min<std::uint64_t>(TIFFGetStrileByteCount(tiff, s), fileSize - offset);
  }
  return stored * (compression == COMPRESSION_NONE ? 1 : kMaxCompression);
}

std::string MegaBytes(std::uint64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
  return text;
}

// Refuses a page whose declared size the file cannot hold, before anything of that size is
// allocated: a few hundred crafted bytes must not make the reader claim gigabytes.
void CheckFileHoldsPage(TIFF* tiff, const std::string& where, std::uint32_t width, std::uint32_t height,
                        int bits) {
  const std::uint64_t declared =
      static_cast<std::uint64_t>(width) * height * static_cast<std::uint64_t>(std::max(bits, 8) / 8);
  if (declared > PageCapacity(tiff, FileSize(tiff))) {
    throw UsageError(where + " declares " + std::to_string(width) + " x " + std::to_string(height) + " " +
                     std::to_string(bits) + "-bit pixels (" + MegaBytes(declared) +
                     "), more than the file holds: truncated or damaged");
  }
}

struct PageLayout {
  int rows = 0;
  int cols = 0;
  int bits = 0;
};

PageLayout ReadPageLayout(TIFF* tiff, const std::string& path, int page) {
  std::uint32_t width = 0, height = 0;
  std::uint16_t bits = 1, samples = 1, format = SAMPLEFORMAT_UINT, planar = PLANARCONFIG_CONTIG;
  TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &samples);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLEFORMAT, &format);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_PLANARCONFIG, &planar);
  const std::string where = path + ": page " + std::to_string(page + 1);
  if (width == 0 || height == 0) throw UsageError(where + " is empty (zero-size image)");
  if (width > 65536 || height > 65536) throw UsageError(where + " is larger than 65536 pixels on a side");
  if (samples != 1) {
    throw UsageError(where + " has " + std::to_string(samples) +
                     " samples per pixel; a grayscale image (one sample) is needed");
  }
  if (bits != 8 && bits != 16)
    throw UsageError(where + " has " + std::to_string(bits) + "-bit samples; 8 or 16 are needed");
  if (format != SAMPLEFORMAT_UINT)
    throw UsageError(where + " holds signed or floating-point samples; unsigned integers are needed");
  CheckFileHoldsPage(tiff, where, width, height, bits);
  return PageLayout{static_cast<int>(height), static_cast<int>(width), bits};
}

// The common case of camera stacks: an uncompressed page whose strips follow each other in the file.
// Then the page is one run of bytes, read with a single pread straight into the frame storage.
// Returns false (nothing read) for any other layout.
bool ReadUncompressedPage(TIFF* tiff, const PageLayout& layout, std::byte* target, std::size_t rowBytes) {
  std::uint16_t compression = COMPRESSION_NONE, fillOrder = FILLORDER_MSB2LSB;
  TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &compression);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_FILLORDER, &fillOrder);
  const std::size_t pageBytes = rowBytes * static_cast<std::size_t>(layout.rows);
  if (compression != COMPRESSION_NONE || fillOrder != FILLORDER_MSB2LSB ||
      rowBytes != static_cast<std::size_t>(layout.cols) * static_cast<std::size_t>(layout.bits / 8)) {
    return false;
  }
  const std::uint32_t strips = TIFFNumberOfStrips(tiff);
  const std::uint64_t first = TIFFGetStrileOffset(tiff, 0);
  std::uint64_t expected = first;
  for (std::uint32_t s = 0; s < strips; ++s) {
    if (TIFFGetStrileOffset(tiff, s) != expected) return false;
    expected += TIFFGetStrileByteCount(tiff, s);
  }
  if (expected - first < pageBytes) return false;
  const int fd = TIFFFileno(tiff);
  std::size_t done = 0;
  while (done < pageBytes) {
    const ssize_t got = pread(fd, target + done, pageBytes - done, static_cast<off_t>(first + done));
    if (got <= 0) return false;
    done += static_cast<std::size_t>(got);
  }
  if (layout.bits == 16 && TIFFIsByteSwapped(tiff)) {
    TIFFSwabArrayOfShort(reinterpret_cast<std::uint16_t*>(target), pageBytes / 2);
  }
  return true;
}

// Reads the current page into rows of `bytesPerSample`-wide samples, `rowBytes` apart.
void ReadPage(TIFF* tiff, const std::string& path, int page, const PageLayout& layout, std::byte* target,
              std::size_t rowBytes) {
  const auto fail = [&] {
    throw UsageError(path + ": page " + std::to_string(page + 1) + " could not be decoded" +
                     (TiffErrorSuffix()));
  };
  const std::size_t bytesPerSample = static_cast<std::size_t>(layout.bits / 8);
  if (TIFFIsTiled(tiff)) {
    std::uint32_t tileWidth = 0, tileHeight = 0;
    TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &tileWidth);
    TIFFGetField(tiff, TIFFTAG_TILELENGTH, &tileHeight);
    // A tile reaches past the page by less than a tile; a crafted one may claim far more.
    const std::uint64_t tileBytes = static_cast<std::uint64_t>(TIFFTileSize64(tiff));
    if (tileBytes == 0 || tileBytes > 4 * static_cast<std::uint64_t>(layout.rows) * rowBytes + (1u << 20))
      fail();
    std::vector<std::byte> tile(static_cast<std::size_t>(tileBytes));
    for (std::uint32_t y = 0; y < static_cast<std::uint32_t>(layout.rows); y += tileHeight) {
      for (std::uint32_t x = 0; x < static_cast<std::uint32_t>(layout.cols); x += tileWidth) {
        if (TIFFReadTile(tiff, tile.data(), x, y, 0, 0) < 0) fail();
        const std::uint32_t h =
            std::min<std::uint32_t>(tileHeight, static_cast<std::uint32_t>(layout.rows) - y);
        const std::uint32_t w =
            std::min<std::uint32_t>(tileWidth, static_cast<std::uint32_t>(layout.cols) - x);
        for (std::uint32_t r = 0; r < h; ++r) {
          std::memcpy(target + (y + r) * rowBytes + x * bytesPerSample,
                      tile.data() + r * tileWidth * bytesPerSample, w * bytesPerSample);
        }
      }
    }
    return;
  }
  if (ReadUncompressedPage(tiff, layout, target, rowBytes)) return;
  for (int r = 0; r < layout.rows; ++r) {
    if (TIFFReadScanline(tiff, target + static_cast<std::size_t>(r) * rowBytes, static_cast<std::uint32_t>(r),
                         0) < 0) {
      fail();
    }
  }
}

}  // namespace

TiffStackInfo InspectTiffStack(const std::string& path) {
  TiffHandle tiff = OpenTiff(path, "r");
  TiffStackInfo info;
  int page = 0;
  bool compressed = false;
  for (;;) {
    const PageLayout layout = ReadPageLayout(tiff.get(), path, page);
    if (page == 0) {
      info.rows = layout.rows;
      info.cols = layout.cols;
      info.bitsPerSample = layout.bits;
    } else if (layout.rows != info.rows || layout.cols != info.cols || layout.bits != info.bitsPerSample) {
      throw UsageError(path + ": page " + std::to_string(page + 1) + " is " + std::to_string(layout.cols) +
                       " x " + std::to_string(layout.rows) + " " + std::to_string(layout.bits) +
                       "-bit, page 1 is " + std::to_string(info.cols) + " x " + std::to_string(info.rows) +
                       " " + std::to_string(info.bitsPerSample) + "-bit; all frames must match");
    }
    std::uint16_t compression = COMPRESSION_NONE;
    TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_COMPRESSION, &compression);
    compressed = compressed || compression != COMPRESSION_NONE;
    ++page;
    if (TIFFLastDirectory(tiff.get())) break;
    // A directory that follows but cannot be read is damage, not the end of the stack.
    if (!TIFFReadDirectory(tiff.get())) {
      throw UsageError(path + ": page " + std::to_string(page + 1) + " cannot be read" + (TiffErrorSuffix()));
    }
  }
  info.pages = page;
  // Pages may share their strips; together they still cannot hold more than the file.
  const std::uint64_t stackBytes =
      static_cast<std::uint64_t>(info.rows) * static_cast<std::uint64_t>(info.cols) *
      static_cast<std::uint64_t>(info.bitsPerSample / 8) * static_cast<std::uint64_t>(info.pages);
  if (stackBytes > FileSize(tiff.get()) * (compressed ? kMaxCompression : 1)) {
    throw UsageError(path + ": " + std::to_string(info.pages) + " pages of " + std::to_string(info.cols) +
                     " x " + std::to_string(info.rows) + " pixels (" + MegaBytes(stackBytes) +
                     ") are more than the file holds: truncated or damaged");
  }
  return info;
}

namespace {

// Where each page's samples lie in the file when every page is stored uncompressed in one run of
// bytes, in the file's byte order equal to the machine's; empty otherwise.
std::vector<std::uint64_t> ContiguousPageOffsets(const std::string& path, const TiffStackInfo& info) {
  TiffHandle tiff = OpenTiff(path, "r");
  std::vector<std::uint64_t> offsets;
  const std::uint64_t pageBytes = static_cast<std::uint64_t>(info.rows) *
                                  static_cast<std::uint64_t>(info.cols) *
                                  static_cast<std::uint64_t>(info.bitsPerSample / 8);
  for (int page = 0; page < info.pages; ++page) {
    if (page > 0 && !TIFFReadDirectory(tiff.get())) return {};
    std::uint16_t compression = COMPRESSION_NONE, fillOrder = FILLORDER_MSB2LSB;
    TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_COMPRESSION, &compression);
    TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_FILLORDER, &fillOrder);
    if (compression != COMPRESSION_NONE || fillOrder != FILLORDER_MSB2LSB || TIFFIsTiled(tiff.get()) ||
        (info.bitsPerSample == 16 && TIFFIsByteSwapped(tiff.get()))) {
      return {};
    }
    const std::uint64_t first = TIFFGetStrileOffset(tiff.get(), 0);
    std::uint64_t expected = first;
    for (std::uint32_t s = 0; s < TIFFNumberOfStrips(tiff.get()); ++s) {
      if (TIFFGetStrileOffset(tiff.get(), s) != expected) return {};
      expected += TIFFGetStrileByteCount(tiff.get(), s);
    }
    if (expected - first < pageBytes || first % static_cast<std::uint64_t>(info.bitsPerSample / 8) != 0)
      return {};
    offsets.push_back(first);
  }
  return offsets;
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

std::shared_ptr<FileMapping> MapFile(const std::string& path, std::uint64_t needed) {
  const int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return nullptr;
  struct stat info {};
  auto mapping = std::make_shared<FileMapping>();
  if (fstat(fd, &info) == 0 && static_cast<std::uint64_t>(info.st_size) >= needed) {
    mapping->length = static_cast<std::size_t>(info.st_size);
    // Populated read-only, so that the page-cache pages are mapped as they are; made writable
    // afterwards (a write then copies only the page it touches).
    mapping->base = mmap(nullptr, mapping->length, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    if (mapping->base != MAP_FAILED &&
        mprotect(mapping->base, mapping->length, PROT_READ | PROT_WRITE) != 0) {
      munmap(mapping->base, mapping->length);
      mapping->base = MAP_FAILED;
    }
  }
  close(fd);
  return mapping->base == MAP_FAILED ? nullptr : mapping;
}

}  // namespace

TiffStackInfo ReadTiffStack(const std::string& path, Core::FrameBuffer& frames, int framesScanned,
                            int scanDirection) {
  const TiffStackInfo info = InspectTiffStack(path);
  const auto resolution =
      info.bitsPerSample == 8 ? Core::FrameBuffer::kRes8Bit : Core::FrameBuffer::kRes16Bit;
  const int scanned = framesScanned > 0 ? framesScanned : info.pages;
  const Core::Window2D window(0, 0, info.rows, info.cols);
  // Pages are the last frames of the scan: a ring keeps the scan's tail, frame f in slot f mod S.
  const auto slotOfPage = [&](int page) { return (scanned - info.pages + page) % info.pages; };

  const std::vector<std::uint64_t> offsets = ContiguousPageOffsets(path, info);
  if (!offsets.empty()) {
    const std::uint64_t pageBytes = static_cast<std::uint64_t>(info.rows) *
                                    static_cast<std::uint64_t>(info.cols) *
                                    static_cast<std::uint64_t>(info.bitsPerSample / 8);
    const std::uint64_t needed = *std::max_element(offsets.begin(), offsets.end()) + pageBytes;
    if (std::shared_ptr<FileMapping> mapping = MapFile(path, needed)) {
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
  TiffHandle tiff = OpenTiff(path, "r");
  const std::size_t rowBytes =
      static_cast<std::size_t>(info.cols) * static_cast<std::size_t>(info.bitsPerSample / 8);
  for (int page = 0; page < info.pages; ++page) {
    if (page > 0 && !TIFFReadDirectory(tiff.get()))
      throw UsageError(path + ": page " + std::to_string(page + 1) + " is missing");
    const PageLayout layout{info.rows, info.cols, info.bitsPerSample};
    ReadPage(tiff.get(), path, page, layout, static_cast<std::byte*>(frames.GetFrameData(slotOfPage(page))),
             rowBytes);
  }
  return info;
}

TiffStackInfo ReadTiffImage(const std::string& path, Core::IntMatrix2D& image, int page) {
  const TiffStackInfo info = InspectTiffStack(path);
  if (page < 0 || page >= info.pages) {
    throw UsageError(path + ": has " + std::to_string(info.pages) + " pages, page " +
                     std::to_string(page + 1) + " was asked for");
  }
  TiffHandle tiff = OpenTiff(path, "r");
  for (int p = 0; p < page; ++p)
    TIFFReadDirectory(tiff.get());
  const std::size_t bytesPerSample = static_cast<std::size_t>(info.bitsPerSample / 8);
  std::vector<std::byte> raw(static_cast<std::size_t>(info.rows) * static_cast<std::size_t>(info.cols) *
                             bytesPerSample);
  ReadPage(tiff.get(), path, page, PageLayout{info.rows, info.cols, info.bitsPerSample}, raw.data(),
           static_cast<std::size_t>(info.cols) * bytesPerSample);
  if (!image.Resize(0, 0, info.rows, info.cols)) throw UsageError(path + ": image too large");
  const std::size_t count = static_cast<std::size_t>(info.rows) * static_cast<std::size_t>(info.cols);
  for (std::size_t i = 0; i < count; ++i) {
    std::uint16_t v16 = 0;
    if (bytesPerSample == 2) std::memcpy(&v16, raw.data() + 2 * i, 2);
    image.At(static_cast<std::int64_t>(i)) =
        bytesPerSample == 1 ? static_cast<int>(static_cast<std::uint8_t>(raw[i])) : static_cast<int>(v16);
  }
  return info;
}

void ReadFloatTiff(const std::string& path, Core::DataMatrix2D<double>& map) {
  TiffHandle tiff = OpenTiff(path, "r");
  std::uint32_t width = 0, height = 0;
  std::uint16_t bits = 1, samples = 1, format = SAMPLEFORMAT_UINT;
  TIFFGetField(tiff.get(), TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(tiff.get(), TIFFTAG_IMAGELENGTH, &height);
  TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_SAMPLESPERPIXEL, &samples);
  TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_SAMPLEFORMAT, &format);
  if (width == 0 || height == 0) throw UsageError(path + ": empty (zero-size image)");
  const bool isFloat = format == SAMPLEFORMAT_IEEEFP && bits == 32;
  const bool isInteger = format == SAMPLEFORMAT_UINT && (bits == 8 || bits == 16);
  if (samples != 1 || !(isFloat || isInteger)) {
    throw UsageError(path + ": a grayscale map of 32-bit floats (or 8-/16-bit integers) is needed");
  }
  CheckFileHoldsPage(tiff.get(), path, width, height, bits);
  if (!map.Resize(0, 0, static_cast<int>(height), static_cast<int>(width)))
    throw UsageError(path + ": map too large");
  std::vector<std::byte> row(static_cast<std::size_t>(TIFFScanlineSize(tiff.get())));
  if (TIFFIsTiled(tiff.get())) throw UsageError(path + ": tiled maps are not supported");
  for (std::uint32_t r = 0; r < height; ++r) {
    if (TIFFReadScanline(tiff.get(), row.data(), r, 0) < 0)
      throw UsageError(path + ": row " + std::to_string(r) + " unreadable");
    double* out = map.Row(static_cast<int>(r));
    for (std::uint32_t c = 0; c < width; ++c) {
      double v = 0.0;
      if (isFloat) {
        float f;
        std::memcpy(&f, row.data() + 4 * c, 4);
        v = std::isnan(f) ? Core::kNoDataDouble : static_cast<double>(f);
      } else if (bits == 8) {
        v = static_cast<double>(static_cast<std::uint8_t>(row[c]));
      } else {
        std::uint16_t u;
        std::memcpy(&u, row.data() + 2 * c, 2);
        v = u;
      }
      out[c] = v;
    }
  }
}

}  // namespace Quarn::Qphase

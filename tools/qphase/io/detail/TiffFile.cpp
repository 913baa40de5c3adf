#include "TiffFile.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <utility>

#include "OutputFiles.h"
#include "ToolError.h"

namespace Quarn::Qphase::detail {

namespace {

// libtiff reports through global handlers; its words go to the thread that called it, for the
// message about that file. A warning is kept as well: while pixels are decoded, it is how libtiff
// (and libjpeg under it) says that data is corrupt and was patched up.
void CaptureError(const char* module, const char* format, va_list args) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  LastTiffError() = module ? std::string(module) + ": " + text : std::string(text);
}

void CaptureWarning(const char* module, const char* format, va_list args) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  LastTiffWarning() = module ? std::string(module) + ": " + text : std::string(text);
}

// The handlers are process-wide and the files of one run are written from several threads: they are
// installed once, before the first file is opened.
void InstallTiffHandlers() {
  static std::once_flag installed;
  std::call_once(installed, [] {
    TIFFSetErrorHandler(CaptureError);
    TIFFSetWarningHandler(CaptureWarning);
  });
}

// The width and height that a classic TIFF's first directory declares; nullopt when they cannot be
// read. libtiff refuses a page without pixels while reading its directory, with a message about
// strips; with this the user learns what is really wrong with the file.
std::optional<std::pair<std::uint32_t, std::uint32_t>> DeclaredFirstPageSize(int fd) {
  off_t at = 0;
  const auto read = [&](unsigned char* bytes, std::size_t count) {
    const bool ok = pread(fd, bytes, count, at) == static_cast<ssize_t>(count);
    at += static_cast<off_t>(count);
    return ok;
  };
  unsigned char header[8];
  if (!read(header, sizeof header)) return std::nullopt;
  const bool little = header[0] == 'I' && header[1] == 'I';
  if (!little && !(header[0] == 'M' && header[1] == 'M')) return std::nullopt;
  const auto number = [little](const unsigned char* bytes, int count) {
    std::uint32_t value = 0;
    for (int i = 0; i < count; ++i)
      value |= static_cast<std::uint32_t>(bytes[little ? i : count - 1 - i]) << (8 * i);
    return value;
  };
  if (number(header + 2, 2) != 42) return std::nullopt;
  at = static_cast<off_t>(number(header + 4, 4));
  unsigned char count[2];
  if (!read(count, sizeof count)) return std::nullopt;
  std::optional<std::uint32_t> width, height;
  for (std::uint32_t i = 0, entries = number(count, 2); i < entries; ++i) {
    unsigned char entry[12];  // tag, type, count, value (a short value is stored first)
    if (!read(entry, sizeof entry)) break;
    const std::uint32_t tag = number(entry, 2), type = number(entry + 2, 2);
    if ((tag != TIFFTAG_IMAGEWIDTH && tag != TIFFTAG_IMAGELENGTH) ||
        (type != TIFF_SHORT && type != TIFF_LONG))
      continue;
    (tag == TIFFTAG_IMAGEWIDTH ? width : height) = number(entry + 8, type == TIFF_SHORT ? 2 : 4);
  }
  if (!width || !height) return std::nullopt;
  return std::make_pair(*width, *height);
}

}  // namespace

std::string& LastTiffError() {
  thread_local std::string text;
  return text;
}

std::string& LastTiffWarning() {
  thread_local std::string text;
  return text;
}

void ClearTiffMessages() {
  LastTiffError().clear();
  LastTiffWarning().clear();
}

std::string TiffMessageSuffix() {
  const std::string& said = LastTiffError().empty() ? LastTiffWarning() : LastTiffError();
  return said.empty() ? "" : " (" + said + ")";
}

TiffHandle OpenTiffForReading(InputFile& file) {
  InstallTiffHandlers();
  ClearTiffMessages();
  TiffHandle tiff(TIFFFdOpen(file.Descriptor(), file.Path().c_str(), "r"));
  if (!tiff) {
    // libtiff leaves the descriptor open when it refuses the file: still ours to read and close.
    if (const auto size = DeclaredFirstPageSize(file.Descriptor());
        size && (size->first == 0 || size->second == 0)) {
      throw UsageError(file.Path() + ": page 1 has no pixels (declared " + std::to_string(size->first) +
                       " x " + std::to_string(size->second) + ")");
    }
    throw UsageError(file.Path() + ": not a readable TIFF file" + TiffMessageSuffix());
  }
  file.Release();
  return tiff;
}

TiffHandle OpenTiffForWriting(WriteTarget& target) {
  InstallTiffHandlers();
  ClearTiffMessages();
  const std::string shown = target.Shown();
  const int fd = target.Release();
  TiffHandle tiff(TIFFFdOpen(fd, shown.c_str(), "w"));
  if (!tiff) {
    close(fd);
    throw UsageError(shown + ": cannot be written as TIFF" + TiffMessageSuffix());
  }
  return tiff;
}

}  // namespace Quarn::Qphase::detail

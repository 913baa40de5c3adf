#include "TiffFile.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <optional>
#include <utility>

#include "OutputFiles.h"
#include "ToolError.h"

namespace Quarn::Qphase::detail {

namespace {

// libtiff reports through global handlers; keep its last error for our messages and drop its
// warnings (unknown tags and the like are no reason to bother a user).

void CaptureError(const char* module, const char* format, va_list args) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  LastTiffError() = module ? std::string(module) + ": " + text : std::string(text);
}

void IgnoreWarning(const char*, const char*, va_list) {}

// The handlers are process-wide and the files of one run are written from several threads: they are
// installed once, before the first file is opened.
void InstallTiffHandlers() {
  static std::once_flag installed;
  std::call_once(installed, [] {
    TIFFSetErrorHandler(CaptureError);
    TIFFSetWarningHandler(IgnoreWarning);
  });
}

// The width and height that a classic TIFF's first directory declares; nullopt when they cannot be
// read. libtiff refuses a page without pixels while reading its directory, with a message about
// strips; with this the user learns what is really wrong with the file.
std::optional<std::pair<std::uint32_t, std::uint32_t>> DeclaredFirstPageSize(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  unsigned char header[8];
  if (!in.read(reinterpret_cast<char*>(header), sizeof header)) return std::nullopt;
  const bool little = header[0] == 'I' && header[1] == 'I';
  if (!little && !(header[0] == 'M' && header[1] == 'M')) return std::nullopt;
  const auto number = [little](const unsigned char* bytes, int count) {
    std::uint32_t value = 0;
    for (int i = 0; i < count; ++i)
      value |= static_cast<std::uint32_t>(bytes[little ? i : count - 1 - i]) << (8 * i);
    return value;
  };
  if (number(header + 2, 2) != 42) return std::nullopt;
  in.seekg(number(header + 4, 4));
  unsigned char count[2];
  if (!in.read(reinterpret_cast<char*>(count), sizeof count)) return std::nullopt;
  std::optional<std::uint32_t> width, height;
  for (std::uint32_t i = 0, entries = number(count, 2); i < entries; ++i) {
    unsigned char entry[12];  // tag, type, count, value (a short value is stored first)
    if (!in.read(reinterpret_cast<char*>(entry), sizeof entry)) break;
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

std::string TiffErrorSuffix() {
  return LastTiffError().empty() ? "" : " (" + LastTiffError() + ")";
}

// Opens a TIFF to read ("r") or write ("w"); messages name the user's path, also when `path` is the
// temporary file of an output.
TiffHandle OpenTiff(const std::string& path, const char* mode) {
  InstallTiffHandlers();
  LastTiffError().clear();
  const bool reading = mode[0] == 'r';
  const std::string shown = UserPath(path);
  FILE* probe = std::fopen(path.c_str(), reading ? "rb" : "ab");
  if (!probe) throw UsageError(shown + ": " + std::strerror(errno));
  std::fclose(probe);
  TiffHandle tiff(TIFFOpen(path.c_str(), mode));
  if (!tiff) {
    if (const auto size = reading ? DeclaredFirstPageSize(path) : std::nullopt;
        size && (size->first == 0 || size->second == 0)) {
      throw UsageError(shown + ": page 1 has no pixels (declared " + std::to_string(size->first) + " x " +
                       std::to_string(size->second) + ")");
    }
    throw UsageError(shown + ": " + (reading ? "not a readable TIFF file" : "cannot be written as TIFF") +
                     (TiffErrorSuffix()));
  }
  return tiff;
}


}  // namespace Quarn::Qphase::detail

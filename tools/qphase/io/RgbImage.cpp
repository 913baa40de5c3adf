#include "RgbImage.h"

#include <unistd.h>

#include <png.h>

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include "OutputFiles.h"
#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

struct Glyph {
  char c;
  std::uint8_t rows[7];  // five columns per row, the most significant of the five bits on the left
};

constexpr Glyph kFont[] = {
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}}, {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}}, {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}}, {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}}, {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}}, {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {'-', {0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00}}, {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}},
    {'+', {0x00, 0x04, 0x04, 0x1F, 0x04, 0x04, 0x00}}, {'%', {0x18, 0x19, 0x02, 0x04, 0x08, 0x13, 0x03}},
    {':', {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00}}, {'/', {0x00, 0x01, 0x02, 0x04, 0x08, 0x10, 0x00}},
    {'(', {0x02, 0x04, 0x08, 0x08, 0x08, 0x04, 0x02}}, {')', {0x08, 0x04, 0x02, 0x02, 0x02, 0x04, 0x08}},
    {',', {0x00, 0x00, 0x00, 0x00, 0x0C, 0x04, 0x08}}, {'=', {0x00, 0x00, 0x1F, 0x00, 0x1F, 0x00, 0x00}},
    {'_', {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x1F}}, {'a', {0x00, 0x00, 0x0E, 0x01, 0x0F, 0x11, 0x0F}},
    {'b', {0x10, 0x10, 0x16, 0x19, 0x11, 0x11, 0x1E}}, {'c', {0x00, 0x00, 0x0E, 0x10, 0x10, 0x11, 0x0E}},
    {'d', {0x01, 0x01, 0x0D, 0x13, 0x11, 0x11, 0x0F}}, {'e', {0x00, 0x00, 0x0E, 0x11, 0x1F, 0x10, 0x0E}},
    {'f', {0x06, 0x09, 0x08, 0x1C, 0x08, 0x08, 0x08}}, {'g', {0x00, 0x0F, 0x11, 0x11, 0x0F, 0x01, 0x0E}},
    {'h', {0x10, 0x10, 0x16, 0x19, 0x11, 0x11, 0x11}}, {'i', {0x04, 0x00, 0x0C, 0x04, 0x04, 0x04, 0x0E}},
    {'j', {0x02, 0x00, 0x06, 0x02, 0x02, 0x12, 0x0C}}, {'k', {0x10, 0x10, 0x12, 0x14, 0x18, 0x14, 0x12}},
    {'l', {0x0C, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}}, {'m', {0x00, 0x00, 0x1A, 0x15, 0x15, 0x11, 0x11}},
    {'n', {0x00, 0x00, 0x16, 0x19, 0x11, 0x11, 0x11}}, {'o', {0x00, 0x00, 0x0E, 0x11, 0x11, 0x11, 0x0E}},
    {'p', {0x00, 0x00, 0x1E, 0x11, 0x1E, 0x10, 0x10}}, {'q', {0x00, 0x00, 0x0D, 0x13, 0x0F, 0x01, 0x01}},
    {'r', {0x00, 0x00, 0x16, 0x19, 0x10, 0x10, 0x10}}, {'s', {0x00, 0x00, 0x0E, 0x10, 0x0E, 0x01, 0x1E}},
    {'t', {0x08, 0x08, 0x1C, 0x08, 0x08, 0x09, 0x06}}, {'u', {0x00, 0x00, 0x11, 0x11, 0x11, 0x13, 0x0D}},
    {'v', {0x00, 0x00, 0x11, 0x11, 0x11, 0x0A, 0x04}}, {'w', {0x00, 0x00, 0x11, 0x11, 0x15, 0x15, 0x0A}},
    {'x', {0x00, 0x00, 0x11, 0x0A, 0x04, 0x0A, 0x11}}, {'y', {0x00, 0x00, 0x11, 0x11, 0x0F, 0x01, 0x0E}},
    {'z', {0x00, 0x00, 0x1F, 0x02, 0x04, 0x08, 0x1F}},
};

const Glyph* FindGlyph(char c) {
  const char lower = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const Glyph& glyph : kFont) {
    if (glyph.c == lower) return &glyph;
  }
  return nullptr;  // blanks and unknown characters leave a gap
}

}  // namespace

RgbImage::RgbImage(int width, int height, Rgb background)
    : width_(width),
      height_(height),
      pixels_(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3) {
  FillRect(0, 0, width - 1, height - 1, background);
}

Rgb RgbImage::Get(int x, int y) const {
  if (x < 0 || y < 0 || x >= width_ || y >= height_) return {};
  const std::size_t i =
      (static_cast<std::size_t>(y) * static_cast<std::size_t>(width_) + static_cast<std::size_t>(x)) * 3;
  return Rgb{pixels_[i], pixels_[i + 1], pixels_[i + 2]};
}

void RgbImage::Set(int x, int y, Rgb colour) {
  if (x < 0 || y < 0 || x >= width_ || y >= height_) return;
  const std::size_t i =
      (static_cast<std::size_t>(y) * static_cast<std::size_t>(width_) + static_cast<std::size_t>(x)) * 3;
  pixels_[i] = colour.r;
  pixels_[i + 1] = colour.g;
  pixels_[i + 2] = colour.b;
}

void RgbImage::FillRect(int x0, int y0, int x1, int y1, Rgb colour) {
  for (int y = std::max(0, y0); y <= std::min(height_ - 1, y1); ++y) {
    for (int x = std::max(0, x0); x <= std::min(width_ - 1, x1); ++x)
      Set(x, y, colour);
  }
}

void RgbImage::DrawRect(int x0, int y0, int x1, int y1, Rgb colour) {
  DrawLine(x0, y0, x1, y0, colour);
  DrawLine(x1, y0, x1, y1, colour);
  DrawLine(x1, y1, x0, y1, colour);
  DrawLine(x0, y1, x0, y0, colour);
}

void RgbImage::DrawLine(int x0, int y0, int x1, int y1, Rgb colour) {
  // Bresenham, all octants.
  const int dx = std::abs(x1 - x0), sx = x0 < x1 ? 1 : -1;
  const int dy = -std::abs(y1 - y0), sy = y0 < y1 ? 1 : -1;
  int error = dx + dy;
  for (;;) {
    Set(x0, y0, colour);
    if (x0 == x1 && y0 == y1) return;
    const int e2 = 2 * error;
    if (e2 >= dy) {
      error += dy;
      x0 += sx;
    }
    if (e2 <= dx) {
      error += dx;
      y0 += sy;
    }
  }
}

void RgbImage::DrawCircle(double cx, double cy, double radius, Rgb colour) {
  const int steps = std::max(16, static_cast<int>(2 * 3.14159265358979 * radius * 1.5));
  for (int i = 0; i < steps; ++i) {
    const double a = 2 * 3.14159265358979 * i / steps;
    Set(static_cast<int>(std::lround(cx + radius * std::cos(a))),
        static_cast<int>(std::lround(cy + radius * std::sin(a))), colour);
  }
}

void RgbImage::DrawText(int x, int y, const std::string& text, Rgb colour, int scale) {
  for (std::size_t k = 0; k < text.size(); ++k) {
    const Glyph* glyph = FindGlyph(text[k]);
    if (!glyph) continue;
    const int left = x + static_cast<int>(k) * 6 * scale;
    for (int row = 0; row < 7; ++row) {
      for (int col = 0; col < 5; ++col) {
        if (glyph->rows[row] & (0x10 >> col)) {
          FillRect(left + col * scale, y + row * scale, left + (col + 1) * scale - 1,
                   y + (row + 1) * scale - 1, colour);
        }
      }
    }
  }
}

void WritePng(const std::string& path, const RgbImage& image) {
  WritePng(WriteTarget::Create(path), image);
}

void WritePng(WriteTarget target, const RgbImage& image) {
  const std::string shown = target.Shown();
  const int fd = target.Release();
  std::unique_ptr<FILE, int (*)(FILE*)> file(fdopen(fd, "wb"), &std::fclose);
  if (!file) {
    const int error = errno;
    close(fd);
    throw UsageError(shown + ": " + std::strerror(error));
  }
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  if (!png || !info) {
    png_destroy_write_struct(&png, nullptr);
    throw UsageError(shown + ": cannot start a PNG");
  }
  // libpng reports errors by longjmp; nothing with a destructor is created between here and the end.
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    throw UsageError(shown + ": writing the PNG failed");
  }
  png_init_io(png, file.get());
  png_set_IHDR(png, info, static_cast<png_uint_32>(image.Width()), static_cast<png_uint_32>(image.Height()),
               8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (int y = 0; y < image.Height(); ++y) {
    png_write_row(png,
                  image.Data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(image.Width()) * 3);
  }
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  // The last buffered bytes reach the disk only when the file is closed: a full disk shows there.
  const bool failed = std::ferror(file.get()) != 0;
  if (std::fclose(file.release()) != 0 || failed) {
    throw UsageError(shown + ": writing the PNG failed (" + std::strerror(errno) + ")");
  }
}

}  // namespace Quarn::Qphase

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "OutputFiles.h"

namespace Quarn::Qphase {

struct Rgb {
  std::uint8_t r = 0, g = 0, b = 0;
  bool operator==(const Rgb&) const = default;
};

// RgbImage
//
// An 8-bit RGB raster with the few drawing operations the previews and overlays need: pixels,
// lines, rectangles, circles and text in a built-in 5 x 7 pixel font (digits, lower-case letters,
// upper case drawn as lower case, and + - . , : / % ( ) = _ x). Coordinates are (x = column,
// y = row), rows growing downwards; drawing outside the image is clipped.
class RgbImage {
 public:
  RgbImage(int width, int height, Rgb background = {255, 255, 255});

  int Width() const { return width_; }
  int Height() const { return height_; }
  const std::uint8_t* Data() const { return pixels_.data(); }

  Rgb Get(int x, int y) const;
  void Set(int x, int y, Rgb colour);
  void FillRect(int x0, int y0, int x1, int y1, Rgb colour);  // inclusive corners
  void DrawRect(int x0, int y0, int x1, int y1, Rgb colour);  // outline
  void DrawLine(int x0, int y0, int x1, int y1, Rgb colour);
  void DrawCircle(double cx, double cy, double radius, Rgb colour);
  // Draws text with its top-left corner at (x, y), each font pixel `scale` pixels wide.
  void DrawText(int x, int y, const std::string& text, Rgb colour, int scale = 1);
  static int TextWidth(const std::string& text, int scale = 1) {
    return static_cast<int>(text.size()) * 6 * scale;
  }
  static int TextHeight(int scale = 1) { return 7 * scale; }

 private:
  int width_;
  int height_;
  std::vector<std::uint8_t> pixels_;
};

// Writes an RGB PNG; throws a usage error when the file cannot be written.
// The target is the file opened once (see OutputFiles::Stage); the path form creates the file.
void WritePng(WriteTarget target, const RgbImage& image);
void WritePng(const std::string& path, const RgbImage& image);

}  // namespace Quarn::Qphase

#include "SpotOverlay.h"

#include <algorithm>
#include <climits>
#include <cmath>

namespace Quarn::Qphase {

namespace {

using Metrology::Analysis::Core::IntMatrix2D;

int Pixel(double coordinate) {
  const double rounded = std::round(coordinate);
  if (!(rounded > -1e9)) return -1000000000;  // NaN and far off: outside, drawing clips it
  return rounded > 1e9 ? 1000000000 : static_cast<int>(rounded);
}

// A rectangle whose sides may lie far outside the image: the sides are pulled to just outside it
// (where they are clipped), so that drawing costs the image's size, not the rectangle's.
void Rect(RgbImage& image, int x0, int y0, int x1, int y1, Rgb colour) {
  const auto clampX = [&](int x) { return std::clamp(x, -1, image.Width()); };
  const auto clampY = [&](int y) { return std::clamp(y, -1, image.Height()); };
  image.DrawRect(clampX(x0), clampY(y0), clampX(x1), clampY(y1), colour);
}

void Cross(RgbImage& image, double x, double y, int arm, Rgb colour) {
  const int cx = Pixel(x), cy = Pixel(y);
  image.DrawLine(cx - arm, cy, cx + arm, cy, colour);
  image.DrawLine(cx, cy - arm, cx, cy + arm, colour);
}

}  // namespace

RgbImage RenderSpotOverlay(const IntMatrix2D& image, const SpotOverlay& overlay) {
  const int width = image.GetColumns(), height = image.GetRows();
  RgbImage out(width, height, Rgb{0, 0, 0});
  int lo = INT_MAX, hi = INT_MIN;
  for (std::int64_t i = 0; i < image.GetCount(); ++i) {
    const int v = image.At(i);
    if (!IntMatrix2D::IsDataValid(v)) continue;
    lo = std::min(lo, v);
    hi = std::max(hi, v);
  }
  const double scale = hi > lo ? 255.0 / (static_cast<double>(hi) - lo) : 0.0;
  for (int r = 0; r < height; ++r) {
    for (int c = 0; c < width; ++c) {
      const int v = image(r, c);
      if (!IntMatrix2D::IsDataValid(v)) {
        out.Set(c, r, Rgb{0, 0, 90});
        continue;
      }
      const auto grey = static_cast<std::uint8_t>(std::lround((static_cast<double>(v) - lo) * scale));
      out.Set(c, r, Rgb{grey, grey, grey});
    }
  }
  if (overlay.foreground && overlay.foreground->GetRows() == height &&
      overlay.foreground->GetColumns() == width) {
    for (int r = 0; r < height; ++r) {
      for (int c = 0; c < width; ++c) {
        const int v = (*overlay.foreground)(r, c);
        if (IntMatrix2D::IsDataValid(v) && v >= overlay.saturationLevel) out.Set(c, r, kSaturatedColour);
      }
    }
  }
  // The square of interest: the pixels within halfWidth of the centre in x and y.
  const double w = overlay.halfWidth;
  Rect(out, Pixel(std::ceil(overlay.reticleX - w)), Pixel(std::ceil(overlay.reticleY - w)),
       Pixel(std::floor(overlay.reticleX + w)), Pixel(std::floor(overlay.reticleY + w)), kSquareColour);
  if (overlay.obscurationRadius > 0.0 && overlay.obscurationRadius < 4.0 * std::max(width, height)) {
    out.DrawCircle(overlay.reticleX, overlay.reticleY, overlay.obscurationRadius, kObscurationColour);
  }
  const int arm = std::max(4, std::min(width, height) / 60);
  Cross(out, overlay.reticleX, overlay.reticleY, arm, kReticleColour);
  for (const SpotMark& spot : overlay.spots) {
    // Drawn one pixel outside the box, so that the spot's own pixels stay visible.
    Rect(out, Pixel(spot.x0) - 1, Pixel(spot.y0) - 1, Pixel(spot.x1) + 1, Pixel(spot.y1) + 1, kSpotBoxColour);
    Cross(out, spot.centerX, spot.centerY, arm, kSpotCentreColour);
  }
  if (!overlay.label.empty()) {
    const int textScale = std::max(1, std::min(width, height) / 250);
    out.FillRect(0, 0, RgbImage::TextWidth(overlay.label, textScale) + 4 * textScale,
                 RgbImage::TextHeight(textScale) + 4 * textScale, Rgb{0, 0, 0});
    out.DrawText(2 * textScale, 2 * textScale, overlay.label, Rgb{255, 255, 255}, textScale);
  }
  return out;
}

}  // namespace Quarn::Qphase

#include "MapPreview.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>
#include <vector>

#include "Analysis/Core/NoData.h"

namespace Quarn::Qphase {

namespace Core = ::Quarn::Metrology::Analysis::Core;

namespace {

constexpr Rgb kRamp[] = {{68, 1, 84},    {71, 44, 122}, {59, 81, 139},  {44, 113, 142}, {33, 144, 141},
                         {39, 173, 129}, {92, 200, 99}, {170, 220, 50}, {253, 231, 37}};
constexpr Rgb kInk{20, 20, 20};

std::string Label(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.4g", value);
  return text;
}

}  // namespace

Rgb ColourAt(double t) {
  if (!(t >= 0.0)) t = 0.0;
  if (t > 1.0) t = 1.0;
  const double position = t * 8.0;
  const int i = std::min(7, static_cast<int>(position));
  const double f = position - i;
  const auto mix = [f](std::uint8_t a, std::uint8_t b) {
    return static_cast<std::uint8_t>(std::lround(a + (b - a) * f));
  };
  return Rgb{mix(kRamp[i].r, kRamp[i + 1].r), mix(kRamp[i].g, kRamp[i + 1].g),
             mix(kRamp[i].b, kRamp[i + 1].b)};
}

RgbImage RenderPreview(const Core::DataMatrix2D<double>& map, const PreviewStyle& style) {
  const int rows = map.GetRows(), cols = map.GetColumns();
  const int factor = std::max(1, (std::max(rows, cols) + 1023) / 1024);
  const int outRows = std::max(1, rows / factor), outCols = std::max(1, cols / factor);

  // Each preview pixel shows one sample of its block: the block's centre, or the first valid pixel
  // when that has no data; a block without any stays no-data. Averaging would be wrong for wrapped
  // phase: the mean of +3 and -3 rad is 0, a colour that appears nowhere near a 2 pi wrap.
  std::vector<double> reduced(static_cast<std::size_t>(outRows) * static_cast<std::size_t>(outCols),
                              Core::kNoDataDouble);
  const auto valid = [](double v) { return !Core::IsNoDataValue(v) && !std::isnan(v); };
  double lo = 1e300, hi = -1e300;
  for (int r = 0; r < outRows; ++r) {
    const int top = r * factor, bottom = std::min(rows, top + factor);
    for (int c = 0; c < outCols; ++c) {
      const int left = c * factor, right = std::min(cols, left + factor);
      double sample = map((top + bottom - 1) / 2, (left + right - 1) / 2);
      for (int rr = top; rr < bottom && !valid(sample); ++rr) {
        for (int cc = left; cc < right && !valid(sample); ++cc)
          sample = map(rr, cc);
      }
      if (!valid(sample)) continue;
      reduced[static_cast<std::size_t>(r) * static_cast<std::size_t>(outCols) + static_cast<std::size_t>(c)] =
          sample;
      lo = std::min(lo, sample);
      hi = std::max(hi, sample);
    }
  }
  if (style.fixedRange) {
    lo = style.lo;
    hi = style.hi;
  }
  const bool anyValid = lo <= hi;
  const double span = anyValid && hi > lo ? hi - lo : 1.0;

  const int margin = 12, titleHeight = 30, barWidth = 22, labelWidth = 80;
  const int width = margin + outCols + margin + barWidth + 8 + labelWidth;
  const int height = titleHeight + std::max(outRows, 120) + margin;
  RgbImage image(width, height);
  image.DrawText(margin, 8, style.title + (anyValid ? "" : " (no valid data)"), kInk, 2);
  for (int r = 0; r < outRows; ++r) {
    for (int c = 0; c < outCols; ++c) {
      const double v = reduced[static_cast<std::size_t>(r) * static_cast<std::size_t>(outCols) +
                               static_cast<std::size_t>(c)];
      image.Set(margin + c, titleHeight + r,
                Core::IsNoDataValue(v) ? kNoDataColour : ColourAt((v - lo) / span));
    }
  }

  // Colour bar: top is the maximum, with labels at the top, the middle and the bottom.
  const int barLeft = margin + outCols + margin;
  const int barTop = titleHeight, barHeight = std::max(outRows, 120);
  for (int y = 0; y < barHeight; ++y) {
    const Rgb colour = ColourAt(1.0 - static_cast<double>(y) / std::max(1, barHeight - 1));
    image.FillRect(barLeft, barTop + y, barLeft + barWidth - 1, barTop + y, colour);
  }
  image.DrawRect(barLeft - 1, barTop - 1, barLeft + barWidth, barTop + barHeight, kInk);
  if (anyValid) {
    const int labelLeft = barLeft + barWidth + 6;
    image.DrawText(labelLeft, barTop, Label(hi), kInk);
    image.DrawText(labelLeft, barTop + barHeight / 2 - 3, Label(0.5 * (lo + hi)), kInk);
    image.DrawText(labelLeft, barTop + barHeight - 7, Label(lo), kInk);
    image.DrawText(labelLeft, barTop + barHeight / 2 + 12, style.unit, kInk);
  }
  return image;
}

void WritePreviewPng(WriteTarget target, const Core::DataMatrix2D<double>& map, const PreviewStyle& style) {
  WritePng(std::move(target), RenderPreview(map, style));
}

void WritePreviewPng(const std::string& path, const Core::DataMatrix2D<double>& map,
                     const PreviewStyle& style) {
  WritePng(path, RenderPreview(map, style));
}

}  // namespace Quarn::Qphase

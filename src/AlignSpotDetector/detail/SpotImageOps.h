#pragma once

#include <cstdint>

#include "Analysis/Core/IntMatrix2D.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment::detail {

// The pixel work of the align spot detector, each operation in a fast form (vector instructions,
// one pass, no per-pixel square root) and, where the fast form is more than a plain loop, the plain
// reference it must match bit for bit; the tests compare the two (hence exported).
enum class PixelPath { kFast, kReference };

// Mean and population standard deviation of the valid pixels of an image's window whose value lies
// in [lo, hi], from exact integer sums (count, sum, sum of squares) taken in one pass: the deviation
// is sqrt(n sum(v^2) - (sum v)^2) / n rounded once, without the cancellation a running double sum
// would suffer. With no pixel counted, count, mean and deviation are 0. The fast path sums four
// pixels at a time; both paths give identical results.
struct BandStatistics {
  std::int64_t count = 0;
  double mean = 0.0;
  double stdDev = 0.0;
};
QUARN_PP_EXPORT BandStatistics StatisticsInBand(const Analysis::Core::IntWindow2D& image, int lo, int hi,
                                                PixelPath path = PixelPath::kFast);

// The two statistics of sigma clipping's background measurement: `all` of every valid pixel of the
// window, then `floor` of those in the band [TruncateToInt(all.mean - k all.stdDev),
// TruncateToInt(all.mean + k all.stdDev)]. The reference is StatisticsInBand twice. The fast form
// reads the image about once: its first pass keeps each row's sums and value range, and the second
// adds the sums of the rows wholly inside the band, skips those wholly outside and sums again only
// the rows the band cuts (in a frame with one spot, the spot's rows). Identical results.
QUARN_PP_EXPORT void ClippedStatistics(const Analysis::Core::IntWindow2D& image, double k,
                                       BandStatistics& all, BandStatistics& floor,
                                       PixelPath path = PixelPath::kFast);

// Truncation toward zero, saturated to the int range (NaN gives 0): the band limits m -/+ k s of a
// pathological image must not overflow the conversion.
QUARN_PP_EXPORT int TruncateToInt(double value);

// Sigma clipping's split of `input` at the band [lo, hi]: both outputs take the input's shape,
// origin, window and units; inside the window `inside` keeps the valid pixels in the band and
// `outside` those beyond it, every other pixel of the window becoming invalid; outside the window
// every pixel of both is invalid (the input's window is all that is examined). This is a copy of
// the window followed by Clipper::Clip (inside) and Clipper::RemoveInside (outside), in one pass.
// False when an output cannot be sized (its status tells why).
QUARN_PP_EXPORT bool SplitAtBand(const Analysis::Core::IntWindow2D& input, int lo, int hi,
                                 Analysis::Core::IntWindow2D& inside, Analysis::Core::IntWindow2D& outside);

// Rows [first, end) of a matrix (0 for its first row, whatever its origin).
struct RowSpan {
  int first = 0;
  int end = 0;
};

// Steps 2 (its final split), 3 and 4 of a detection in one pass: SplitAtBand (band pixels to
// `inside`, the others to `outside`), then ApplySquareAndObscurationMask on `outside`, then
// `count` = CountAtOrAbove(outside, threshold). Same results as the three in turn (tested). With
// `outsideRows`, also the matrix rows beyond which `outside` holds no valid pixel (the rows in
// between may hold none either; {0, 0} when no row can hold one). False when an output cannot be
// sized.
QUARN_PP_EXPORT bool SplitMaskAndCount(const Analysis::Core::IntWindow2D& input, int lo, int hi,
                                       double centerX, double centerY, double halfWidth,
                                       double obscurationRadius, int threshold,
                                       Analysis::Core::IntWindow2D& inside,
                                       Analysis::Core::IntWindow2D& outside, std::int64_t& count,
                                       RowSpan* outsideRows = nullptr);

// The detector's mask over the image's window: a pixel at column x, row y (camera coordinates) is
// invalidated when sqrt(dx^2 + dy^2) < obscurationRadius, |dx| > halfWidth or |dy| > halfWidth,
// with dx = x - centerX, dy = y - centerY. Fast form: the square is cut from row and column flags
// computed once, the square root is evaluated only in the obscuration's bounding box (outside it
// |dx| or |dy| alone is already >= the radius).
QUARN_PP_EXPORT void ApplySquareAndObscurationMask(Analysis::Core::IntWindow2D& image, double centerX,
                                                   double centerY, double halfWidth,
                                                   double obscurationRadius);
// The same rule, pixel by pixel, as written above.
QUARN_PP_EXPORT void ApplySquareAndObscurationMaskReference(Analysis::Core::IntWindow2D& image,
                                                            double centerX, double centerY, double halfWidth,
                                                            double obscurationRadius);

// Number of valid pixels of the window at or above `threshold`.
QUARN_PP_EXPORT std::int64_t CountAtOrAbove(const Analysis::Core::IntWindow2D& image, int threshold);

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment::detail

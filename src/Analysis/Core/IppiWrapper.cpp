#include "Analysis/Core/IppiWrapper.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace Quarn::Metrology::Analysis::Core {

namespace {

// By value: std::max returns a reference, and choosing between two addresses is a branch that
// keeps the loop below from being vectorised.
inline std::uint8_t Max(std::uint8_t a, std::uint8_t b) {
  return a > b ? a : b;
}

// One output row from the input rows above, at and below it (the row itself stands in for a
// missing neighbour row at the image border). `out` aliases none of the inputs, which lets the
// interior loop run 16 pixels at a time.
void DilateRow(const std::uint8_t* above, const std::uint8_t* centre, const std::uint8_t* below,
               std::uint8_t* __restrict out, int cols) {
  const auto column = [&](int c) { return Max(Max(above[c], centre[c]), below[c]); };
  if (cols <= 1) {
    if (cols == 1) out[0] = column(0);
    return;
  }
  out[0] = Max(column(0), column(1));
  for (int c = 1; c + 1 < cols; ++c) {
    const std::uint8_t left = Max(Max(above[c - 1], centre[c - 1]), below[c - 1]);
    const std::uint8_t middle = Max(Max(above[c], centre[c]), below[c]);
    const std::uint8_t right = Max(Max(above[c + 1], centre[c + 1]), below[c + 1]);
    out[c] = Max(Max(left, middle), right);
  }
  out[cols - 1] = Max(column(cols - 2), column(cols - 1));
}

}  // namespace

void IppiWrapper::Dilate3x3Rows(const DataMatrix2D<std::uint8_t>& input, DataMatrix2D<std::uint8_t>& output,
                                int firstRow, int endRow) {
  const int rows = input.GetRows();
  const int cols = input.GetColumns();
  for (int r = std::max(firstRow, 0); r < std::min(endRow, rows); ++r) {
    const std::uint8_t* centre = input.Row(r);
    DilateRow(r > 0 ? input.Row(r - 1) : centre, centre, r + 1 < rows ? input.Row(r + 1) : centre,
              output.Row(r), cols);
  }
}

Status IppiWrapper::Dilate3x3(const DataMatrix2D<std::uint8_t>& input, DataMatrix2D<std::uint8_t>& output) {
  const int rows = input.GetRows();
  const int cols = input.GetColumns();
  if (&input != &output) {
    if (!output.Resize(input.GetMatrixWindow())) return output.GetStatus();
    Dilate3x3Rows(input, output, 0, rows);
    return Status(__LINE__, "analysis\\core\\IppiWrapper");
  }
  // In place: row r is overwritten once row r + 1 no longer needs it, so the original of the row
  // above and of the row itself are kept aside.
  std::vector<std::uint8_t> kept(2 * static_cast<std::size_t>(cols));
  std::uint8_t* above = kept.data();
  std::uint8_t* centre = kept.data() + cols;
  for (int r = 0; r < rows; ++r) {
    std::memcpy(centre, output.Row(r), static_cast<std::size_t>(cols));
    DilateRow(r > 0 ? above : centre, centre, r + 1 < rows ? output.Row(r + 1) : centre, output.Row(r), cols);
    std::swap(above, centre);
  }
  return Status(__LINE__, "analysis\\core\\IppiWrapper");
}

}  // namespace Quarn::Metrology::Analysis::Core

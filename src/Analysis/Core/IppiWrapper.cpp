#include "Analysis/Core/IppiWrapper.h"

#include <algorithm>
#include <vector>

namespace Quarn::Metrology::Analysis::Core {

Status IppiWrapper::Dilate3x3(const DataMatrix2D<std::uint8_t>& input, DataMatrix2D<std::uint8_t>& output) {
  const int rows = input.GetRows();
  const int cols = input.GetColumns();
  // Separable: a horizontal 3-max into a scratch image, then a vertical 3-max into the output.
  std::vector<std::uint8_t> horizontal(static_cast<std::size_t>(input.GetCount()));
  for (int r = 0; r < rows; ++r) {
    const std::uint8_t* in = input.Row(r);
    std::uint8_t* h = horizontal.data() + static_cast<std::size_t>(r) * cols;
    for (int c = 0; c < cols; ++c) {
      std::uint8_t m = in[c];
      if (c > 0) m = std::max(m, in[c - 1]);
      if (c + 1 < cols) m = std::max(m, in[c + 1]);
      h[c] = m;
    }
  }
  if (!output.Resize(input.GetMatrixWindow())) return output.GetStatus();
  for (int r = 0; r < rows; ++r) {
    const std::uint8_t* h = horizontal.data() + static_cast<std::size_t>(r) * cols;
    const std::uint8_t* above = r > 0 ? h - cols : nullptr;
    const std::uint8_t* below = r + 1 < rows ? h + cols : nullptr;
    std::uint8_t* out = output.Row(r);
    for (int c = 0; c < cols; ++c) {
      std::uint8_t m = h[c];
      if (above) m = std::max(m, above[c]);
      if (below) m = std::max(m, below[c]);
      out[c] = m;
    }
  }
  return Status(__LINE__, "analysis\\core\\IppiWrapper");
}

}  // namespace Quarn::Metrology::Analysis::Core

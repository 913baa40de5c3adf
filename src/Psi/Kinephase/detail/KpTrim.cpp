#include "Psi/Kinephase/detail/KpTrim.h"

#include <algorithm>
#include <cstring>

#include "Analysis/Core/IppiWrapper.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::RegionIdMatrix2D;
using Analysis::Core::RegionInfo;

namespace {
// Both leave most of a row alone: eight pixels are tested together, and only a group with a pixel
// to clear is written.
void ClearWhereSet(const std::uint8_t* flags, double* values, int columns) {
  const double noData = DoubleMatrix2D::NoData();
  int c = 0;
  for (; c + 8 <= columns; c += 8) {
    std::uint64_t any;
    std::memcpy(&any, flags + c, sizeof any);
    if (any == 0) continue;
    for (int k = c; k < c + 8; ++k) {
      if (flags[k] != 0) values[k] = noData;
    }
  }
  for (; c < columns; ++c) {
    if (flags[c] != 0) values[c] = noData;
  }
}

void ClearOutside(const int* ids, double* values, int columns) {
  const double noData = DoubleMatrix2D::NoData();
  int c = 0;
  for (; c + 8 <= columns; c += 8) {
    bool out = false;
    for (int k = c; k < c + 8; ++k)
      out |= !RegionIdMatrix2D::IsValid(ids[k]);
    if (!out) continue;
    for (int k = c; k < c + 8; ++k) {
      if (!RegionIdMatrix2D::IsValid(ids[k])) values[k] = noData;
    }
  }
  for (; c < columns; ++c) {
    if (!RegionIdMatrix2D::IsValid(ids[c])) values[c] = noData;
  }
}
}  // namespace

void KeepLargeAreas(RegionIdMatrix2D& areas, const Analysis::Core::Array<RegionInfo>& regions,
                    int minRegionSize, std::vector<std::uint8_t>& keptRows) {
  const int rows = static_cast<int>(keptRows.size());
  std::fill(keptRows.begin(), keptRows.end(), 0);
  for (const RegionInfo& region : regions) {
    if (region.pixelCount < minRegionSize) {
      areas.DeleteRegion(region);
      continue;
    }
    const int top = std::max(region.window.GetStartRow() - areas.GetStartRow(), 0);
    const int bottom = std::min(region.window.GetEndRow() - areas.GetStartRow(), rows);
    std::fill(keptRows.begin() + top, keptRows.begin() + std::max(top, bottom), 1);
  }
}

void MarkTrimRows(const RegionIdMatrix2D& areas, const std::vector<std::uint8_t>& keptRows,
                  Analysis::Core::DataMatrix2D<std::uint8_t>& work, int first, int end) {
  const int columns = areas.GetColumns();
  for (int r = first; r < end; ++r) {
    std::uint8_t* out = work.Row(r);
    if (!keptRows[static_cast<std::size_t>(r)]) {
      std::fill_n(out, columns, 0);
      continue;
    }
    const int* ids = areas.Row(r);
    for (int c = 0; c < columns; ++c)
      out[c] = RegionIdMatrix2D::IsValid(ids[c]) ? 1 : 0;
  }
}

void ApplyTrimRows(const std::vector<std::uint8_t>& keptRows,
                   const Analysis::Core::DataMatrix2D<std::uint8_t>& work,
                   Analysis::Core::DataMatrix2D<std::uint8_t>& grown, const RegionIdMatrix2D* mask,
                   DoubleMatrix2D& phase, int first, int end) {
  const int rows = phase.GetRows();
  const int columns = phase.GetColumns();
  const auto kept = [&](int r) { return r >= 0 && r < rows && keptRows[static_cast<std::size_t>(r)]; };
  for (int r = first; r < end; ++r) {
    double* values = phase.Row(r);
    if (kept(r - 1) || kept(r) || kept(r + 1)) {
      Analysis::Core::IppiWrapper::Dilate3x3Rows(work, grown, r, r + 1);
      ClearWhereSet(grown.Row(r), values, columns);
    }
    if (mask && r < mask->GetRows())
      ClearOutside(mask->Row(r), values, std::min(columns, mask->GetColumns()));
  }
}

void ApplyMask(const RegionIdMatrix2D& mask, DoubleMatrix2D& phase) {
  const int rows = std::min(phase.GetRows(), mask.GetRows());
  const int columns = std::min(phase.GetColumns(), mask.GetColumns());
  const double noData = DoubleMatrix2D::NoData();
  for (int r = 0; r < rows; ++r) {
    const int* in = mask.Row(r);
    double* out = phase.Row(r);
    for (int c = 0; c < columns; ++c) {
      if (!RegionIdMatrix2D::IsValid(in[c])) out[c] = noData;
    }
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail

#include "Analysis/Core/RegionIdMatrix2D.h"

#include <algorithm>

namespace Quarn::Metrology::Analysis::Core {

RegionIdMatrix2D::~RegionIdMatrix2D() = default;

void RegionIdMatrix2D::DeleteRegion(const RegionInfo& region) {
  const Window2D w(region.window, GetMatrixWindow());
  for (int r = w.GetStartRow(); r < w.GetEndRow(); ++r) {
    int* row = Row(r - GetStartRow());
    for (int c = w.GetStartCol(); c < w.GetEndCol(); ++c) {
      int& id = row[c - GetStartCol()];
      if (id == region.id) id = NoData();
    }
  }
}

void RegionIdMatrix2D::MarkNoDataRow(const double* values, int* ids, int count) {
  for (int c = 0; c < count; ++c)
    ids[c] = DoubleMatrix2D::IsNoData(values[c]) ? 0 : NoData();
}

bool RegionIdMatrix2D::MarkNoDataOf(const DoubleMatrix2D& values) {
  if (!Resize(values.GetMatrixWindow())) return false;
  for (int r = 0; r < values.GetRows(); ++r)
    MarkNoDataRow(values.Row(r), Row(r), values.GetColumns());
  ResetWindow();
  if (values.GetWindow() != values.GetMatrixWindow()) SetWindow(values.GetWindow());
  return true;
}

}  // namespace Quarn::Metrology::Analysis::Core

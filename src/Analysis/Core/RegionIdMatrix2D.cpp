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

bool RegionIdMatrix2D::MarkNoDataOf(const DoubleMatrix2D& values) {
  if (!Resize(values.GetMatrixWindow())) return false;
  const double* source = values.Data();
  int* target = Data();
  const std::int64_t count = values.GetCount();
  for (std::int64_t i = 0; i < count; ++i)
    target[i] = DoubleMatrix2D::IsNoData(source[i]) ? 0 : NoData();
  ResetWindow();
  if (values.GetWindow() != values.GetMatrixWindow()) SetWindow(values.GetWindow());
  return true;
}

}  // namespace Quarn::Metrology::Analysis::Core

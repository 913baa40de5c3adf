#include "Analysis/Core/Window2D.h"

#include <algorithm>

namespace Quarn::Metrology::Analysis::Core {

Window2D::Window2D(const Window2D& a, const Window2D& b) {
  if (!a.IsWellFormed() || !b.IsWellFormed()) {
    // Keep the result malformed so that its status names the problem.
    rows_ = -1;
    cols_ = -1;
    return;
  }
  startRow_ = std::max(a.startRow_, b.startRow_);
  startCol_ = std::max(a.startCol_, b.startCol_);
  rows_ = std::max(0, std::min(a.GetEndRow(), b.GetEndRow()) - startRow_);
  cols_ = std::max(0, std::min(a.GetEndCol(), b.GetEndCol()) - startCol_);
}

bool Window2D::Contains(const Window2D& other) const {
  return other.startRow_ >= startRow_ && other.startCol_ >= startCol_ && other.GetEndRow() <= GetEndRow() &&
         other.GetEndCol() <= GetEndCol();
}

Status Window2D::GetStatus() const {
  if (IsWellFormed()) return Status(__LINE__, "analysis\\core\\Window2D");
  return Status(0, StatusCode::kNegativeDimension, __LINE__, "analysis\\core\\Window2D", "");
}

}  // namespace Quarn::Metrology::Analysis::Core

#pragma once

#include <cstdint>

#include "Analysis/Core/QuarnCoreExport.h"
#include "Analysis/Core/Status.h"

namespace Quarn::Metrology::Analysis::Core {

// Window2D
//
// A rectangle of camera pixels: start row, start column (the origin in the camera frame, rows
// growing downwards) and the number of rows and columns. Matrices carry their window so that maps
// of different extents can be related pixel by pixel.
//
//   Window2D a(0, 0, 10, 10), b(5, 8, 10, 10);
//   Window2D overlap(a, b);   // start (5, 8), 5 rows, 2 columns
//
// A window with a negative size is malformed; `GetStatus()` then reports code 30.
class QUARN_CORE_EXPORT Window2D {
 public:
  Window2D() = default;
  Window2D(int startRow, int startCol, int rows, int cols)
      : startRow_(startRow), startCol_(startCol), rows_(rows), cols_(cols) {}

  // The intersection of two windows: it starts at the later start row and column and ends at the
  // earlier end of each. Windows disjoint in rows give zero rows there (likewise columns), so the
  // result is empty; a malformed operand gives a malformed result.
  Window2D(const Window2D& a, const Window2D& b);

  int GetStartRow() const { return startRow_; }
  int GetStartCol() const { return startCol_; }
  int GetRows() const { return rows_; }
  int GetCols() const { return cols_; }
  int GetEndRow() const { return startRow_ + rows_; }  // one past the last row
  int GetEndCol() const { return startCol_ + cols_; }  // one past the last column
  std::int64_t GetCount() const { return IsWellFormed() ? static_cast<std::int64_t>(rows_) * cols_ : 0; }
  bool IsEmpty() const { return rows_ <= 0 || cols_ <= 0; }
  bool IsWellFormed() const { return rows_ >= 0 && cols_ >= 0; }

  bool Contains(int row, int col) const {
    return row >= startRow_ && row < GetEndRow() && col >= startCol_ && col < GetEndCol();
  }
  bool Contains(const Window2D& other) const;

  // Success for a well-formed window, code 30 (negative dimension) otherwise.
  Status GetStatus() const;

  bool operator==(const Window2D& other) const {
    return startRow_ == other.startRow_ && startCol_ == other.startCol_ && rows_ == other.rows_ &&
           cols_ == other.cols_;
  }
  bool operator!=(const Window2D& other) const { return !(*this == other); }

 private:
  int startRow_ = 0;
  int startCol_ = 0;
  int rows_ = 0;
  int cols_ = 0;
};

}  // namespace Quarn::Metrology::Analysis::Core

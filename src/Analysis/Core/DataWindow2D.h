#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>

#include "Analysis/Core/DataMatrix2D.h"
#include "Analysis/Core/NoData.h"
#include "Analysis/Core/Window2D.h"

namespace Quarn::Metrology::Analysis::Core {

// DataWindow2D<T>
//
// A `DataMatrix2D<T>` with a window onto it (in camera coordinates) and the no-data convention of
// its element type: a double element is no-data at or above the largest finite double, an int
// element at or above 2147483640 (see NoData.h). Operations that scan values (`SetAll`, `SetValid`,
// `Replace`, `FindMinEnclosing`, `CountValid`) work over the window.
//
// The window follows the matrix: a window made before the matrix was resized or moved is stale and
// is rebuilt as the whole matrix the next time it is used.
//
//   DoubleWindow2D map(4, 6);
//   map.SetAll(DoubleWindow2D::NoData());
//   map(1, 2) = 0.5; map(2, 4) = 1.5;
//   map.FindMinEnclosing();  // start (1, 2), 2 rows, 3 columns
template <typename T>
class DataWindow2D : public DataMatrix2D<T> {
  using Base = DataMatrix2D<T>;

 public:
  DataWindow2D() = default;
  DataWindow2D(int rows, int cols) : Base(rows, cols) {}

  // Copies and moves take the window only when it is current in the source (as `CopyAll` does): the
  // copied matrix starts a generation count of its own, against which a stale window could look
  // current and reach past the storage.
  DataWindow2D(const DataWindow2D& other) : Base(other) { AdoptWindow(other.CurrentWindow()); }
  DataWindow2D& operator=(const DataWindow2D& other) {
    if (this != &other) {
      Base::operator=(other);
      AdoptWindow(other.CurrentWindow());
    }
    return *this;
  }
  DataWindow2D(DataWindow2D&& other) noexcept : DataWindow2D(std::move(other), other.CurrentWindow()) {}
  DataWindow2D& operator=(DataWindow2D&& other) noexcept {
    if (this != &other) {
      const std::optional<Window2D> window = other.CurrentWindow();
      Base::operator=(std::move(other));
      AdoptWindow(window);
      other.hasWindow_ = false;
    }
    return *this;
  }
  ~DataWindow2D() override = default;

  static constexpr T NoData() { return NoDataTraits<T>::Value(); }
  static constexpr bool IsNoData(const T& v) { return NoDataTraits<T>::IsNoData(v); }
  static constexpr bool IsDataValid(const T& v) { return !NoDataTraits<T>::IsNoData(v); }

  // The current window: the one set, or the whole matrix when none was set or it went stale.
  Window2D GetWindow() const {
    if (!hasWindow_ || windowGeneration_ != this->GetGeneration()) return this->GetMatrixWindow();
    return window_;
  }

  // Restricts the window to `window` clipped to the matrix.
  void SetWindow(const Window2D& window) {
    window_ = Window2D(window, this->GetMatrixWindow());
    windowGeneration_ = this->GetGeneration();
    hasWindow_ = true;
  }
  void ResetWindow() { hasWindow_ = false; }

  void SetAll(const T& value) {
    ForEachInWindow([&](T& element) { element = value; });
  }
  // Overwrites only the valid elements.
  void SetValid(const T& value) {
    ForEachInWindow([&](T& element) {
      if (IsDataValid(element)) element = value;
    });
  }
  // Every element equal to `from` becomes `to` (compared with ==).
  void Replace(const T& from, const T& to) {
    ForEachInWindow([&](T& element) {
      if (element == from) element = to;
    });
  }

  std::int64_t CountValid() const {
    std::int64_t count = 0;
    ForEachInWindow([&](const T& element) { count += IsDataValid(element) ? 1 : 0; });
    return count;
  }
  bool AnyValid() const { return FirstValidIndex() >= 0; }

  // Moves the origin in the camera frame; a set window moves with it.
  void MoveStartTo(int startRow, int startCol) {
    const std::optional<Window2D> window = CurrentWindow();
    const int dRow = startRow - this->GetStartRow();
    const int dCol = startCol - this->GetStartCol();
    this->SetOrigin(startRow, startCol);
    if (window) {
      SetWindow(Window2D(window->GetStartRow() + dRow, window->GetStartCol() + dCol, window->GetRows(),
                         window->GetCols()));
    }
  }
  void MoveStartRowTo(int startRow) { MoveStartTo(startRow, this->GetStartCol()); }
  void MoveStartColTo(int startCol) { MoveStartTo(this->GetStartRow(), startCol); }
  void ResetOrigin() { MoveStartTo(0, 0); }

  // The smallest window holding every valid element of the current window; a window of zero rows
  // and columns at the current start when nothing is valid.
  Window2D FindMinEnclosing() {
    if (hasWindow_ && windowGeneration_ != this->GetGeneration()) {
      this->Lock();
      hasWindow_ = false;
      this->UnLock();
    }
    const Window2D w = GetWindow();
    if (w.IsEmpty()) return Window2D(w.GetStartRow(), w.GetStartCol(), 0, 0);
    int top = -1;
    for (int r = w.GetStartRow(); r < w.GetEndRow() && top < 0; ++r) {
      if (RowHasValid(r, w)) top = r;
    }
    if (top < 0) return Window2D(w.GetStartRow(), w.GetStartCol(), 0, 0);
    int bottom = top;
    for (int r = w.GetEndRow() - 1; r > top; --r) {
      if (RowHasValid(r, w)) {
        bottom = r;
        break;
      }
    }
    int left = w.GetEndCol();
    int right = w.GetStartCol() - 1;
    for (int r = top; r <= bottom; ++r) {
      const T* row = RowAt(r);
      for (int c = w.GetStartCol(); c < left; ++c) {
        if (IsDataValid(row[c - this->GetStartCol()])) {
          left = c;
          break;
        }
      }
      for (int c = w.GetEndCol() - 1; c > right; --c) {
        if (IsDataValid(row[c - this->GetStartCol()])) {
          right = c;
          break;
        }
      }
    }
    return Window2D(top, left, bottom - top + 1, right - left + 1);
  }

  // Shrinks the matrix to the smallest window holding its valid data (the window is reset).
  bool ResizeToValidData() {
    const Window2D target = FindMinEnclosing();
    DataMatrix2D<T> cropped;
    if (!cropped.Resize(target)) {
      this->GetStatus() = cropped.GetStatus();
      return false;
    }
    for (int r = 0; r < target.GetRows(); ++r) {
      const T* source = RowAt(target.GetStartRow() + r) + (target.GetStartCol() - this->GetStartCol());
      std::copy(source, source + target.GetCols(), cropped.Row(r));
    }
    if (!this->Resize(target)) return false;
    std::copy(cropped.Data(), cropped.Data() + cropped.GetCount(), this->Data());
    hasWindow_ = false;
    return true;
  }

  // Copies elements, shape, origin, window and units of another matrix.
  bool CopyAll(const DataWindow2D& other) {
    if (this == &other) return true;
    if (!this->Resize(other.GetMatrixWindow())) return false;
    std::copy(other.Data(), other.Data() + other.GetCount(), this->Data());
    this->SetUnitManager(other.GetUnitManager());
    AdoptWindow(other.CurrentWindow());
    return true;
  }

  // Linear index of the first valid element of the window, or -1.
  std::int64_t FirstValidIndex() const {
    const Window2D w = GetWindow();
    for (int r = w.GetStartRow(); r < w.GetEndRow(); ++r) {
      const std::int64_t rowBase = static_cast<std::int64_t>(r - this->GetStartRow()) * this->GetColumns();
      for (int c = w.GetStartCol(); c < w.GetEndCol(); ++c) {
        const std::int64_t i = rowBase + (c - this->GetStartCol());
        if (IsDataValid(this->At(i))) return i;
      }
    }
    return -1;
  }

 private:
  // The window set on this matrix, if one was set and has not gone stale since.
  std::optional<Window2D> CurrentWindow() const {
    if (hasWindow_ && windowGeneration_ == this->GetGeneration()) return window_;
    return std::nullopt;
  }
  // Takes a window from another matrix; `SetWindow` clips it to this matrix, so a copy that failed
  // to resize cannot be given a window reaching past its storage.
  void AdoptWindow(const std::optional<Window2D>& window) {
    if (window) {
      SetWindow(*window);
    } else {
      hasWindow_ = false;
    }
  }
  DataWindow2D(DataWindow2D&& other, const std::optional<Window2D>& window) noexcept
      : Base(std::move(other)) {
    AdoptWindow(window);
    other.hasWindow_ = false;
  }

  const T* RowAt(int cameraRow) const { return this->Row(cameraRow - this->GetStartRow()); }

  bool RowHasValid(int cameraRow, const Window2D& w) const {
    const T* row = RowAt(cameraRow);
    for (int c = w.GetStartCol(); c < w.GetEndCol(); ++c) {
      if (IsDataValid(row[c - this->GetStartCol()])) return true;
    }
    return false;
  }

  template <typename F>
  void ForEachInWindow(F&& f) {
    const Window2D w = GetWindow();
    for (int r = w.GetStartRow(); r < w.GetEndRow(); ++r) {
      T* row = this->Row(r - this->GetStartRow());
      for (int c = w.GetStartCol(); c < w.GetEndCol(); ++c)
        f(row[c - this->GetStartCol()]);
    }
  }
  template <typename F>
  void ForEachInWindow(F&& f) const {
    const Window2D w = GetWindow();
    for (int r = w.GetStartRow(); r < w.GetEndRow(); ++r) {
      const T* row = this->Row(r - this->GetStartRow());
      for (int c = w.GetStartCol(); c < w.GetEndCol(); ++c)
        f(row[c - this->GetStartCol()]);
    }
  }

  Window2D window_;
  std::uint64_t windowGeneration_ = 0;
  bool hasWindow_ = false;
};

using DoubleWindow2D = DataWindow2D<double>;
using IntWindow2D = DataWindow2D<int>;

}  // namespace Quarn::Metrology::Analysis::Core

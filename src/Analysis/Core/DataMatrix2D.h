#pragma once

#include <algorithm>
#include <climits>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

#include "Analysis/Core/AlignedBuffer.h"
#include "Analysis/Core/SharedMemorySection.h"
#include "Analysis/Core/Status.h"
#include "Analysis/Core/UnitManager.h"
#include "Analysis/Core/Window2D.h"

namespace Quarn::Metrology::Analysis::Core {

// DataMatrix2D<T>
//
// A row-major matrix, element (row, column) at `row * columns + column`, that knows where it sits
// in the camera frame (start row and start column) and in which units its values are (a
// `UnitManager`). Storage is either the heap or a named shared-memory section, so that a host
// process and a viewer can look at one map without copying it.
//
// Resizing never throws: a failure is recorded in the matrix's own status and the operation
// returns false. Codes: 30 for a negative dimension, 7 when a shared section is too small for the
// requested size (tested first for a shared matrix), 3 when the heap refuses the allocation or the
// count exceeds 2^31 - 1, and 3 when shared memory cannot back a new section's capacity.
//
// Storage is kept when a resize fits into what is already allocated (the matrix is re-laid out in
// place, element values are then unspecified); it grows otherwise (new storage is zero bytes).
// Elements are plain data (trivially copyable), so that a matrix can live in a shared section.
//
//   DoubleMatrix2D map;                       // (a DataMatrix2D<double> with a window)
//   map.CreateSharedMemory("phase", 1 << 20); // 1 MiB section
//   map.Resize(100, 200);                     // fits: 256 + 100*200*8 bytes <= 1 MiB
//   DoubleMatrix2D view;
//   view.OpenSharedMemory("phase");           // same bytes, same 100 x 200 layout
template <typename T>
class DataMatrix2D {
  static_assert(std::is_trivially_copyable_v<T>, "matrix elements are plain data");

 public:
  DataMatrix2D() = default;
  DataMatrix2D(int rows, int cols) { Resize(rows, cols); }
  DataMatrix2D(const DataMatrix2D& other) { CopyFrom(other); }
  DataMatrix2D& operator=(const DataMatrix2D& other) {
    if (this != &other) CopyFrom(other);
    return *this;
  }
  DataMatrix2D(DataMatrix2D&& other) noexcept { MoveFrom(other); }
  DataMatrix2D& operator=(DataMatrix2D&& other) noexcept {
    if (this != &other) MoveFrom(other);
    return *this;
  }
  virtual ~DataMatrix2D() = default;

  // Shared-memory backing. `CreateSharedMemory` creates the named section with the given capacity
  // in bytes (header included) or opens it when it exists; `OpenSharedMemory` only opens. Either
  // replaces the current storage; the matrix then shows the layout recorded in the section.
  bool CreateSharedMemory(const std::string& name, std::size_t capacityBytes) {
    return AttachSection(SharedMemorySection::CreateOrOpen(name, capacityBytes, sizeof(T), status_));
  }
  bool OpenSharedMemory(const std::string& name) {
    return AttachSection(SharedMemorySection::Open(name, sizeof(T), status_));
  }
  bool IsSharedMemory() const { return section_ != nullptr; }
  std::string GetSharedName() const { return section_ ? section_->GetName() : std::string(); }

  // Bytes available for elements: the section capacity minus its header; 0 on the heap.
  std::size_t MaxAllocSize() const {
    return section_ ? section_->GetCapacity() - SharedMemorySection::kHeaderSize : 0;
  }

  // Re-reads the layout of a shared matrix (another mapping may have resized it in place). The
  // header is not trusted: a layout that the section cannot hold (a corrupt header, or one written by
  // a foreign program) leaves the matrix empty with code 7, and the result is false.
  bool UpdateSharedReferences() {
    if (!section_) return true;
    SharedMatrixLayout layout = section_->ReadLayout();
    const bool fits = layout.rows >= 0 && layout.cols >= 0 &&
                      FitsSection(static_cast<std::int64_t>(layout.rows) * layout.cols);
    if (!fits) {
      status_ = Status(0, StatusCode::kSectionTooSmall, __LINE__, kSource, "");
      layout = SharedMatrixLayout{};
    }
    if (layout.startRow != startRow_ || layout.startCol != startCol_ || layout.rows != rows_ ||
        layout.cols != cols_) {
      startRow_ = layout.startRow;
      startCol_ = layout.startCol;
      rows_ = layout.rows;
      cols_ = layout.cols;
      ++generation_;
    }
    return fits;
  }

  // Cross-process lock of a shared matrix; nothing to do for heap storage, which belongs to one
  // owner at a time.
  void Lock() {
    if (section_) section_->Lock();
  }
  void UnLock() {
    if (section_) section_->Unlock();
  }

  bool Resize(int rows, int cols) { return Resize(startRow_, startCol_, rows, cols); }
  bool Resize(const Window2D& w) {
    return Resize(w.GetStartRow(), w.GetStartCol(), w.GetRows(), w.GetCols());
  }
  bool Resize(int startRow, int startCol, int rows, int cols) {
    return ResizeStorage(startRow, startCol, rows, cols, true);
  }

  // Resize for a caller that writes every element next (a result map): storage that has to grow is
  // not cleared first, so the map costs one pass over its memory instead of two.
  bool ResizeForOverwrite(int rows, int cols) {
    return ResizeStorage(startRow_, startCol_, rows, cols, false);
  }
  bool ResizeForOverwrite(const Window2D& w) {
    return ResizeStorage(w.GetStartRow(), w.GetStartCol(), w.GetRows(), w.GetCols(), false);
  }

  // Resizes (keeping the origin) only when the shape differs.
  bool ResizeIfNeeded(int rows, int cols) {
    if (rows == rows_ && cols == cols_) return true;
    return Resize(startRow_, startCol_, rows, cols);
  }

 private:
  bool ResizeStorage(int startRow, int startCol, int rows, int cols, bool zeroNewStorage) {
    if (rows < 0 || cols < 0) {
      status_ = Status(0, StatusCode::kNegativeDimension, __LINE__, kSource, "");
      return false;
    }
    const std::int64_t count = static_cast<std::int64_t>(rows) * cols;
    // A shared matrix is bounded by its section before anything else: whatever the element count,
    // the answer for a section that cannot hold it is "section too small".
    if (section_ && !FitsSection(count)) {
      status_ = Status(0, StatusCode::kSectionTooSmall, __LINE__, kSource, "");
      return false;
    }
    if (count > INT_MAX) {
      status_ =
          Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "Matrix of more than 2^31 elements");
      return false;
    }
    if (section_) {
      section_->WriteLayout(SharedMatrixLayout{startRow, startCol, rows, cols});
    } else if (count > capacity_) {
      AlignedBuffer fresh;
      const std::size_t bytes = static_cast<std::size_t>(count) * sizeof(T);
      if (!(zeroNewStorage ? fresh.Allocate(bytes) : fresh.AllocateUninitialized(bytes))) {
        status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "");
        return false;
      }
      heap_ = std::move(fresh);
      data_ = reinterpret_cast<T*>(heap_.Data());
      capacity_ = count;
    }
    if (startRow != startRow_ || startCol != startCol_ || rows != rows_ || cols != cols_) ++generation_;
    startRow_ = startRow;
    startCol_ = startCol;
    rows_ = rows;
    cols_ = cols;
    return true;
  }

 public:
  // Releases heap storage (a shared section stays attached) and leaves an empty matrix at origin 0.
  void Reset() {
    if (!section_) {
      heap_.Release();
      data_ = nullptr;
      capacity_ = 0;
    }
    Resize(0, 0, 0, 0);
  }

  void SetAll(const T& value) { std::fill(data_, data_ + GetCount(), value); }

  // Moves the origin in the camera frame; the elements stay where they are.
  void SetOrigin(int startRow, int startCol) { Resize(startRow, startCol, rows_, cols_); }

  T& At(std::int64_t i) { return data_[i]; }
  const T& At(std::int64_t i) const { return data_[i]; }
  T& operator()(int row, int col) { return data_[static_cast<std::int64_t>(row) * cols_ + col]; }
  const T& operator()(int row, int col) const { return data_[static_cast<std::int64_t>(row) * cols_ + col]; }
  T* Data() { return data_; }
  const T* Data() const { return data_; }
  T* Row(int row) { return data_ + static_cast<std::int64_t>(row) * cols_; }
  const T* Row(int row) const { return data_ + static_cast<std::int64_t>(row) * cols_; }

  int GetRows() const { return rows_; }
  int GetColumns() const { return cols_; }
  int GetStartRow() const { return startRow_; }
  int GetStartCol() const { return startCol_; }
  std::int64_t GetCount() const { return static_cast<std::int64_t>(rows_) * cols_; }
  Window2D GetMatrixWindow() const { return Window2D(startRow_, startCol_, rows_, cols_); }

  Status& GetStatus() { return status_; }
  const Status& GetStatus() const { return status_; }

  UnitManager& GetUnitManager() { return units_; }
  const UnitManager& GetUnitManager() const { return units_; }
  void SetUnitManager(const UnitManager& units) { units_ = units; }

  // Changes whenever the shape or the origin changes; windows made on the matrix compare it to
  // notice that they have gone stale.
  std::uint64_t GetGeneration() const { return generation_; }

 protected:
  static constexpr const char* kSource = "analysis\\core\\DataMatrix";

 private:
  bool AttachSection(std::unique_ptr<SharedMemorySection> section) {
    if (!section) return false;
    heap_.Release();
    capacity_ = 0;
    section_ = std::move(section);
    data_ = static_cast<T*>(section_->GetElements());
    rows_ = cols_ = -1;  // force the layout to be taken from the section
    if (UpdateSharedReferences()) return true;
    section_.reset();
    data_ = nullptr;
    return false;
  }

  // Whether `count` elements fit behind the section header (and can be counted in an int).
  bool FitsSection(std::int64_t count) const {
    return count >= 0 && count <= INT_MAX && static_cast<std::uint64_t>(count) <= MaxAllocSize() / sizeof(T);
  }

  void CopyFrom(const DataMatrix2D& other) {
    units_ = other.units_;
    if (!Resize(other.startRow_, other.startCol_, other.rows_, other.cols_)) return;
    std::copy(other.data_, other.data_ + other.GetCount(), data_);
  }

  void MoveFrom(DataMatrix2D& other) {
    heap_ = std::move(other.heap_);
    section_ = std::move(other.section_);
    data_ = std::exchange(other.data_, nullptr);
    capacity_ = std::exchange(other.capacity_, 0);
    startRow_ = std::exchange(other.startRow_, 0);
    startCol_ = std::exchange(other.startCol_, 0);
    rows_ = std::exchange(other.rows_, 0);
    cols_ = std::exchange(other.cols_, 0);
    units_ = other.units_;
    status_ = other.status_;
    ++generation_;
    ++other.generation_;
  }

  AlignedBuffer heap_;
  std::unique_ptr<SharedMemorySection> section_;
  T* data_ = nullptr;
  std::int64_t capacity_ = 0;  // heap elements allocated
  int startRow_ = 0;
  int startCol_ = 0;
  int rows_ = 0;
  int cols_ = 0;
  std::uint64_t generation_ = 0;
  UnitManager units_;
  Status status_{__LINE__, kSource};
};

}  // namespace Quarn::Metrology::Analysis::Core

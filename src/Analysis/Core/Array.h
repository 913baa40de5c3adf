#pragma once

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "Analysis/Core/Status.h"

namespace Quarn::Metrology::Analysis::Core {

// Array<T>
//
// A growable one-dimensional array that reports allocation failure through its own `Status`
// (code 3, source "analysis\core\Array") instead of throwing. Growth goes in powers of two:
//
//   Array<int> a;        // capacity 0
//   a.Resize(5);         // capacity 8, size 5
//   a.Resize(8);         // capacity 8 (storage kept)
//   a.Resize(9);         // capacity 16, the first 8 elements copied
//   a.Resize(0);         // storage released and replaced by 4 fresh elements, size 0
//
// Elements beyond the size but within the capacity are default-constructed. Copies are deep.
template <typename T>
class Array {
 public:
  Array() = default;
  explicit Array(int initialCapacity) { Reserve(initialCapacity); }

  Array(const Array& other) { CopyFrom(other); }
  Array& operator=(const Array& other) {
    if (this != &other) CopyFrom(other);
    return *this;
  }
  Array(Array&& other) noexcept
      : data_(std::move(other.data_)),
        size_(other.size_),
        capacity_(other.capacity_),
        status_(other.status_) {
    other.size_ = 0;
    other.capacity_ = 0;
  }
  Array& operator=(Array&& other) noexcept {
    data_ = std::move(other.data_);
    size_ = other.size_;
    capacity_ = other.capacity_;
    status_ = other.status_;
    other.size_ = 0;
    other.capacity_ = 0;
    return *this;
  }
  virtual ~Array() = default;

  int Size() const { return size_; }
  int Capacity() const { return capacity_; }
  bool IsEmpty() const { return size_ == 0; }

  T* Data() { return data_.get(); }
  const T* Data() const { return data_.get(); }
  T* begin() { return data_.get(); }
  T* end() { return data_.get() + size_; }
  const T* begin() const { return data_.get(); }
  const T* end() const { return data_.get() + size_; }

  T& At(int i) { return data_[i]; }
  const T& At(int i) const { return data_[i]; }
  T& operator[](int i) { return data_[i]; }
  const T& operator[](int i) const { return data_[i]; }

  Status& GetStatus() { return status_; }
  const Status& GetStatus() const { return status_; }

  // Sets the size; see the class comment for the growth rule. Returns false on allocation failure.
  bool Resize(int n) { return ResizeImpl(n, true); }

  // As Resize, but a reallocation does not keep the old elements.
  bool ResizeNoCopy(int n) { return ResizeImpl(n, false); }

  // Makes room for at least n elements without changing the size (exactly n when it grows).
  bool Reserve(int n) {
    if (n <= capacity_) return true;
    if (n > kMaxCapacity) {
      status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "");
      return false;
    }
    return Reallocate(n, size_, true);
  }

  // Empties the array (by `Resize(0)`); false when the fresh storage could not be allocated.
  bool Clear() { return Resize(0); }

  // The elements may be elements of this array (`a.Add(a[0])`): they are copied before the storage
  // can move or the tail shift.
  bool Add(const T& x) { return AppendCopies(x); }
  bool Add(const T& a, const T& b) { return AppendCopies(a, b); }
  bool Add(const T& a, const T& b, const T& c) { return AppendCopies(a, b, c); }
  bool Add(const T& a, const T& b, const T& c, const T& d) { return AppendCopies(a, b, c, d); }
  bool Add(const T& a, const T& b, const T& c, const T& d, const T& e) { return AppendCopies(a, b, c, d, e); }

  // Inserts x before index (0 <= index <= size), shifting the tail up by one.
  bool Insert(int index, const T& x) {
    if (index < 0 || index > size_) {
      status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource, "Insert index out of range");
      return false;
    }
    T copy(x);
    if (!Resize(size_ + 1)) return false;
    std::move_backward(data_.get() + index, data_.get() + size_ - 1, data_.get() + size_);
    data_[index] = std::move(copy);
    return true;
  }

  // Removes the element at index, shifting the tail down by one.
  bool Erase(int index) {
    if (index < 0 || index >= size_) {
      status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource, "Erase index out of range");
      return false;
    }
    std::move(data_.get() + index + 1, data_.get() + size_, data_.get() + index);
    --size_;
    return true;
  }

 private:
  static constexpr const char* kSource = "analysis\\core\\Array";
  static constexpr int kMaxCapacity = 1 << 30;  // the largest power of two an int can count

  // Parameters taken by value: every copy is made before the first growth can free the storage.
  template <typename... Copies>
  bool AppendCopies(Copies... copies) {
    return (AppendOwned(std::move(copies)) && ...);
  }
  bool AppendOwned(T&& x) {
    if (!Resize(size_ + 1)) return false;
    data_[size_ - 1] = std::move(x);
    return true;
  }

  bool ResizeImpl(int n, bool keep) {
    if (n == 0) {
      data_.reset();
      capacity_ = 0;
      size_ = 0;
      return Reallocate(4, 0, false);
    }
    if (n < 0) {
      size_ = 0;
      return true;
    }
    if (n > capacity_) {
      if (n > kMaxCapacity) {
        status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "");
        return false;
      }
      int capacity = 2;
      while (capacity < n)
        capacity *= 2;
      if (!Reallocate(capacity, keep ? std::min(size_, n) : 0, keep)) return false;
    }
    size_ = n;
    return true;
  }

  bool Reallocate(int capacity, int keepCount, bool keep) {
    std::unique_ptr<T[]> fresh(new (std::nothrow) T[static_cast<std::size_t>(capacity)]);
    if (!fresh) {
      status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "");
      return false;
    }
    if (keep) std::copy(data_.get(), data_.get() + keepCount, fresh.get());
    data_ = std::move(fresh);
    capacity_ = capacity;
    return true;
  }

  void CopyFrom(const Array& other) {
    status_ = other.status_;
    data_.reset();
    size_ = 0;
    capacity_ = 0;
    if (other.capacity_ > 0 && Reallocate(other.capacity_, 0, false)) {
      std::copy(other.begin(), other.end(), data_.get());
      size_ = other.size_;
    }
  }

  std::unique_ptr<T[]> data_;
  int size_ = 0;
  int capacity_ = 0;
  Status status_{__LINE__, kSource};
};

}  // namespace Quarn::Metrology::Analysis::Core

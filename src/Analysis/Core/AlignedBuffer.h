#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace Quarn::Metrology::Analysis::Core {

// AlignedBuffer
//
// Zero-filled bytes on a 64-byte boundary (a cache line and an AVX-512 register), owned. Used for
// frame storage, matrix storage and per-thread scratch, where two threads must never share a cache
// line and vector loads want aligned rows. An allocation failure leaves the buffer empty (`Data()`
// null).
//
// Large buffers (camera stacks, full-frame maps) are mapped straight from the kernel on a 2 MiB
// boundary and marked for transparent huge pages: the kernel hands them out already zero, so
// nothing is cleared twice, and a 50 MB stack costs tens of page faults instead of thousands. Such
// memory is taken from the kernel page by page as it is first written, and `Discard` gives pages
// back before the buffer goes, so a buffer read once from front to back need not stay resident.
//
// `AllocateUninitialized` skips the clearing of a small (heap) buffer, for storage whose every
// byte is written before it is read (a result map filled row by row).
class AlignedBuffer {
 public:
  static constexpr std::size_t kAlignment = 64;
  static constexpr std::size_t kHugePage = std::size_t{2} << 20;
  static constexpr std::size_t kMapThreshold = std::size_t{4} << 20;

  AlignedBuffer() = default;
  explicit AlignedBuffer(std::size_t bytes) { Allocate(bytes); }
  AlignedBuffer(const AlignedBuffer&) = delete;
  AlignedBuffer& operator=(const AlignedBuffer&) = delete;
  AlignedBuffer(AlignedBuffer&& other) noexcept { Swap(other); }
  AlignedBuffer& operator=(AlignedBuffer&& other) noexcept {
    if (this != &other) {
      Release();
      Swap(other);
    }
    return *this;
  }
  ~AlignedBuffer() { Release(); }

  // Replaces the contents by `bytes` zero bytes; false when the allocation failed.
  bool Allocate(std::size_t bytes) { return AllocateBytes(bytes, true); }

  // Replaces the contents by `bytes` bytes of unspecified value (zero when they come from the
  // kernel); false when the allocation failed.
  bool AllocateUninitialized(std::size_t bytes) { return AllocateBytes(bytes, false); }

  // Gives the whole pages inside [offset, offset + bytes) of a mapped buffer back to the kernel: they
  // stop counting towards the process's memory and read as zero when next touched. A heap buffer
  // keeps its pages (and contents). The range is clipped to the buffer.
  void Discard(std::size_t offset, std::size_t bytes) {
    if (!mapping_ || offset >= size_) return;
    const std::size_t end = std::min(size_, offset + std::min(bytes, size_ - offset));
    const auto base = reinterpret_cast<std::uintptr_t>(data_);
    const std::size_t page = PageSize();
    const std::uintptr_t first = (base + offset + page - 1) / page * page;
    const std::uintptr_t last = (base + end) / page * page;
    if (last > first) madvise(reinterpret_cast<void*>(first), last - first, MADV_DONTNEED);
  }

  void Release() {
    if (mapping_) {
      munmap(mapping_, mappingSize_);
    } else {
      std::free(data_);
    }
    data_ = nullptr;
    mapping_ = nullptr;
    size_ = mappingSize_ = 0;
  }

  void Zero() {
    if (data_) std::memset(data_, 0, size_);
  }

  std::byte* Data() const { return data_; }
  std::size_t Size() const { return size_; }

  static constexpr std::size_t RoundUp(std::size_t bytes) {
    return (bytes + kAlignment - 1) / kAlignment * kAlignment;
  }

 private:
  bool Map(std::size_t rounded, std::size_t bytes) {
    // Over-map by one huge page so that the start can be moved to a 2 MiB boundary.
    const std::size_t length = (rounded + kHugePage - 1) / kHugePage * kHugePage + kHugePage;
    void* raw = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) return false;
    const auto address = reinterpret_cast<std::uintptr_t>(raw);
    const std::uintptr_t aligned = (address + kHugePage - 1) / kHugePage * kHugePage;
    madvise(reinterpret_cast<void*>(aligned), length - (aligned - address), MADV_HUGEPAGE);
    mapping_ = raw;
    mappingSize_ = length;
    data_ = reinterpret_cast<std::byte*>(aligned);
    size_ = bytes;
    return true;
  }

  bool AllocateBytes(std::size_t bytes, bool zero) {
    Release();
    if (bytes == 0) return true;
    const std::size_t rounded = RoundUp(bytes);
    if (rounded >= kMapThreshold) return Map(rounded, bytes);
    data_ = static_cast<std::byte*>(std::aligned_alloc(kAlignment, rounded));
    if (!data_) return false;
    if (zero) std::memset(data_, 0, rounded);
    size_ = bytes;
    return true;
  }

  static std::size_t PageSize() {
    static const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return page;
  }

  void Swap(AlignedBuffer& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(mapping_, other.mapping_);
    std::swap(mappingSize_, other.mappingSize_);
  }

  std::byte* data_ = nullptr;
  std::size_t size_ = 0;
  void* mapping_ = nullptr;  // set when the bytes come from mmap
  std::size_t mappingSize_ = 0;
};

}  // namespace Quarn::Metrology::Analysis::Core

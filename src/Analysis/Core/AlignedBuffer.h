#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace Quarn::Metrology::Analysis::Core {

// AlignedBuffer
//
// Uninitialised bytes on a 64-byte boundary (a cache line and an AVX-512 register), owned. Used for
// frame storage and per-thread scratch, where two threads must never share a cache line and vector
// loads want aligned rows. An allocation failure leaves the buffer empty (`Data()` null).
class AlignedBuffer {
 public:
  static constexpr std::size_t kAlignment = 64;

  AlignedBuffer() = default;
  explicit AlignedBuffer(std::size_t bytes) { Allocate(bytes); }

  // Replaces the contents by `bytes` fresh bytes; false when the allocation failed.
  bool Allocate(std::size_t bytes) {
    memory_.reset();
    size_ = 0;
    if (bytes == 0) return true;
    const std::size_t rounded = RoundUp(bytes);
    memory_.reset(static_cast<std::byte*>(std::aligned_alloc(kAlignment, rounded)));
    if (!memory_) return false;
    size_ = bytes;
    return true;
  }
  void Release() {
    memory_.reset();
    size_ = 0;
  }
  void Zero() {
    if (memory_) std::memset(memory_.get(), 0, size_);
  }

  std::byte* Data() const { return memory_.get(); }
  std::size_t Size() const { return size_; }

  static constexpr std::size_t RoundUp(std::size_t bytes) { return (bytes + kAlignment - 1) / kAlignment * kAlignment; }

 private:
  struct FreeDeleter {
    void operator()(std::byte* p) const { std::free(p); }
  };
  std::unique_ptr<std::byte, FreeDeleter> memory_;
  std::size_t size_ = 0;
};

}  // namespace Quarn::Metrology::Analysis::Core

#include "Testing/FailingAllocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<int> gNothrowAllocationsBeforeFailure{0};

void* NothrowAllocate(std::size_t bytes) noexcept {
  const int left = gNothrowAllocationsBeforeFailure.load();
  if (left > 0 && gNothrowAllocationsBeforeFailure.fetch_sub(1) == 1) return nullptr;
  return std::malloc(bytes ? bytes : 1);
}

void* Allocate(std::size_t bytes) {
  if (void* p = std::malloc(bytes ? bytes : 1)) return p;
  throw std::bad_alloc();
}

// Out of line, so that the compiler does not pair a `new` with a visible `free` and warn.
[[gnu::noinline]] void Release(void* p) noexcept {
  std::free(p);
}

}  // namespace

namespace Quarn::Testing {

int FailNthNothrowAllocation(int n) {
  return gNothrowAllocationsBeforeFailure.exchange(n);
}

}  // namespace Quarn::Testing

void* operator new(std::size_t bytes) {
  return Allocate(bytes);
}
void* operator new[](std::size_t bytes) {
  return Allocate(bytes);
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
  return NothrowAllocate(bytes);
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
  return NothrowAllocate(bytes);
}
void operator delete(void* p) noexcept {
  Release(p);
}
void operator delete[](void* p) noexcept {
  Release(p);
}
void operator delete(void* p, std::size_t) noexcept {
  Release(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  Release(p);
}

#pragma once

#include <memory>
#include <new>
#include <utility>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef::detail {

// The parts of a library definition are shared between shallow copies, so they live in shared
// pointers; they are made with the non-throwing allocator so that a failure becomes a status
// record (code 3) instead of an exception. Null when memory ran out.
template <typename T, typename... Args>
std::shared_ptr<T> NewShared(Args&&... args) noexcept {
  T* raw = new (std::nothrow) T(std::forward<Args>(args)...);
  if (raw == nullptr) return nullptr;
  try {
    return std::shared_ptr<T>(raw);  // deletes raw itself when the control block cannot be made
  } catch (...) {
    return nullptr;
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef::detail

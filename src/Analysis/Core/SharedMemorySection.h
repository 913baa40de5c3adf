#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Analysis/Core/QuarnCoreExport.h"
#include "Analysis/Core/Status.h"

namespace Quarn::Metrology::Analysis::Core {

// SharedMatrixLayout
//
// The shape of the matrix kept in a section's header, so that every mapping of the section agrees
// on it (another process may re-lay the matrix out in place).
struct SharedMatrixLayout {
  int startRow = 0;
  int startCol = 0;
  int rows = 0;
  int cols = 0;
};

// SharedMemorySection
//
// A named POSIX shared-memory section (shm_open + mmap) holding one matrix: a fixed header with the
// element size, the current layout and a process-shared lock, followed by the elements. Two
// mappings of the same name, in one process or in two, see the same bytes.
//
// Names are free text; they are mapped to the POSIX name "/quarn.<name>" with '/' replaced by '_'.
// The mapping that created a section removes the name when it is destroyed (existing mappings stay
// valid, as with a Windows section whose creator closed its handle); mappings that only opened it
// leave the name alone.
class QUARN_CORE_EXPORT SharedMemorySection {
 public:
  // Bytes reserved in front of the elements; the elements start 64-byte aligned.
  static constexpr std::size_t kHeaderSize = 256;

  // Creates the section with `capacityBytes` in all (header included), or opens it when a section
  // of that name exists already (its own capacity then applies). The pages are reserved at once,
  // so a capacity that shared memory cannot back fails here (code 3) rather than at a later write.
  // Returns null and fills `status` on failure.
  static std::unique_ptr<SharedMemorySection> CreateOrOpen(const std::string& name, std::size_t capacityBytes,
                                                           std::size_t elementSize, Status& status);
  // Opens an existing section; fails (code 6) when there is none of that name or when it holds
  // elements of another size (code 20).
  static std::unique_ptr<SharedMemorySection> Open(const std::string& name, std::size_t elementSize,
                                                   Status& status);

  SharedMemorySection(const SharedMemorySection&) = delete;
  SharedMemorySection& operator=(const SharedMemorySection&) = delete;
  ~SharedMemorySection();

  const std::string& GetName() const { return name_; }
  bool IsCreator() const { return creator_; }
  std::size_t GetCapacity() const { return capacity_; }
  void* GetElements() const { return static_cast<std::byte*>(base_) + kHeaderSize; }

  SharedMatrixLayout ReadLayout() const;
  void WriteLayout(const SharedMatrixLayout& layout);

  void Lock();
  void Unlock();

 private:
  SharedMemorySection(std::string name, void* base, std::size_t capacity, bool creator)
      : name_(std::move(name)), base_(base), capacity_(capacity), creator_(creator) {}

  std::string name_;
  void* base_ = nullptr;
  std::size_t capacity_ = 0;
  bool creator_ = false;
};

}  // namespace Quarn::Metrology::Analysis::Core

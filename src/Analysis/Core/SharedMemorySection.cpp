#include "Analysis/Core/SharedMemorySection.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>

namespace Quarn::Metrology::Analysis::Core {

namespace {

constexpr const char* kSource = "analysis\\core\\SharedMemorySection";
constexpr std::uint64_t kMagic = 0x5155415253484d31ull;  // "QUARSHM1"

// Lives at the start of the section. `ready` is set by the creator once the lock is usable, so a
// second process that opens the section while it is being created waits for it.
struct SectionHeader {
  std::uint64_t magic;
  std::uint64_t elementSize;
  SharedMatrixLayout layout;
  pthread_mutex_t lock;
  std::atomic<std::uint32_t> ready;
};
static_assert(sizeof(SectionHeader) <= SharedMemorySection::kHeaderSize);

std::string PosixName(const std::string& name) {
  std::string posix = "/quarn.";
  for (const char c : name)
    posix += (c == '/' ? '_' : c);
  return posix;
}

Status Failure(unsigned code, unsigned line, const std::string& message) {
  return Status(0, code, line, kSource, message);
}

SectionHeader* HeaderOf(void* base) {
  return static_cast<SectionHeader*>(base);
}

}  // namespace

std::unique_ptr<SharedMemorySection> SharedMemorySection::CreateOrOpen(const std::string& name,
                                                                       std::size_t capacityBytes,
                                                                       std::size_t elementSize,
                                                                       Status& status) {
  if (capacityBytes < kHeaderSize) {
    status = Failure(StatusCode::kSectionTooSmall, __LINE__, "");
    return nullptr;
  }
  const std::string posix = PosixName(name);
  const int fd = shm_open(posix.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  if (fd < 0) {
    if (errno == EEXIST) return Open(name, elementSize, status);
    status = Failure(StatusCode::kCallFailed, __LINE__,
                     "Call to shm_open failed: " + std::string(strerror(errno)));
    return nullptr;
  }
  // ftruncate alone only sets the size: the pages are found missing at the first write, which then
  // dies with SIGBUS when /dev/shm is full. Reserving them now turns that into a status.
  const int reserved = posix_fallocate(fd, 0, static_cast<off_t>(capacityBytes));
  if (reserved != 0) {
    status = Failure(
        reserved == ENOSPC || reserved == EFBIG ? StatusCode::kAllocationFailed : StatusCode::kCallFailed,
        __LINE__, "Call to posix_fallocate failed: " + std::string(strerror(reserved)));
    close(fd);
    shm_unlink(posix.c_str());
    return nullptr;
  }
  void* base = mmap(nullptr, capacityBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (base == MAP_FAILED) {
    status =
        Failure(StatusCode::kCallFailed, __LINE__, "Call to mmap failed: " + std::string(strerror(errno)));
    shm_unlink(posix.c_str());
    return nullptr;
  }
  SectionHeader* header = new (base) SectionHeader{};
  header->magic = kMagic;
  header->elementSize = elementSize;
  header->layout = SharedMatrixLayout{};
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&header->lock, &attributes);
  pthread_mutexattr_destroy(&attributes);
  header->ready.store(1, std::memory_order_release);
  return std::unique_ptr<SharedMemorySection>(new SharedMemorySection(name, base, capacityBytes, true));
}

std::unique_ptr<SharedMemorySection> SharedMemorySection::Open(const std::string& name,
                                                               std::size_t elementSize, Status& status) {
  const std::string posix = PosixName(name);
  const int fd = shm_open(posix.c_str(), O_RDWR, 0600);
  if (fd < 0) {
    status = Failure(StatusCode::kCallFailed, __LINE__,
                     "Call to shm_open failed for section '" + name + "': " + strerror(errno));
    return nullptr;
  }
  struct stat info {};
  if (fstat(fd, &info) != 0 || static_cast<std::size_t>(info.st_size) < kHeaderSize) {
    status = Failure(StatusCode::kSectionTooSmall, __LINE__, "");
    close(fd);
    return nullptr;
  }
  const auto capacity = static_cast<std::size_t>(info.st_size);
  void* base = mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (base == MAP_FAILED) {
    status =
        Failure(StatusCode::kCallFailed, __LINE__, "Call to mmap failed: " + std::string(strerror(errno)));
    return nullptr;
  }
  SectionHeader* header = HeaderOf(base);
  // The creator may still be initialising the header in another process.
  for (int spin = 0; spin < 1000000 && header->ready.load(std::memory_order_acquire) == 0; ++spin) {
    sched_yield();
  }
  if (header->magic != kMagic || header->elementSize != elementSize) {
    munmap(base, capacity);
    status = Failure(
        StatusCode::kArgumentOutOfRange, __LINE__,
        "Shared section '" + name + "' does not hold elements of " + std::to_string(elementSize) + " bytes");
    return nullptr;
  }
  return std::unique_ptr<SharedMemorySection>(new SharedMemorySection(name, base, capacity, false));
}

SharedMemorySection::~SharedMemorySection() {
  if (base_) munmap(base_, capacity_);
  if (creator_) shm_unlink(PosixName(name_).c_str());
}

SharedMatrixLayout SharedMemorySection::ReadLayout() const {
  return HeaderOf(base_)->layout;
}

void SharedMemorySection::WriteLayout(const SharedMatrixLayout& layout) {
  HeaderOf(base_)->layout = layout;
}

void SharedMemorySection::Lock() {
  // A holder that died with the lock leaves it "owner dead"; the data are still usable, so the
  // lock is made consistent and taken.
  if (pthread_mutex_lock(&HeaderOf(base_)->lock) == EOWNERDEAD) {
    pthread_mutex_consistent(&HeaderOf(base_)->lock);
  }
}

void SharedMemorySection::Unlock() {
  pthread_mutex_unlock(&HeaderOf(base_)->lock);
}

}  // namespace Quarn::Metrology::Analysis::Core

#include "Analysis/Core/AlignedBuffer.h"

#include <unistd.h>

#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

namespace Quarn::Metrology::Analysis::Core {
namespace {

// Discard gives back only the whole pages inside the range, so bytes that share a page with the
// range's ends, and everything outside it, keep their values; a heap buffer keeps everything. A
// rounding outwards would clear a neighbour's data (another thread's rows), one inwards too far
// would leave memory resident, which shows here as a page that still holds its old bytes.
TEST(AlignedBufferTest, DiscardClearsTheWholePagesInsideTheRangeOnly) {
  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  struct Range {
    std::size_t offset, bytes;
  };
  const Range ranges[] = {
      {0, 3 * page},             // from the start, whole pages
      {page / 2, 2 * page},      // ragged at both ends: one whole page inside
      {5 * page + 1, page - 2},  // inside one page: nothing
      {AlignedBuffer::kHugePage - 7 * page, 3 * AlignedBuffer::kHugePage},  // across huge pages
      {AlignedBuffer::kMapThreshold - page, 10 * page},                     // clipped at the end
  };
  for (const Range& range : ranges) {
    SCOPED_TRACE(::testing::Message() << "offset " << range.offset << ", " << range.bytes << " bytes");
    AlignedBuffer mapped;
    ASSERT_TRUE(mapped.AllocateUninitialized(AlignedBuffer::kMapThreshold));
    std::memset(mapped.Data(), 0xAB, mapped.Size());
    mapped.Discard(range.offset, range.bytes);
    const std::size_t firstPage = (range.offset + page - 1) / page * page;
    const std::size_t endPage = std::min(range.offset + range.bytes, mapped.Size()) / page * page;
    for (std::size_t i = 0; i < mapped.Size(); i += 61) {
      const bool cleared = i >= firstPage && i < endPage;
      ASSERT_EQ(static_cast<int>(mapped.Data()[i]), cleared ? 0 : 0xAB) << "byte " << i;
    }
  }
  AlignedBuffer heap(64 * 1024);
  std::memset(heap.Data(), 0xAB, heap.Size());
  heap.Discard(0, heap.Size());
  for (std::size_t i = 0; i < heap.Size(); ++i)
    ASSERT_EQ(static_cast<int>(heap.Data()[i]), 0xAB) << "byte " << i;
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

#include "Analysis/Core/SampleDispatch.h"

#include <cstdint>
#include <numeric>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

namespace Quarn::Metrology::Analysis::Core {
namespace {

class SampleDispatchTest : public ::testing::TestWithParam<FrameBuffer::ElementRes> {};

// The dispatched type must be the stored one: the frame read through it gives back the samples
// stored, and the body's result comes back through the dispatch.
TEST_P(SampleDispatchTest, BodySeesTheStoredTypeAndItsResultIsReturned) {
  const FrameBuffer::ElementRes res = GetParam();
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 2, 3), 1, res));
  const std::vector<std::int32_t> image = {1, 20, 3, 40, 5, 250};
  ASSERT_TRUE(frames.StoreFrame(0, image.data()));

  const long sum = DispatchSampleType(frames, [&]<typename Stored>(SampleTag<Stored>) {
    EXPECT_EQ(static_cast<int>(sizeof(Stored)), frames.GetBytesPerSample());
    const Stored* slot = frames.GetFrame<Stored>(0);
    EXPECT_NE(slot, nullptr) << "GetFrame refuses any type but the stored one";
    return slot ? std::accumulate(slot, slot + frames.GetPixelCount(), 0L) : -1L;
  });
  EXPECT_EQ(sum, std::accumulate(image.begin(), image.end(), 0L));
}

INSTANTIATE_TEST_SUITE_P(AllWidths, SampleDispatchTest,
                         ::testing::Values(FrameBuffer::kRes8Bit, FrameBuffer::kRes16Bit,
                                           FrameBuffer::kRes32Bit));

TEST(SampleDispatchTest, UnknownWidthIsReadAsThirtyTwoBit) {
  const bool wide = DispatchSampleType(
      static_cast<FrameBuffer::ElementRes>(3),
      []<typename Stored>(SampleTag<Stored>) { return std::is_same_v<Stored, std::int32_t>; });
  EXPECT_TRUE(wide);
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

#include "Analysis/Core/FrameBuffer.h"

#include <cstdint>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

namespace Quarn::Metrology::Analysis::Core {
namespace {

// A 3 x 4 window whose frame f holds 100 f + pixel at each pixel.
FrameBuffer MakeNumberedStack(FrameBuffer::ElementRes res, int scanned, int stored = 0) {
  FrameBuffer frames;
  EXPECT_TRUE(frames.Allocate(Window2D(5, 6, 3, 4), scanned, res, stored))
      << frames.GetStatus().GetPrintString();
  for (int f = 0; f < scanned; ++f) {
    std::vector<std::int32_t> image(12);
    for (int p = 0; p < 12; ++p)
      image[p] = (res == FrameBuffer::kRes8Bit ? 10 : 100) * f + p;
    EXPECT_TRUE(frames.StoreFrame(f, image.data())) << frames.GetStatus().GetPrintString();
  }
  return frames;
}

class FrameBufferWidthTest : public ::testing::TestWithParam<FrameBuffer::ElementRes> {};

TEST_P(FrameBufferWidthTest, ExtractIndexGathersOnePixelAcrossFrames) {
  const FrameBuffer::ElementRes res = GetParam();
  FrameBuffer frames = MakeNumberedStack(res, 7);
  const int step = res == FrameBuffer::kRes8Bit ? 10 : 100;
  ASSERT_TRUE(frames.MakeThreadData(3).IsOk());
  const int* a = frames.ExtractIndex<int>(0, 5);
  const double* b = frames.ExtractIndex<double>(2, 11);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  for (int f = 0; f < 7; ++f) {
    EXPECT_EQ(a[f], step * f + 5) << "frame " << f;
    EXPECT_EQ(b[f], step * f + 11) << "frame " << f << ": thread 2 must not overwrite thread 0's scratch";
  }
  EXPECT_EQ(frames.GetMaxValue(), FrameBuffer::DefaultMaxValue(res));
  if (res == FrameBuffer::kRes8Bit) {
    EXPECT_EQ(frames.ExtractIndex<unsigned char>(1, 3)[6], 63);
  } else {
    EXPECT_EQ(frames.ExtractIndex<unsigned char>(1, 3), nullptr) << "bytes cannot hold wider samples";
  }
}

INSTANTIATE_TEST_SUITE_P(AllWidths, FrameBufferWidthTest,
                         ::testing::Values(FrameBuffer::kRes8Bit, FrameBuffer::kRes16Bit,
                                           FrameBuffer::kRes32Bit));

TEST(FrameBufferTest, RingKeepsTheLastFramesInSlotFrameModS) {
  FrameBuffer frames = MakeNumberedStack(FrameBuffer::kRes16Bit, 10, 4);
  EXPECT_TRUE(frames.IsRing());
  const int* s = frames.ExtractIndex<int>(0, 2);
  // Frames 6..9 are the last four; frame f sits in slot f mod 4.
  EXPECT_EQ(std::vector<int>(s, s + 4), (std::vector<int>{802, 902, 602, 702}));
}

TEST(FrameBufferTest, StoreFrameHonoursRowStrideAndRejectsOverflow) {
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 2, 3), 1, FrameBuffer::kRes8Bit));
  const std::uint16_t padded[] = {1, 2, 3, 999, 4, 5, 6, 999};
  ASSERT_TRUE(frames.StoreFrame(0, padded, 4));
  const std::uint8_t* slot = frames.GetFrame<std::uint8_t>(0);
  ASSERT_NE(slot, nullptr);
  EXPECT_EQ(slot[3], 4);
  EXPECT_EQ(frames.GetFrame<std::uint16_t>(0), nullptr);

  const std::uint16_t tooBright[] = {1, 2, 300, 4, 5, 6};
  EXPECT_FALSE(frames.StoreFrame(0, tooBright));
  EXPECT_EQ(frames.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_FALSE(frames.StoreFrame(1, padded)) << "frame index beyond the frames scanned";
  EXPECT_FALSE(frames.StoreFrame(0, static_cast<const std::uint8_t*>(nullptr)));
}

TEST(FrameBufferTest, BadAllocationsAreStatusesNotCrashes) {
  FrameBuffer frames;
  EXPECT_FALSE(frames.Allocate(Window2D(0, 0, -3, 4), 7, FrameBuffer::kRes8Bit));
  EXPECT_EQ(frames.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_FALSE(frames.Allocate(Window2D(0, 0, 3, 4), 0, FrameBuffer::kRes8Bit));
  EXPECT_FALSE(frames.Allocate(Window2D(0, 0, 3, 4), 4, FrameBuffer::kRes8Bit, 8)) << "stored > scanned";
  EXPECT_EQ(frames.GetPixelCount(), 0);
  EXPECT_FALSE(frames.MakeThreadData(0).IsOk());
  EXPECT_EQ(frames.GetFrameData(0), nullptr);
}

TEST(FrameBufferTest, AdoptedFramesAreReadInPlaceInAnySlotOrder) {
  // Three 2 x 2 frames of 16-bit samples in host memory, lent in reverse order.
  auto host = std::make_shared<std::vector<std::uint16_t>>(
      std::vector<std::uint16_t>{100, 101, 102, 103, 200, 201, 202, 203, 300, 301, 302, 303});
  std::vector<std::byte*> slots = {reinterpret_cast<std::byte*>(host->data() + 8),
                                   reinterpret_cast<std::byte*>(host->data() + 4),
                                   reinterpret_cast<std::byte*>(host->data())};
  FrameBuffer frames;
  ASSERT_TRUE(frames.AdoptFrames(Window2D(0, 0, 2, 2), 3, FrameBuffer::kRes16Bit, slots, host));
  EXPECT_FALSE(frames.OwnsFrames());
  const int* s = frames.ExtractIndex<int>(0, 3);
  EXPECT_EQ(s[0], 303);
  EXPECT_EQ(s[2], 103);
  (*host)[5] = 999;  // no copy was made
  EXPECT_EQ(frames.ExtractIndex<int>(0, 1)[1], 999);
  const std::weak_ptr<std::vector<std::uint16_t>> watch = host;
  host.reset();
  EXPECT_FALSE(watch.expired()) << "the buffer keeps the host memory alive";
  frames.Release();
  EXPECT_TRUE(watch.expired());

  auto bytes = std::make_shared<std::vector<std::byte>>(64);
  FrameBuffer misaligned;
  EXPECT_FALSE(
      misaligned.AdoptFrames(Window2D(0, 0, 2, 2), 1, FrameBuffer::kRes16Bit, {bytes->data() + 1}, bytes));
  EXPECT_EQ(misaligned.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);
  EXPECT_FALSE(misaligned.AdoptFrames(Window2D(0, 0, 2, 2), 1, FrameBuffer::kRes8Bit, {nullptr}, bytes));
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core

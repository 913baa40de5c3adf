// The block band transform, lane by lane, against the single-signal kernel it must repeat.
#include "Swli/detail/BlockBands.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {
namespace {

struct BlockCase {
  int size, first, last;
  bool wide, reversed;
  bool oneStart;  // every wanted lane's window starts at the same frame
};

void PrintTo(const BlockCase& c, std::ostream* os) {
  *os << c.size << " samples, bins " << c.first << ".." << c.last << (c.wide ? ", 16-bit" : ", 8-bit")
      << (c.reversed ? ", reversed" : "") << (c.oneStart ? ", one start" : ", scattered starts");
}

class BlockBandsTest : public ::testing::TestWithParam<BlockCase> {};

// Each lane's window cut from the block's frames by hand and handed to BandBins as the loaders hand a
// signal: its bins must be those of the lane bit for bit (the same exact folds, the same products and
// sums in the same order), for every implementation this processor runs against the single-signal
// kernel of the same arithmetic (fused multiply-adds in both or in neither). Samples are random over
// the whole range, so the sums and the offset taken below the mean reach their largest. Lanes not
// wanted are scattered through the block, a whole vector of them must come out as zeros, and the
// intensity sums are checked against the integer window.
TEST_P(BlockBandsTest, EveryLaneGivesTheSingleSignalKernelsBinsBitForBit) {
  const BlockCase& c = GetParam();
  constexpr int kLanes = BlockBandsJob::kLanes;
  const int q = c.size, h = q / 2, bins = c.last - c.first + 1, rows = 2 * q;
  BandTransform t;
  ASSERT_TRUE(t.Plan(q, c.first, c.last));
  std::mt19937 random(7);
  const int top = c.wide ? 65535 : 255;
  std::vector<std::uint8_t> narrow(static_cast<std::size_t>(rows) * kLanes);
  std::vector<std::uint16_t> wide(narrow.size());
  for (std::size_t k = 0; k < narrow.size(); ++k) {
    const int sample = std::uniform_int_distribution<int>(0, top)(random);
    wide[k] = static_cast<std::uint16_t>(sample);
    narrow[k] = static_cast<std::uint8_t>(sample);
  }
  int offsets[kLanes];
  for (int i = 0; i < kLanes; ++i) {
    const bool unwanted = (i >= 8 && i < 16) || i % 13 == 5;
    offsets[i] = unwanted ? -1 : c.oneStart ? q / 3 : (i * 7) % (q + 1);
  }
  __builtin_cpu_init();
  const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
  struct Pair {
    const char* name;
    BlockBandsFunction block;
    BandBinsFunction single;
    bool runs;
  };
  const Pair pairs[] = {
      {"SSE2", &BlockBandsSse2, &BandBinsSse2, true},
      {"AVX2", &BlockBandsAvx2, &BandBinsAvx2, avx2},
      {"AVX-512", &BlockBandsAvx512, &BandBinsAvx2, avx2 && __builtin_cpu_supports("avx512f")}};
  for (const Pair& pair : pairs) {
    if (!pair.runs) continue;
    SCOPED_TRACE(pair.name);
    std::vector<double> re(2 * static_cast<std::size_t>(bins) * kBandLanes, -1.0), im(re.size(), -1.0);
    std::int32_t sums[kLanes] = {};
    BlockBandsJob job;
    job.frames = c.wide ? static_cast<const void*>(wide.data()) : narrow.data();
    job.wide = c.wide;
    job.reversed = c.reversed;
    job.offsets = offsets;
    job.re = re.data();
    job.im = im.data();
    job.intensity = sums;
    ASSERT_TRUE(pair.block(t, job));
    for (int i = 0; i < kLanes; ++i) {
      const auto at = [&](int b) {
        return static_cast<std::size_t>(((i / kBandLanes) * bins + b) * kBandLanes + i % kBandLanes);
      };
      if (offsets[i] < 0) {
        if (i >= 8 && i < 16) {
          EXPECT_EQ(re[at(0)], 0.0) << "lane " << i;
        }
        continue;
      }
      std::vector<double> x(static_cast<std::size_t>(q)), singleRe(static_cast<std::size_t>(bins)),
          singleIm(singleRe.size());
      for (int j = 0; j < q; ++j) {
        const std::size_t k =
            static_cast<std::size_t>((c.reversed ? offsets[i] + q - 1 - j : offsets[i] + j) * kLanes + i);
        x[static_cast<std::size_t>(j)] = c.wide ? wide[k] : narrow[k];
      }
      pair.single(t, x.data(), singleRe.data(), singleIm.data(), 1);
      for (int b = 0; b < bins; ++b) {
        EXPECT_EQ(std::bit_cast<std::uint64_t>(re[at(b)]),
                  std::bit_cast<std::uint64_t>(singleRe[static_cast<std::size_t>(b)]))
            << "lane " << i << ", bin " << c.first + b;
        EXPECT_EQ(std::bit_cast<std::uint64_t>(im[at(b)]),
                  std::bit_cast<std::uint64_t>(singleIm[static_cast<std::size_t>(b)]))
            << "lane " << i << ", bin " << c.first + b;
      }
      const auto s = [&](int j) { return static_cast<std::int32_t>(x[static_cast<std::size_t>(j)]); };
      EXPECT_EQ(sums[i],
                s(h - 4) + s(h - 3) + 3 * (s(h - 2) + s(h - 1) + s(h) + s(h + 1)) + s(h + 2) + s(h + 3))
          << "lane " << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Blocks, BlockBandsTest,
    ::testing::Values(BlockCase{64, 13, 21, false, false, false}, BlockCase{64, 13, 21, true, true, false},
                      BlockCase{64, 13, 21, false, true, true}, BlockCase{128, 26, 42, true, false, true},
                      BlockCase{128, 1, 64, false, true, false}, BlockCase{64, 0, 32, true, false, false},
                      BlockCase{64, 14, 14, false, false, false}));

// Sizes without a block kernel are declined untouched; a block without any wanted lane comes out as
// zeros (no window is read).
TEST(BlockBandsTest, DeclinesOtherSizesAndZeroesABlockWithoutWantedLanes) {
  BandTransform t;
  ASSERT_TRUE(t.Plan(32, 4, 9));
  BlockBandsJob job;
  EXPECT_FALSE(SelectBlockBands()(t, job));
  ASSERT_TRUE(t.Plan(64, 13, 21));
  int offsets[BlockBandsJob::kLanes];
  std::fill(std::begin(offsets), std::end(offsets), -1);
  std::vector<double> re(2 * 9 * kBandLanes, 1.0), im(re.size(), 1.0);
  job.offsets = offsets;
  job.re = re.data();
  job.im = im.data();
  ASSERT_TRUE(SelectBlockBands()(t, job));
  EXPECT_EQ(std::count(re.begin(), re.end(), 0.0) + std::count(im.begin(), im.end(), 0.0),
            2 * 2 * 9 * kBandLanes);
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail

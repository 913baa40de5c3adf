// The white-light phase generator: failures, the calls an algorithm sees, signal loading for every
// scan layout, the surface as input mask, threads and allocations.
#include "Swli/PhaseGenerator.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/DebugChannel.h"
#include "Analysis/Core/LinearConverter.h"
#include "Analysis/Core/NoData.h"
#include "Analysis/Core/UnitNumber.h"
#include "Swli/PhaseAlgorithmCentroid.h"
#include "Swli/PhaseAlgorithmFda.h"
#include "Swli/PhaseAlgorithmNone.h"
#include "Synthetic/SyntheticScan.h"

// Every allocation of the process is counted, so that a test can see how many a run makes.
namespace {
std::atomic<long> gAllocations{0};
// Out of line, so that the compiler does not pair a `new` with a visible `free` and warn.
[[gnu::noinline]] void Release(void* p) noexcept {
  std::free(p);
}
}  // namespace
void* operator new(std::size_t bytes) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(bytes ? bytes : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  Release(p);
}
void operator delete(void* p, std::size_t) noexcept {
  Release(p);
}

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {
namespace {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::FrameBuffer;
using Analysis::Core::IntMatrix2D;
using Analysis::Core::kNoDataInt;
using Analysis::Core::LinearConverter;
using Analysis::Core::Status;
using Analysis::Core::UnitNumber;
using Analysis::Core::Window2D;
using Testing::DiscriminatedScan;
namespace Units = Analysis::Core::Units;

// The text with the number in front of every " ms" replaced by '#', so that stage timings compare
// equal whatever the clock read.
std::string MillisecondsMasked(const std::string& text) {
  const auto isNumberChar = [](char c) {
    return (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '+' || c == 'e';
  };
  std::string masked;
  std::size_t from = 0;
  for (std::size_t at = text.find(" ms", from); at != std::string::npos; at = text.find(" ms", from)) {
    std::size_t start = at;
    while (start > from && isNumberChar(text[start - 1]))
      --start;
    masked.append(text, from, start - from);
    masked.append(start < at ? "#" : "");
    masked.append(" ms");
    from = at + 3;
  }
  masked.append(text, from, std::string::npos);
  return masked;
}

constexpr double kStepNm = 80.0;
constexpr int kFrames = 256;

UnitNumber Nanometres(double value) {
  return UnitNumber(value, LinearConverter(Units::kNanometers));
}

Testing::ScanSettings Settings(int rows = 16, int cols = 24, int scanned = kFrames, int stored = 0,
                               int direction = 1) {
  Testing::ScanSettings s;
  s.rows = rows;
  s.cols = cols;
  s.framesScanned = scanned;
  s.framesStored = stored;
  s.scanDirection = direction;
  s.noiseSigmaCounts = 1.5;
  return s;
}

DiscriminatedScan& MakeScan(DiscriminatedScan& scan, const Testing::ScanSettings& settings) {
  EXPECT_TRUE(Testing::MakeDiscriminatedScan(scan, settings, Testing::SphereWithStepNm, 11));
  return scan;
}

enum class Algorithm { kCentroid, kFda };

std::unique_ptr<PhaseAlgorithm> Make(Algorithm kind) {
  if (kind == Algorithm::kCentroid) return std::make_unique<PhaseAlgorithmCentroid>();
  return std::make_unique<PhaseAlgorithmFda>();
}

// Runs a generator over the whole window (surface all valid) and returns the surface; `threads` 0
// runs on the calling thread. `allocations`, when given, receives the allocations of a second run
// (the first makes the lazily created members).
DoubleMatrix2D Evaluate(PhaseAlgorithm& algorithm, DiscriminatedScan& scan, int threads = 0,
                        long* allocations = nullptr, bool fastPath = true) {
  algorithm.SetScanIncrement(Nanometres(kStepNm));
  PhaseGenerator generator(&algorithm);
  generator.SetUseFastPath(fastPath);
  generator.SetAllowMultiThreads(threads > 0);
  DoubleMatrix2D surface(scan.settings.rows, scan.settings.cols);
  for (int run = 0; run < (allocations ? 2 : 1); ++run) {
    surface.SetAll(0.0);
    generator.SetMaxNumThreads(threads);
    const long before = gAllocations.load();
    generator.Process(scan.frames, scan.peaks, scan.auxiliary, surface);
    if (allocations) *allocations = gAllocations.load() - before;
    EXPECT_TRUE(generator.GetStatus().IsOk()) << generator.GetStatus().GetPrintString();
  }
  return surface;
}

// Records what the generator hands an algorithm: the calls that frame a run, every pixel's signal and
// peak, and the pixels processed in debug mode.
class Probe : public PhaseAlgorithmNone {
 public:
  int skip = 1;
  int passes = 1;
  std::vector<std::string> calls;
  std::vector<std::vector<double>> signals;
  std::vector<int> peaksSeen;
  std::vector<int> traced;
  std::atomic<int> pixelsSeen{0};

  int GetSkipCount() const override { return skip; }
  int RequiredNumberOfPasses() const override { return passes; }
  int CalculateQSize(int frames, int size, FringeRemovalMethod method) override {
    calls.push_back("CalculateQSize(" + std::to_string(frames) + "," + std::to_string(size) + ")");
    return PhaseAlgorithmNone::CalculateQSize(frames, size, method);
  }
  void Initialize(int pass, int frames, int q, const Window2D& window) override {
    calls.push_back("Initialize(" + std::to_string(pass) + "," + std::to_string(frames) + "," +
                    std::to_string(q) + ")");
    PhaseAlgorithmNone::Initialize(pass, frames, q, window);
    signals.assign(static_cast<std::size_t>(window.GetCount()), {});
    peaksSeen.assign(static_cast<std::size_t>(window.GetCount()), -999);
  }
  void Reset() override {
    calls.push_back("Reset");
    PhaseAlgorithmNone::Reset();
  }
  int ProcessPixel(int thread, int pixel, int peak, int aux) override {
    ++pixelsSeen;
    signals[static_cast<std::size_t>(pixel)].assign(GetDataArray(thread),
                                                    GetDataArray(thread) + GetDataArraySize(thread));
    peaksSeen[static_cast<std::size_t>(pixel)] = peak;
    if (IsDebuging(thread)) traced.push_back(pixel);
    return PhaseAlgorithmNone::ProcessPixel(thread, pixel, peak, aux);
  }
};

// ---------------------------------------------------------------------------------------------
// Failures

// An algorithm that takes itself off the generator once the pixel loop is about to start: the
// workers then find no algorithm.
class DetachingAlgorithm : public PhaseAlgorithmNone {
 public:
  PhaseGenerator* generator = nullptr;
  void InitializeThread(int n) override {
    PhaseAlgorithmNone::InitializeThread(n);
    generator->SetAlgorithm(nullptr);
  }
};

// The trivial algorithm without an intensity and without need of peak frames.
class NoPeakFrames : public PhaseAlgorithmNone {
 public:
  NoPeakFrames() { SetRemoveFringes(FringeRemovalMethod::kNone); }
  bool NeedPeakFrame() const override { return false; }
};

struct FailureCase {
  std::string name;
  unsigned code;
  unsigned line;  // 0: any line
  std::string source;
  std::function<Status()> run;
};

void PrintTo(const FailureCase& c, std::ostream* os) {
  *os << c.name;
}

// Runs `algorithm` on a scan of `settings` with peak-frame, auxiliary and surface matrices of the
// given row counts (the scan has 8).
Status RunWith(PhaseAlgorithm* algorithm, const Testing::ScanSettings& settings, int peakRows = 8,
               int auxRows = 8, int surfaceRows = 8) {
  DiscriminatedScan scan;
  MakeScan(scan, settings);
  if (peakRows != 8) scan.peaks.Resize(0, 0, peakRows, settings.cols);
  if (auxRows != 8) scan.auxiliary.Resize(0, 0, auxRows, settings.cols);
  DoubleMatrix2D surface(surfaceRows, settings.cols);
  surface.SetAll(0.0);
  PhaseGenerator generator(algorithm);
  if (algorithm) algorithm->SetScanIncrement(Nanometres(kStepNm));
  if (auto* detaching = dynamic_cast<DetachingAlgorithm*>(algorithm)) detaching->generator = &generator;
  return generator.Process(scan.frames, scan.peaks, scan.auxiliary, surface);
}

Testing::ScanSettings Flat() {
  Testing::ScanSettings s = Settings(8, 8);
  s.modulationCounts = 0.0;
  return s;
}

class GeneratorFailureTest : public ::testing::TestWithParam<FailureCase> {};

TEST_P(GeneratorFailureTest, IsReportedWithItsCodeAndLine) {
  const FailureCase& c = GetParam();
  const Status status = c.run();
  EXPECT_EQ(status.GetCode(), c.code) << status.GetPrintString();
  if (c.code != 0) {
    EXPECT_EQ(status.GetFile(), c.source);
    EXPECT_TRUE(c.line == 0 || status.GetLine() == c.line) << status.GetPrintString();
  }
}

const char* const kGenerator = "Swli\\PhaseGenerator";
PhaseAlgorithmCentroid gCentroid;
PhaseAlgorithmFda gFda;
NoPeakFrames gNoPeakFrames;

INSTANTIATE_TEST_SUITE_P(
    Table, GeneratorFailureTest,
    ::testing::Values(
        FailureCase{"NoAlgorithm", 21, 276, kGenerator, [] { return RunWith(nullptr, Settings(8, 8)); }},
        // The centroid needs the discriminator; a ring of 32 frames cannot hold its 64-sample signal.
        FailureCase{"RingShorterThanTheSignal", 21, 301, kGenerator,
                    [] { return RunWith(&gCentroid, Settings(8, 8, kFrames, 32)); }},
        // Without the discriminator the signal is 64 samples of a 32-frame scan; with it, the 64-frame
        // window cannot be cut from 32 frames either.
        FailureCase{"FewerFramesThanTheSignalNoDiscriminator", 21, 319, kGenerator,
                    [] { return RunWith(&gNoPeakFrames, Settings(8, 8, 32)); }},
        FailureCase{"FewerFramesThanTheSignalWithDiscriminator", 21, 319, kGenerator,
                    [] { return RunWith(&gCentroid, Settings(8, 8, 32)); }},
        // A ring that is not one signal long cannot be unrolled into the signal buffer.
        FailureCase{"RingOfTheWrongLengthNoDiscriminator", 21, 0, kGenerator,
                    [] { return RunWith(&gNoPeakFrames, Settings(8, 8, kFrames, 100)); }},
        FailureCase{"PeakFramesNotOverTheWindow", 33, 337, kGenerator,
                    [] { return RunWith(&gCentroid, Settings(8, 8), 6); }},
        FailureCase{"AuxiliaryNotOverTheWindow", 33, 337, kGenerator,
                    [] { return RunWith(&gCentroid, Settings(8, 8), 8, 6); }},
        // An algorithm that needs no peak frames takes any peak matrix.
        FailureCase{"PeakFramesNotNeeded", 0, 0, "",
                    [] { return RunWith(&gNoPeakFrames, Settings(8, 8, 64), 5); }},
        FailureCase{"SurfaceNotOverTheWindow", 21, 346, kGenerator,
                    [] { return RunWith(&gCentroid, Settings(8, 8), 8, 8, 9); }},
        FailureCase{"NoValidPixel", 1, 389, kGenerator, [] { return RunWith(&gCentroid, Flat()); }},
        // The modulation threshold scales with the camera's saturation: fringes of 60 counts are too
        // weak for a 16-bit one.
        FailureCase{"FringesWeakForTheCamerasRange", 1, 389, kGenerator,
                    [] {
                      Testing::ScanSettings s = Settings(8, 8);
                      s.resolution = FrameBuffer::kRes16Bit;
                      return RunWith(&gCentroid, s);
                    }},
        // The frequency-domain analysis reports the empty result itself, from its post-processing.
        FailureCase{"NoValidPixelFda", 1, 116, "Swli\\PhaseAlgorithmFda",
                    [] { return RunWith(&gFda, Flat()); }},
        FailureCase{"AlgorithmGoneDuringTheRun", 20, 144, kGenerator,
                    [] {
                      DetachingAlgorithm detaching;
                      return RunWith(&detaching, Settings(8, 8));
                    }}),
    [](const ::testing::TestParamInfo<FailureCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// The calls an algorithm sees, trace pixels, and the timings on the debug channel

// With a pixel stride, a trace pixel the loop steps over is traced through the processed pixel
// before it (6 through 4 with a stride of 4); the pass empties the list.
TEST(PhaseGeneratorTest, AlgorithmSeesTheRunInOrderAndEveryStageIsTimed) {
  std::vector<std::string> texts;
  Analysis::Core::SetDebugSink([&texts](const std::string& text) { texts.push_back(text); });
  DiscriminatedScan scan;
  MakeScan(scan, Settings(4, 4));
  Probe probe;
  probe.passes = 2;
  probe.skip = 4;
  probe.AddTracePixel(6);
  probe.AddTracePixel(12);
  Evaluate(probe, scan);
  Analysis::Core::SetDebugSink(nullptr);

  EXPECT_EQ(probe.calls, std::vector<std::string>({"CalculateQSize(256,-1)", "Initialize(0,256,64)",
                                                   "Initialize(1,256,64)", "Reset"}));
  EXPECT_EQ(probe.pixelsSeen.load(), 2 * 4);
  EXPECT_EQ(probe.traced, std::vector<int>({4, 12}));
  EXPECT_EQ(probe.TracePixels()->Size(), 0);

  // Each stage's text with its milliseconds replaced by '#'.
  std::vector<std::string> expected = {
      "-------------  PhaseGenerator Initialize: # ms -------------------\n"};
  for (const char* pass : {"0", "1"}) {
    expected.insert(expected.end(),
                    {std::string("\tPhaseGenerator Initialize(") + pass + "): # ms\n",
                     "Generator Number Threads 1\n", "\tPhaseGenerator ProcessPixels: # ms\n",
                     "\tPhaseGenerator PostProcess: # ms\n", "\tPhaseGenerator FinalizeThread: # ms\n"});
  }
  for (std::string& text : texts)
    text = MillisecondsMasked(text);
  EXPECT_EQ(texts, expected);
}

// ---------------------------------------------------------------------------------------------
// Signal loading

// A 16-bit scan in which every sample holds its scan position plus one (frame f of a forward scan
// holds f + 1, frame f of a reversed scan F - f + 1), so a loaded signal shows which positions it
// was cut from. A ring keeps the frames around `ringCentre`, or the last S frames where those would
// leave the scan.
void PositionScan(FrameBuffer& frames, int scanned, int stored, int direction, int ringCentre) {
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 1, 2), scanned, FrameBuffer::kRes16Bit, stored, direction));
  stored = frames.GetFramesStored();
  const int half = stored / 2;
  const int first = stored == scanned                                     ? 0
                    : (ringCentre >= half && ringCentre < scanned - half) ? ringCentre - half
                                                                          : scanned - stored;
  for (int frame = first; frame < first + stored; ++frame) {
    const auto value = static_cast<std::uint16_t>((direction < 0 ? scanned - frame : frame) + 1);
    const std::uint16_t pixels[2] = {value, value};
    frames.StoreFrame(frame, pixels);
  }
}

struct LoaderCase {
  std::string name;
  int direction;
  int scanned;
  int stored;         // 0: whole scan
  bool windowed;      // false: no discriminator, so a whole scan of one signal is loaded as it is
  int peak;           // stored-frame peak handed in
  int firstPosition;  // scan position (+1) of the first loaded sample; the others follow one by one
  int peakSeen;
};

void PrintTo(const LoaderCase& c, std::ostream* os) {
  *os << c.name;
}

class SignalLoaderTest : public ::testing::TestWithParam<LoaderCase> {};

// What the algorithm receives, in scan positions, by the reference path and the fast path alike.
// Forward windows are cut around the peak or, at the ends of the scan, are the first or last 64
// frames with the peak moved to the window rules; reversed scans are mirrored into scan order with
// their peak p becoming F - p; a ring is unrolled around its peak, or left in slot order when the
// peak is too close to an end. Peaks far outside the scan (2147483640, the int no-data value a host
// may write for an unknown peak, or INT_MIN + 1) take the end-of-scan branches, and their mirror
// saturates at INT_MAX instead of overflowing.
TEST_P(SignalLoaderTest, CutsAndOrdersTheSignal) {
  const LoaderCase& c = GetParam();
  FrameBuffer frames;
  PositionScan(frames, c.scanned, c.stored, c.direction, c.peak);
  IntMatrix2D peaks(1, 2), aux(1, 2);
  peaks.SetAll(c.peak);
  aux.SetAll(0);
  for (const bool fast : {false, true}) {
    Probe probe;
    probe.SetRemoveFringes(c.windowed ? FringeRemovalMethod::kStandard : FringeRemovalMethod::kNone);
    PhaseGenerator generator(&probe);
    generator.SetUseFastPath(fast);
    DoubleMatrix2D surface(1, 2);
    surface.SetAll(0.0);
    generator.Process(frames, peaks, aux, surface);
    ASSERT_EQ(probe.signals[0].size(), 64u) << (fast ? "fast" : "reference");
    for (int k = 0; k < 64; ++k) {
      ASSERT_EQ(probe.signals[0][static_cast<std::size_t>(k)], c.firstPosition + k)
          << "sample " << k << (fast ? " fast" : " reference");
    }
    EXPECT_EQ(probe.peaksSeen[0], c.peakSeen) << (fast ? "fast" : "reference");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, SignalLoaderTest,
    ::testing::Values(
        LoaderCase{"ForwardCentred", 1, kFrames, 0, true, 100, 69, 100},
        LoaderCase{"ForwardNearTheStart", 1, kFrames, 0, true, 20, 1, 32},
        LoaderCase{"ForwardNearTheEnd", 1, kFrames, 0, true, 240, 193, 223},
        LoaderCase{"ForwardPeakMarkedNoData", 1, kFrames, 0, true, kNoDataInt, 193, 223},
        LoaderCase{"ReversedCentred", -1, kFrames, 0, true, 100, 125, 156},
        LoaderCase{"ReversedNearTheStoredStart", -1, kFrames, 0, true, 20, 2, 236},
        LoaderCase{"ReversedNearTheStoredEnd", -1, kFrames, 0, true, 240, 194, 16},
        LoaderCase{"ReversedPeakMarkedNoData", -1, kFrames, 0, true, kNoDataInt, 194, kFrames - kNoDataInt},
        LoaderCase{"ReversedVeryNegativePeak", -1, kFrames, 0, true, INT_MIN + 1, 2, INT_MAX},
        LoaderCase{"ForwardWhole", 1, 64, 0, false, 20, 1, 20},
        LoaderCase{"ReversedWhole", -1, 64, 0, false, 20, 2, 44},
        LoaderCase{"ForwardRing", 1, kFrames, 64, true, 100, 69, 100},
        LoaderCase{"ForwardRingPeakMarkedNoData", 1, kFrames, 64, true, kNoDataInt, 193, kNoDataInt},
        LoaderCase{"ReversedRing", -1, kFrames, 64, true, 100, 126, 156},
        LoaderCase{"ReversedRingVeryNegativePeak", -1, kFrames, 64, true, INT_MIN + 1, 2, INT_MAX}),
    [](const ::testing::TestParamInfo<LoaderCase>& info) { return info.param.name; });

// A peak of 0 or less is estimated from the steepest two-frame rise of more than 8 counts; a signal
// without one keeps its peak. The scan increment is converted to nanometres and only its length
// counts.
TEST(PhaseGeneratorTest, UnknownPeaksAreEstimatedFromTheSteepestRise) {
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 1, 2), kFrames, FrameBuffer::kRes8Bit));
  for (int f = 0; f < kFrames; ++f) {
    // Pixel 0 rises by 10 at frame 150 and by 60 at frame 152; pixel 1 only by 8, at frame 40.
    const std::uint8_t values[2] = {static_cast<std::uint8_t>(f == 150   ? 110
                                                              : f == 152 ? 170
                                                                         : 100),
                                    static_cast<std::uint8_t>(f == 40 ? 108 : 100)};
    frames.StoreFrame(f, values);
  }
  IntMatrix2D peaks(1, 2), aux(1, 2);
  peaks.SetAll(0);
  aux.SetAll(0);
  Probe probe;
  probe.SetScanIncrement(UnitNumber(-0.08, LinearConverter(Units::kMicrometers)));
  PhaseGenerator generator(&probe);
  DoubleMatrix2D surface(1, 2);
  surface.SetAll(0.0);
  generator.Process(frames, peaks, aux, surface);
  EXPECT_EQ(probe.peaksSeen, std::vector<int>({152, 0}));
  EXPECT_NEAR(surface(0, 0), 152 * kStepNm, 1e-9);
}

// The fast path (frames copied block by block) copies only the frames a block of pixels reads; it
// must hand every pixel the same samples and peak as the reference (samples read one by one), for
// peaks of every kind in one block (unknown, negative, near either end, beyond the scan, far outside
// it), for partial blocks (a width that is not a multiple of the block), a stride and threads; with
// 8-bit samples (copied by transposed tiles of 16 x 16, converted 16 at a time) and 16-bit ones.
TEST(PhaseGeneratorTest, TheFastPathLoadsTheSameSignalsAsTheReference) {
  for (const auto resolution : {FrameBuffer::kRes8Bit, FrameBuffer::kRes16Bit}) {
    SCOPED_TRACE(resolution == FrameBuffer::kRes8Bit ? "8-bit" : "16-bit");
    constexpr int kScanned = 200;
    Testing::ScanSettings s = Settings(7, 75, kScanned);
    s.resolution = resolution;
    if (resolution == FrameBuffer::kRes16Bit) {
      s.biasCounts = 1600.0;
      s.modulationCounts = 900.0;
    }
    DiscriminatedScan scan;
    ASSERT_TRUE(Testing::MakeDiscriminatedScan(
        scan, s, [](int r, int col) { return (0.15 + 0.7 * (r * 75 + col) / 525.0) * kScanned * kStepNm; },
        11));
    const int specials[] = {
        0, -3, 1, 31, 32, kScanned - 33, kScanned - 32, kScanned - 1, kScanned + 7, kNoDataInt, INT_MIN + 1};
    for (int i = 0; i < 11; ++i)
      scan.peaks(0, 3 * i) = specials[i];
    Probe probes[2];
    for (const bool fast : {false, true}) {
      probes[fast].skip = 3;
      Evaluate(probes[fast], scan, 3, nullptr, fast);
    }
    ASSERT_FALSE(probes[0].signals[0].empty());
    for (std::size_t p = 0; p < probes[0].signals.size(); ++p) {
      ASSERT_EQ(probes[1].signals[p], probes[0].signals[p]) << "pixel " << p;
      ASSERT_EQ(probes[1].peaksSeen[p], probes[0].peaksSeen[p]) << "pixel " << p;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// The same surface in every layout

class ScanLayoutTest : public ::testing::TestWithParam<Algorithm> {
 protected:
  // The sphere's heights from a scan in the given layout. Pixel 0 is handed a peak far outside the
  // scan (the int no-data value a host writes for an unknown peak): a ring's loader passes it on
  // unchecked, so the algorithms must find it out of range themselves, without overflow, and give
  // the pixel no height.
  DoubleMatrix2D Heights(int direction, int stored) {
    DiscriminatedScan scan;
    MakeScan(scan, Settings(16, 24, kFrames, stored, direction));
    scan.peaks(0, 0) = kNoDataInt;
    const DoubleMatrix2D heights = Evaluate(*Make(GetParam()), scan);
    EXPECT_TRUE(DoubleMatrix2D::IsNoData(heights(0, 0)));
    return heights;
  }
};

// The scans share their samples position by position (the synthetic noise follows the scan
// position), so where two layouts hand the algorithm the same samples the heights must be equal to
// the last bit.
TEST_P(ScanLayoutTest, ReversedAndRingScansMatchTheForwardWholeScan) {
  const DoubleMatrix2D forward = Heights(1, 0);
  const DoubleMatrix2D reversed = Heights(-1, 0);
  const DoubleMatrix2D ring = Heights(1, 64);
  ASSERT_GT(forward.CountValid(), forward.GetCount() * 9 / 10);
  for (std::int64_t i = 0; i < forward.GetCount(); ++i) {
    EXPECT_EQ(reversed.At(i), forward.At(i)) << "pixel " << i;
    EXPECT_EQ(ring.At(i), forward.At(i)) << "pixel " << i;
  }
}

// A reversed ring holds the frames peak - 32 .. peak + 31 as any ring does; mirrored, its window
// starts one scan position later than the whole reversed scan's, so its heights are one scan step
// lower. For the frequency-domain analysis the window's shift changes only two of 64 samples: the
// heights move by the step within a fraction of a nanometre. The centroid's envelope sees a
// different noise floor too; it stays within its usual accuracy (5 % of the coherence length).
TEST_P(ScanLayoutTest, AReversedRingReadsOneScanStepLower) {
  const DoubleMatrix2D forward = Heights(1, 0);
  const DoubleMatrix2D reversedRing = Heights(-1, 64);
  const double tolerance = GetParam() == Algorithm::kFda ? 0.5 : 0.05 * Testing::CoherenceLengthNm({});
  for (std::int64_t i = 0; i < forward.GetCount(); ++i) {
    if (DoubleMatrix2D::IsDataValid(forward.At(i))) {
      EXPECT_NEAR(reversedRing.At(i), forward.At(i) - kStepNm, tolerance) << "pixel " << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Algorithms, ScanLayoutTest,
                         ::testing::Values(Algorithm::kCentroid, Algorithm::kFda));

// ---------------------------------------------------------------------------------------------
// The surface handed in is the input mask

TEST(PhaseGeneratorTest, PixelsMarkedNoDataAreSkippedButKeepTheirIntensity) {
  DiscriminatedScan scan;
  MakeScan(scan, Settings());
  PhaseAlgorithmCentroid centroid;
  const DoubleMatrix2D all = Evaluate(centroid, scan);
  const IntMatrix2D allIntensity = centroid.GetIntensityMatrix();

  // Evaluate only a disc; any value marks a pixel to evaluate.
  const auto inside = [](int r, int c) { return (r - 8) * (r - 8) + (c - 12) * (c - 12) < 36; };
  DoubleMatrix2D surface(16, 24);
  for (int r = 0; r < 16; ++r) {
    for (int c = 0; c < 24; ++c)
      surface(r, c) = inside(r, c) ? -123.0 : DoubleMatrix2D::NoData();
  }
  PhaseGenerator generator(&centroid);
  ASSERT_TRUE(generator.Process(scan.frames, scan.peaks, scan.auxiliary, surface).IsOk());
  for (int r = 0; r < 16; ++r) {
    for (int c = 0; c < 24; ++c) {
      if (inside(r, c)) {
        EXPECT_EQ(surface(r, c), all(r, c)) << r << "," << c;
      } else {
        EXPECT_TRUE(DoubleMatrix2D::IsNoData(surface(r, c))) << r << "," << c;
      }
      // The intensity is made everywhere, masked or not, and is the same as without the mask.
      EXPECT_EQ(centroid.GetIntensityMatrix()(r, c), allIntensity(r, c)) << r << "," << c;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Threads and allocations

class ThreadCountTest : public ::testing::TestWithParam<int> {};

// Every thread count gives the single-threaded maps bit for bit, including the field quantities
// of the frequency-domain analysis (mean wavenumber, average gap) that are sums over all pixels.
// The test runner sets QUARN_NUM_PROCESSORS to 8 for threaded tests, so that every count here
// really runs that many workers whatever the machine. Buffers are made per pass and per thread,
// never per pixel: a scan of ten times the pixels makes as many allocations.
TEST_P(ThreadCountTest, MatchesOneThreadAndAllocatesNothingPerPixel) {
  const int threads = GetParam();
  Testing::ScanSettings s = Settings(23, 29);  // a pixel count that does not divide evenly
  s.reflectionPhaseRad = 1.3;
  DiscriminatedScan scan, small;
  MakeScan(scan, s);
  MakeScan(small, Settings(8, 8));
  for (const Algorithm kind : {Algorithm::kCentroid, Algorithm::kFda}) {
    const auto one = Make(kind), many = Make(kind), few = Make(kind);
    const DoubleMatrix2D single = Evaluate(*one, scan);
    std::string texts;
    texts.reserve(1 << 16);  // so that collecting the texts allocates nothing
    Analysis::Core::SetDebugSink([&texts](const std::string& text) { texts += text; });
    long allocations = 0, smallAllocations = 0;
    const DoubleMatrix2D threaded = Evaluate(*many, scan, threads, &allocations);
    Evaluate(*few, small, threads, &smallAllocations);
    Analysis::Core::SetDebugSink(nullptr);
    EXPECT_NE(texts.find("Generator Number Threads " + std::to_string(std::max(threads, 1)) + "\n"),
              std::string::npos)
        << "fewer processors than threads: run with QUARN_NUM_PROCESSORS=8";
    // The thread pool's task queue takes a new block of memory every so many tasks, in whichever run
    // that falls: one allocation of slack, far below one per block of 64 pixels.
    EXPECT_LE(std::abs(allocations - smallAllocations), 1);
    for (std::int64_t i = 0; i < single.GetCount(); ++i) {
      ASSERT_EQ(threaded.At(i), single.At(i)) << "pixel " << i;
      ASSERT_EQ(many->GetIntensityMatrix().At(i), one->GetIntensityMatrix().At(i)) << "pixel " << i;
    }
    if (kind == Algorithm::kFda) {
      const auto& fda1 = dynamic_cast<const PhaseAlgorithmFda&>(*one);
      const auto& fdaN = dynamic_cast<const PhaseAlgorithmFda&>(*many);
      EXPECT_EQ(fdaN.GetAverageK0(), fda1.GetAverageK0());
      EXPECT_EQ(fdaN.GetAverageGap(), fda1.GetAverageGap());
      EXPECT_EQ(fdaN.GetValidCount(), fda1.GetValidCount());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Threads, ThreadCountTest, ::testing::Values(0, 2, 3, 8));

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

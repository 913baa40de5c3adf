// The white-light phase generator: failures, the calls an algorithm sees, signal loading for every
// scan layout, the surface as input mask, threads and allocations.
#include "Swli/PhaseGenerator.h"

#include <atomic>
#include <climits>
#include <cstdlib>
#include <functional>
#include <new>
#include <regex>
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
#include "Testing/SyntheticScan.h"

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
void* operator new(std::size_t bytes, std::align_val_t alignment) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  const auto a = static_cast<std::size_t>(alignment);
  if (void* p = std::aligned_alloc(a, (bytes + a - 1) / a * a)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  Release(p);
}
void operator delete(void* p, std::size_t) noexcept {
  Release(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
  Release(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
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

constexpr double kStepNm = 80.0;
constexpr int kFrames = 256;

UnitNumber Nanometres(double value) {
  return UnitNumber(value, LinearConverter(Units::kNanometers));
}

Testing::ScanSettings Settings(int rows = 16, int cols = 24) {
  Testing::ScanSettings s;
  s.rows = rows;
  s.cols = cols;
  s.noiseSigmaCounts = 1.5;
  return s;
}

DiscriminatedScan& MakeScan(DiscriminatedScan& scan, const Testing::ScanSettings& settings) {
  EXPECT_TRUE(Testing::MakeDiscriminatedScan(scan, settings, Testing::SphereWithStepNm, 11));
  return scan;
}

// Runs a generator over the whole window (surface all valid) and returns the surface; `threads` 0
// runs on the calling thread. `workers` receives the threads the run was allowed; `allocations`, when
// given, the allocations of a second run (the first makes the lazily created members).
DoubleMatrix2D Evaluate(PhaseAlgorithm& algorithm, DiscriminatedScan& scan, int threads = 0,
                        int* workers = nullptr, long* allocations = nullptr) {
  algorithm.SetScanIncrement(Nanometres(kStepNm));
  PhaseGenerator generator(&algorithm);
  generator.SetAllowMultiThreads(threads > 0);
  generator.SetMaxNumThreads(threads);
  if (workers) *workers = generator.GetMaxNumThreads();
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
  unsigned line;       // 0: any line
  std::string source;  // empty: any source
  std::function<Status()> run;
};

void PrintTo(const FailureCase& c, std::ostream* os) {
  *os << c.name;
}

// Runs `algorithm` on a scan of `settings` with peak-frame, auxiliary and surface matrices of the
// given row counts (the scan's rows for matching ones).
Status RunWith(PhaseAlgorithm* algorithm, const Testing::ScanSettings& settings, int peakRows, int auxRows,
               int surfaceRows) {
  DiscriminatedScan scan;
  MakeScan(scan, settings);
  if (peakRows != settings.rows) scan.peaks.Resize(0, 0, peakRows, settings.cols);
  if (auxRows != settings.rows) scan.auxiliary.Resize(0, 0, auxRows, settings.cols);
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

Testing::ScanSettings Frames(int scanned, int stored) {
  Testing::ScanSettings s = Settings(8, 8);
  s.framesScanned = scanned;
  s.framesStored = stored;
  return s;
}

class GeneratorFailureTest : public ::testing::TestWithParam<FailureCase> {};

TEST_P(GeneratorFailureTest, IsReportedWithItsCodeAndLine) {
  const FailureCase& c = GetParam();
  const Status status = c.run();
  EXPECT_EQ(status.GetCode(), c.code) << status.GetPrintString();
  if (c.line != 0) {
    EXPECT_EQ(status.GetLine(), c.line) << status.GetPrintString();
  }
  if (!c.source.empty()) {
    EXPECT_EQ(status.GetFile(), c.source);
  }
}

PhaseAlgorithmCentroid gCentroid;
PhaseAlgorithmFda gFda;
NoPeakFrames gNoPeakFrames;

INSTANTIATE_TEST_SUITE_P(
    Table, GeneratorFailureTest,
    ::testing::Values(
        FailureCase{"NoAlgorithm", 21, 276, "Swli\\PhaseGenerator",
                    [] { return RunWith(nullptr, Settings(8, 8), 8, 8, 8); }},
        // The centroid needs the discriminator; a ring of 32 frames cannot hold its 64-sample signal.
        FailureCase{"RingShorterThanTheSignal", 21, 301, "Swli\\PhaseGenerator",
                    [] { return RunWith(&gCentroid, Frames(256, 32), 8, 8, 8); }},
        // Without the discriminator the signal is 64 samples of a 32-frame scan.
        FailureCase{"FewerFramesThanTheSignalNoDiscriminator", 21, 319, "Swli\\PhaseGenerator",
                    [] { return RunWith(&gNoPeakFrames, Frames(32, 0), 8, 8, 8); }},
        // With it, the 64-frame window cannot be cut from 32 frames either.
        FailureCase{"FewerFramesThanTheSignalWithDiscriminator", 21, 319, "Swli\\PhaseGenerator",
                    [] { return RunWith(&gCentroid, Frames(32, 0), 8, 8, 8); }},
        // A ring that is not one signal long cannot be unrolled into the signal buffer.
        FailureCase{"RingOfTheWrongLengthNoDiscriminator", 21, 0, "Swli\\PhaseGenerator",
                    [] { return RunWith(&gNoPeakFrames, Frames(256, 100), 8, 8, 8); }},
        FailureCase{"PeakFramesNotOverTheWindow", 33, 337, "Swli\\PhaseGenerator",
                    [] { return RunWith(&gCentroid, Settings(8, 8), 6, 8, 8); }},
        FailureCase{"AuxiliaryNotOverTheWindow", 33, 337, "Swli\\PhaseGenerator",
                    [] { return RunWith(&gCentroid, Settings(8, 8), 8, 6, 8); }},
        // An algorithm that needs no peak frames takes any peak matrix (its peaks then read as 0).
        FailureCase{"PeakFramesNotNeeded", 0, 0, "",
                    [] { return RunWith(&gNoPeakFrames, Frames(64, 0), 5, 8, 8); }},
        FailureCase{"SurfaceNotOverTheWindow", 21, 346, "Swli\\PhaseGenerator",
                    [] { return RunWith(&gCentroid, Settings(8, 8), 8, 8, 9); }},
        FailureCase{"NoValidPixel", 1, 389, "Swli\\PhaseGenerator",
                    [] { return RunWith(&gCentroid, Flat(), 8, 8, 8); }},
        // The frequency-domain analysis reports the empty result itself, from its post-processing.
        FailureCase{"NoValidPixelFda", 1, 116, "Swli\\PhaseAlgorithmFda",
                    [] { return RunWith(&gFda, Flat(), 8, 8, 8); }},
        FailureCase{"AlgorithmGoneDuringTheRun", 20, 144, "Swli\\PhaseGenerator",
                    [] {
                      DetachingAlgorithm detaching;
                      return RunWith(&detaching, Settings(8, 8), 8, 8, 8);
                    }}),
    [](const ::testing::TestParamInfo<FailureCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// The calls an algorithm sees, and the timings on the debug channel

class RecordingAlgorithm : public PhaseAlgorithmNone {
 public:
  std::vector<std::string> calls;
  int pixelsSeen = 0;

  void Reset() override {
    calls.push_back("Reset");
    PhaseAlgorithmNone::Reset();
  }
  void Initialize(int pass, int frames, int q, const Window2D& window) override {
    calls.push_back("Initialize(" + std::to_string(pass) + "," + std::to_string(frames) + "," +
                    std::to_string(q) + ")");
    PhaseAlgorithmNone::Initialize(pass, frames, q, window);
  }
  void Initialize(FrameBuffer& frames, Analysis::Core::DataMatrix2D<int>& peaks, bool allow) override {
    calls.push_back("Initialize(frames)");
    PhaseAlgorithmNone::Initialize(frames, peaks, allow);
  }
  void InitializeThread(int n) override {
    calls.push_back("InitializeThread(" + std::to_string(n) + ")");
    PhaseAlgorithmNone::InitializeThread(n);
  }
  void FinalizeThread() override {
    calls.push_back("FinalizeThread");
    PhaseAlgorithmNone::FinalizeThread();
  }
  int ProcessPixel(int thread, int pixel, int peak, int aux) override {
    if (pixelsSeen++ == 0) calls.push_back("ProcessPixel");
    return PhaseAlgorithmNone::ProcessPixel(thread, pixel, peak, aux);
  }
  void PostProcess() override { calls.push_back("PostProcess"); }
  int RequiredNumberOfPasses() const override { return 2; }
  int CalculateQSize(int frames, int size, FringeRemovalMethod method) override {
    calls.push_back("CalculateQSize(" + std::to_string(frames) + "," + std::to_string(size) + ")");
    return PhaseAlgorithmNone::CalculateQSize(frames, size, method);
  }
};

TEST(PhaseGeneratorTest, AlgorithmSeesTheRunInOrderAndEveryStageIsTimed) {
  std::vector<std::string> texts;
  Analysis::Core::SetDebugSink([&texts](const std::string& text) { texts.push_back(text); });
  DiscriminatedScan scan;
  MakeScan(scan, Settings(4, 4));
  RecordingAlgorithm algorithm;
  Evaluate(algorithm, scan);
  Analysis::Core::SetDebugSink(nullptr);

  EXPECT_EQ(algorithm.calls,
            std::vector<std::string>({"CalculateQSize(256,-1)", "Initialize(frames)", "Initialize(0,256,64)",
                                      "InitializeThread(1)", "ProcessPixel", "PostProcess", "FinalizeThread",
                                      "Initialize(1,256,64)", "InitializeThread(1)", "PostProcess",
                                      "FinalizeThread", "Reset"}));
  EXPECT_EQ(algorithm.pixelsSeen, 2 * 16);

  // Each stage's text with its milliseconds replaced by '#'.
  std::vector<std::string> expected = {
      "-------------  PhaseGenerator Initialize: # ms -------------------\n"};
  for (const char* pass : {"0", "1"}) {
    expected.insert(expected.end(),
                    {std::string("\tPhaseGenerator Initialize(") + pass + "): # ms\n",
                     "Generator Number Threads 1\n", "\tPhaseGenerator ProcessPixels: # ms\n",
                     "\tPhaseGenerator PostProcess: # ms\n", "\tPhaseGenerator FinalizeThread: # ms\n"});
  }
  const std::regex milliseconds("[0-9][-+.e0-9]* ms");
  for (std::string& text : texts)
    text = std::regex_replace(text, milliseconds, "# ms");
  EXPECT_EQ(texts, expected);
}

// ---------------------------------------------------------------------------------------------
// Trace pixels and signal loading

// Keeps every pixel's loaded signal and peak, and the pixels processed in debug mode.
class SignalTable : public PhaseAlgorithmNone {
 public:
  int skip = 1;
  std::vector<std::vector<double>> signals;
  std::vector<int> peaksSeen;
  std::vector<int> traced;
  int GetSkipCount() const override { return skip; }
  void Initialize(int pass, int frames, int q, const Window2D& window) override {
    PhaseAlgorithmNone::Initialize(pass, frames, q, window);
    signals.assign(static_cast<std::size_t>(window.GetCount()), {});
    peaksSeen.assign(static_cast<std::size_t>(window.GetCount()), -999);
  }
  int ProcessPixel(int thread, int pixel, int peak, int aux) override {
    signals[static_cast<std::size_t>(pixel)].assign(GetDataArray(thread),
                                                    GetDataArray(thread) + GetDataArraySize(thread));
    peaksSeen[static_cast<std::size_t>(pixel)] = peak;
    if (IsDebuging(thread)) traced.push_back(pixel);
    return PhaseAlgorithmNone::ProcessPixel(thread, pixel, peak, aux);
  }
};

TEST(PhaseGeneratorTest, TracePixelsSkippedOverAreTracedThroughThePixelBefore) {
  DiscriminatedScan scan;
  MakeScan(scan, Settings(4, 8));
  for (const int skip : {1, 4}) {
    SignalTable algorithm;
    algorithm.skip = skip;
    algorithm.AddTracePixel(6);  // with a stride of 4, pixels 0, 4, 8, ... are processed
    algorithm.AddTracePixel(12);
    Evaluate(algorithm, scan);
    EXPECT_EQ(algorithm.traced, skip == 1 ? std::vector<int>({6, 12}) : std::vector<int>({4, 12}))
        << "skip " << skip;
    ASSERT_NE(algorithm.TracePixels(), nullptr);
    EXPECT_EQ(algorithm.TracePixels()->Size(), 0) << "the list is emptied by the pass";
  }
}

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
    SignalTable probe;
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

// A peak of 0 or less is estimated from the steepest two-frame rise above 8 counts. The scan
// increment is converted to nanometres and only its length counts.
TEST(PhaseGeneratorTest, UnknownPeaksAreEstimatedFromTheSteepestRise) {
  FrameBuffer frames;
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 1, 1), kFrames, FrameBuffer::kRes8Bit));
  for (int f = 0; f < kFrames; ++f) {
    // Rises over two frames: 10 at frame 150, 60 at frame 152.
    const std::uint8_t value = f == 150 ? 110 : f == 152 ? 170 : 100;
    frames.StoreFrame(f, &value);
  }
  IntMatrix2D peaks(1, 1), aux(1, 1);
  peaks.SetAll(0);
  aux.SetAll(0);
  SignalTable probe;
  probe.SetScanIncrement(UnitNumber(-0.08, LinearConverter(Units::kMicrometers)));
  PhaseGenerator generator(&probe);
  DoubleMatrix2D surface(1, 1);
  surface.SetAll(0.0);
  generator.Process(frames, peaks, aux, surface);
  EXPECT_EQ(probe.peaksSeen[0], 152);
  EXPECT_NEAR(surface(0, 0), 152 * kStepNm, 1e-9);
}

// ---------------------------------------------------------------------------------------------
// The fast path (frames copied block by block) against the reference (samples read one by one)

struct PathCase {
  std::string name;
  int direction;
  int stored;  // 0: whole scan
  int skip;
  int threads;
};

void PrintTo(const PathCase& c, std::ostream* os) {
  *os << c.name;
}

class FastPathTest : public ::testing::TestWithParam<PathCase> {};

// The fast path copies only the frames a block of pixels reads; both paths must hand every pixel
// the same samples and peak, for peaks of every kind (unknown, negative, near either end, beyond
// the scan, far outside it) and for partial blocks (a width that is not a multiple of the block),
// strides and threads.
TEST_P(FastPathTest, LoadsTheSameSignalsAsTheReference) {
  const PathCase& c = GetParam();
  constexpr int kScanned = 200;
  Testing::ScanSettings s = Settings(7, 75);
  s.framesScanned = kScanned;
  s.framesStored = c.stored;
  s.scanDirection = c.direction;
  s.resolution = FrameBuffer::kRes16Bit;
  s.biasCounts = 1600.0;
  s.modulationCounts = 900.0;
  DiscriminatedScan scan;
  ASSERT_TRUE(Testing::MakeDiscriminatedScan(
      scan, s, [](int r, int col) { return (0.15 + 0.7 * (r * 75 + col) / 525.0) * kScanned * kStepNm; },
      11));
  const int specials[] = {
      0, -3, 1, 31, 32, kScanned - 33, kScanned - 32, kScanned - 1, kScanned + 7, kNoDataInt, INT_MIN + 1};
  for (int i = 0; i < 11; ++i)
    scan.peaks(0, 3 * i) = specials[i];
  SignalTable tables[2];
  for (const bool fast : {false, true}) {
    SignalTable& table = tables[fast ? 1 : 0];
    table.skip = c.skip;
    PhaseGenerator generator(&table);
    generator.SetUseFastPath(fast);
    generator.SetAllowMultiThreads(c.threads > 1);
    generator.SetMaxNumThreads(c.threads);
    DoubleMatrix2D surface(7, 75);
    surface.SetAll(0.0);
    generator.Process(scan.frames, scan.peaks, scan.auxiliary, surface);
    ASSERT_TRUE(generator.GetStatus().IsOk()) << generator.GetStatus().GetPrintString();
  }
  ASSERT_FALSE(tables[0].signals[0].empty());
  for (std::size_t p = 0; p < tables[0].signals.size(); ++p) {
    ASSERT_EQ(tables[1].signals[p], tables[0].signals[p]) << "pixel " << p;
    ASSERT_EQ(tables[1].peaksSeen[p], tables[0].peaksSeen[p]) << "pixel " << p;
  }
}

INSTANTIATE_TEST_SUITE_P(Loaders, FastPathTest,
                         ::testing::Values(PathCase{"ForwardWindowed", 1, 0, 3, 3},
                                           PathCase{"ReversedWindowed", -1, 0, 2, 3},
                                           PathCase{"ReversedRing", -1, 64, 1, 2}),
                         [](const ::testing::TestParamInfo<PathCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// The same surface in every layout

enum class Algorithm { kCentroid, kFda };

class ScanLayoutTest : public ::testing::TestWithParam<Algorithm> {
 protected:
  DoubleMatrix2D Heights(int direction, int stored) {
    Testing::ScanSettings s = Settings();
    s.scanDirection = direction;
    s.framesStored = stored;
    DiscriminatedScan scan;
    MakeScan(scan, s);
    PhaseAlgorithmCentroid centroid;
    PhaseAlgorithmFda fda;
    return Evaluate(GetParam() == Algorithm::kCentroid ? static_cast<PhaseAlgorithm&>(centroid) : fda, scan);
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
    if (!DoubleMatrix2D::IsDataValid(forward.At(i))) continue;
    EXPECT_NEAR(reversedRing.At(i), forward.At(i) - kStepNm, tolerance) << "pixel " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Algorithms, ScanLayoutTest,
                         ::testing::Values(Algorithm::kCentroid, Algorithm::kFda));

// On a ring the loaders hand the peak to the algorithm unchecked (mirrored for a reversed scan), so
// the algorithms must themselves find a peak far outside the scan out of range, not evaluate a
// window there: such pixels get no height, their neighbours do.
TEST(PhaseGeneratorTest, RingPixelsWithPeaksFarOutsideTheScanGetNoHeight) {
  for (const int direction : {1, -1}) {
    Testing::ScanSettings s = Settings(4, 4);
    s.framesStored = 64;
    s.scanDirection = direction;
    DiscriminatedScan scan;
    MakeScan(scan, s);
    scan.peaks(0, 0) = kNoDataInt;
    scan.peaks(0, 1) = INT_MIN + 1;
    PhaseAlgorithmCentroid centroid;
    PhaseAlgorithmFda fda;
    for (PhaseAlgorithm* algorithm :
         {static_cast<PhaseAlgorithm*>(&centroid), static_cast<PhaseAlgorithm*>(&fda)}) {
      const DoubleMatrix2D surface = Evaluate(*algorithm, scan);
      EXPECT_TRUE(DoubleMatrix2D::IsNoData(surface(0, 0))) << "direction " << direction;
      EXPECT_TRUE(DoubleMatrix2D::IsNoData(surface(0, 1))) << "direction " << direction;
      EXPECT_EQ(surface.CountValid(), 14) << "direction " << direction;
    }
  }
}

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
  generator.Process(scan.frames, scan.peaks, scan.auxiliary, surface);
  ASSERT_TRUE(generator.GetStatus().IsOk()) << generator.GetStatus().GetPrintString();
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
// Threads

class ThreadCountTest : public ::testing::TestWithParam<int> {};

// Every thread count gives the single-threaded maps bit for bit, including the field quantities
// of the frequency-domain analysis (mean wavenumber, average gap) that are sums over all pixels.
// The test runner sets QUARN_NUM_PROCESSORS to 8 for threaded tests, so that every count here
// really runs that many workers whatever the machine.
TEST_P(ThreadCountTest, ResultsAreIdenticalToOneThread) {
  Testing::ScanSettings s = Settings(23, 29);  // a pixel count that does not divide evenly
  s.reflectionPhaseRad = 1.3;
  DiscriminatedScan scan;
  MakeScan(scan, s);
  for (const Algorithm kind : {Algorithm::kCentroid, Algorithm::kFda}) {
    PhaseAlgorithmCentroid centroid1, centroidN;
    PhaseAlgorithmFda fda1, fdaN;
    PhaseAlgorithm& one = kind == Algorithm::kCentroid ? static_cast<PhaseAlgorithm&>(centroid1) : fda1;
    PhaseAlgorithm& many = kind == Algorithm::kCentroid ? static_cast<PhaseAlgorithm&>(centroidN) : fdaN;
    const DoubleMatrix2D single = Evaluate(one, scan, 0);
    int workers = 0;
    const DoubleMatrix2D threaded = Evaluate(many, scan, GetParam(), &workers);
    ASSERT_EQ(workers, GetParam()) << "fewer processors than threads: run with QUARN_NUM_PROCESSORS=8";
    for (std::int64_t i = 0; i < single.GetCount(); ++i) {
      ASSERT_EQ(threaded.At(i), single.At(i)) << "pixel " << i;
      ASSERT_EQ(many.GetIntensityMatrix().At(i), one.GetIntensityMatrix().At(i)) << "pixel " << i;
    }
    if (kind == Algorithm::kFda) {
      EXPECT_EQ(fdaN.GetAverageK0(), fda1.GetAverageK0());
      EXPECT_EQ(fdaN.GetAverageGap(), fda1.GetAverageGap());
      EXPECT_EQ(fdaN.GetValidCount(), fda1.GetValidCount());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Threads, ThreadCountTest, ::testing::Values(2, 3, 8));

// ---------------------------------------------------------------------------------------------
// Allocations

// Buffers are made per pass and per thread, never per pixel: a run over 36 times the pixels makes
// exactly as many allocations.
TEST(PhaseGeneratorTest, AllocationsDoNotGrowWithThePixelCount) {
  for (const int threads : {0, 3}) {
    for (const Algorithm kind : {Algorithm::kCentroid, Algorithm::kFda}) {
      long counts[2] = {0, 0};
      for (const int i : {0, 1}) {
        DiscriminatedScan scan;
        MakeScan(scan, Settings(8 + 40 * i, 8 + 40 * i));
        PhaseAlgorithmCentroid centroid;
        PhaseAlgorithmFda fda;
        Evaluate(kind == Algorithm::kCentroid ? static_cast<PhaseAlgorithm&>(centroid) : fda, scan, threads,
                 nullptr, &counts[i]);
      }
      EXPECT_EQ(counts[1], counts[0])
          << "threads " << threads << (kind == Algorithm::kFda ? " fda" : " centroid");
    }
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

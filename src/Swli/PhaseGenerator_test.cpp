// The white-light phase generator: failures, the calls an algorithm sees, signal loading for every
// scan layout, the surface as input mask, threads and allocations.
#include "Swli/PhaseGenerator.h"

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <functional>
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
#include "Testing/SeededRandom.h"
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
using Analysis::Core::LinearConverter;
using Analysis::Core::Status;
using Analysis::Core::UnitNumber;
using Analysis::Core::Window2D;
namespace Units = Analysis::Core::Units;
namespace StatusCode = Analysis::Core::StatusCode;

constexpr double kStepNm = 80.0;
constexpr int kFrames = 256;

UnitNumber Nanometres(double value) {
  return UnitNumber(value, LinearConverter(Units::kNanometers));
}

// A tilted surface with a 250 nm step, 6.9 to 8.9 um along the scan: frames 100 .. 111 of a
// 256-frame scan at 80 nm per frame, well inside the scan.
double TiltedStep(int r, int c) {
  return 8000.0 + 13.7 * r + 5.3 * c + (c >= 12 ? 250.0 : 0.0);
}

// A scan of a surface together with the discriminator's peak frames and an auxiliary matrix.
struct ScanCase {
  Testing::ScanSettings settings;
  FrameBuffer frames;
  IntMatrix2D peaks;
  IntMatrix2D aux;
};

// The discriminator is taken to be off by up to two frames, in a fixed pattern (what a coarse
// envelope detector does). A reversed scan gets the same physical frames, F - p.
void MakeScan(ScanCase& scan, const Testing::ScanSettings& settings,
              const std::function<double(int, int)>& height, std::uint64_t seed = 11) {
  scan.settings = settings;
  const int rows = settings.rows, cols = settings.cols;
  scan.peaks.Resize(0, 0, rows, cols);
  scan.aux.Resize(0, 0, rows, cols);
  scan.aux.SetAll(0);
  Testing::ScanSettings forward = settings;
  forward.scanDirection = 1;
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      const int peak = Testing::TruePeakFrame(forward, height(r, c)) + (r + 2 * c) % 5 - 2;
      scan.peaks(r, c) = settings.scanDirection < 0 ? settings.framesScanned - peak : peak;
    }
  }
  Testing::SeededRandom random(seed);
  ASSERT_TRUE(Testing::MakeSyntheticScan(scan.frames, settings, height, &random, &scan.peaks));
}

Testing::ScanSettings Settings(int rows = 16, int cols = 24) {
  Testing::ScanSettings s;
  s.rows = rows;
  s.cols = cols;
  s.framesScanned = kFrames;
  s.scanStepNm = kStepNm;
  s.noiseSigmaCounts = 1.5;
  return s;
}

// Runs a generator over the whole window (surface all valid) and returns the surface.
DoubleMatrix2D Evaluate(PhaseAlgorithm& algorithm, ScanCase& scan, int threads = 0,
                        Status* status = nullptr) {
  algorithm.SetScanIncrement(Nanometres(kStepNm));
  PhaseGenerator generator(&algorithm);
  generator.SetAllowMultiThreads(threads > 0);
  generator.SetMaxNumThreads(threads);
  DoubleMatrix2D surface(scan.settings.rows, scan.settings.cols);
  surface.SetAll(0.0);
  generator.Process(scan.frames, scan.peaks, scan.aux, surface);
  if (status) *status = generator.GetStatus();
  EXPECT_TRUE(generator.GetStatus().IsOk()) << generator.GetStatus().GetPrintString();
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

struct FailureCase {
  std::string name;
  unsigned code;
  unsigned line;  // 0: any line
  std::string source;
  // Builds the situation and returns the generator's status after Process.
  std::function<Status()> run;
};

void PrintTo(const FailureCase& c, std::ostream* os) {
  *os << c.name;
}

Status RunWith(PhaseAlgorithm* algorithm, const Testing::ScanSettings& settings, int peakRows,
               int surfaceRows, int threads = 0) {
  ScanCase scan;
  MakeScan(scan, settings, TiltedStep);
  IntMatrix2D peaks = scan.peaks;
  if (peakRows != settings.rows) peaks.Resize(0, 0, peakRows, settings.cols);
  DoubleMatrix2D surface(surfaceRows, settings.cols);
  surface.SetAll(0.0);
  PhaseGenerator generator(algorithm);
  if (algorithm) algorithm->SetScanIncrement(Nanometres(kStepNm));
  generator.SetAllowMultiThreads(threads > 0);
  generator.SetMaxNumThreads(threads);
  if (auto* detaching = dynamic_cast<DetachingAlgorithm*>(algorithm)) detaching->generator = &generator;
  return generator.Process(scan.frames, peaks, scan.aux, surface);
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
  EXPECT_EQ(status.GetFile(), c.source);
}

PhaseAlgorithmCentroid gCentroid;
PhaseAlgorithmFda gFda;

INSTANTIATE_TEST_SUITE_P(
    Table, GeneratorFailureTest,
    ::testing::Values(
        FailureCase{"NoAlgorithm", 21, 276, "Swli\\PhaseGenerator",
                    [] { return RunWith(nullptr, Settings(8, 8), 8, 8); }},
        // The centroid needs the discriminator; a ring of 32 frames cannot hold its 64-sample signal.
        FailureCase{"RingShorterThanTheSignal", 21, 301, "Swli\\PhaseGenerator",
                    [] { return RunWith(&gCentroid, Frames(256, 32), 8, 8); }},
        // Without the discriminator the signal is 64 samples of a 32-frame scan.
        FailureCase{"FewerFramesThanTheSignalNoDiscriminator", 21, 319, "Swli\\PhaseGenerator",
                    [] {
                      PhaseAlgorithmNone none;
                      none.SetRemoveFringes(FringeRemovalMethod::kNone);
                      return RunWith(&none, Frames(32, 0), 8, 8);
                    }},
        // With it, the 64-frame window cannot be cut from 32 frames either.
        FailureCase{"FewerFramesThanTheSignalWithDiscriminator", 21, 319, "Swli\\PhaseGenerator",
                    [] { return RunWith(&gCentroid, Frames(32, 0), 8, 8); }},
        // A ring that is not one signal long cannot be unrolled into the signal buffer.
        FailureCase{"RingOfTheWrongLengthNoDiscriminator", 21, 0, "Swli\\PhaseGenerator",
                    [] {
                      PhaseAlgorithmNone none;
                      none.SetRemoveFringes(FringeRemovalMethod::kNone);
                      return RunWith(&none, Frames(256, 100), 8, 8);
                    }},
        FailureCase{"PeakFramesNotOverTheWindow", 33, 337, "Swli\\PhaseGenerator",
                    [] { return RunWith(&gCentroid, Settings(8, 8), 6, 8); }},
        FailureCase{"SurfaceNotOverTheWindow", 21, 346, "Swli\\PhaseGenerator",
                    [] { return RunWith(&gCentroid, Settings(8, 8), 8, 9); }},
        FailureCase{"NoValidPixel", 1, 389, "Swli\\PhaseGenerator",
                    [] { return RunWith(&gCentroid, Flat(), 8, 8); }},
        // The frequency-domain analysis reports the empty result itself, from its post-processing.
        FailureCase{"NoValidPixelFda", 1, 116, "Swli\\PhaseAlgorithmFda",
                    [] { return RunWith(&gFda, Flat(), 8, 8); }},
        FailureCase{"AlgorithmGoneDuringTheRun", 20, 144, "Swli\\PhaseGenerator",
                    [] {
                      DetachingAlgorithm detaching;
                      return RunWith(&detaching, Settings(8, 8), 8, 8);
                    }},
        FailureCase{"AlgorithmGoneDuringAThreadedRun", 20, 144, "Swli\\PhaseGenerator",
                    [] {
                      DetachingAlgorithm detaching;
                      return RunWith(&detaching, Settings(8, 8), 8, 8, 3);
                    }},
        FailureCase{"ScanIncrementNotALength", 20, 0, "Swli\\PhaseAlgorithm",
                    [] {
                      ScanCase scan;
                      MakeScan(scan, Settings(8, 8), TiltedStep);
                      PhaseAlgorithmCentroid centroid;
                      centroid.SetScanIncrement(UnitNumber(1.0, LinearConverter(Units::kRadians)));
                      PhaseGenerator generator(&centroid);
                      DoubleMatrix2D surface(8, 8);
                      surface.SetAll(0.0);
                      return generator.Process(scan.frames, scan.peaks, scan.aux, surface);
                    }}),
    [](const ::testing::TestParamInfo<FailureCase>& info) { return info.param.name; });

TEST(PhaseGeneratorTest, AlgorithmsWithoutPeakFramesAcceptAnyPeakMatrix) {
  // The trivial algorithm without an intensity needs no peak frames: a peak matrix of another size
  // is ignored (peaks read as 0), so every height is 0.
  PhaseAlgorithmNone none;
  none.SetRemoveFringes(FringeRemovalMethod::kNone);
  class NoPeaks : public PhaseAlgorithmNone {
    bool NeedPeakFrame() const override { return false; }
  } noPeaks;
  noPeaks.SetRemoveFringes(FringeRemovalMethod::kNone);
  const Status status = RunWith(&noPeaks, Frames(64, 0), 5, 8);
  EXPECT_TRUE(status.IsOk()) << status.GetPrintString();
  EXPECT_EQ(RunWith(&none, Frames(64, 0), 5, 8).GetCode(), StatusCode::kPeakFrameMismatch);
}

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
  bool IsMultThreadable() const override {
    const_cast<RecordingAlgorithm*>(this)->calls.push_back("IsMultThreadable");
    return true;
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
  bool NeedDiscriminator() const override {
    const_cast<RecordingAlgorithm*>(this)->calls.push_back("NeedDiscriminator");
    return PhaseAlgorithmNone::NeedDiscriminator();
  }
  bool NeedPeakFrame() const override {
    const_cast<RecordingAlgorithm*>(this)->calls.push_back("NeedPeakFrame");
    return true;
  }
  int CalculateQSize(int frames, int size, FringeRemovalMethod method) override {
    calls.push_back("CalculateQSize(" + std::to_string(frames) + "," + std::to_string(size) + ")");
    return PhaseAlgorithmNone::CalculateQSize(frames, size, method);
  }
};

TEST(PhaseGeneratorTest, AlgorithmSeesTheRunInOrderAndEveryStageIsTimed) {
  std::vector<std::string> texts;
  Analysis::Core::SetDebugSink([&texts](const std::string& text) { texts.push_back(text); });
  ScanCase scan;
  MakeScan(scan, Settings(4, 4), TiltedStep);
  RecordingAlgorithm algorithm;
  algorithm.SetScanIncrement(Nanometres(kStepNm));
  PhaseGenerator generator(&algorithm);
  DoubleMatrix2D surface(4, 4);
  surface.SetAll(0.0);
  generator.Process(scan.frames, scan.peaks, scan.aux, surface);
  Analysis::Core::SetDebugSink(nullptr);
  ASSERT_TRUE(generator.GetStatus().IsOk()) << generator.GetStatus().GetPrintString();

  const std::vector<std::string> expected = {
      "NeedDiscriminator", "CalculateQSize(256,-1)", "NeedPeakFrame", "Initialize(frames)",
      "Initialize(0,256,64)", "IsMultThreadable", "InitializeThread(1)",
      // asked once per range of pixels, to decide how signals are loaded
      "NeedDiscriminator", "ProcessPixel", "PostProcess", "FinalizeThread", "Initialize(1,256,64)",
      "IsMultThreadable", "InitializeThread(1)", "NeedDiscriminator", "PostProcess", "FinalizeThread",
      "Reset"};
  // The generator asks IsMultThreadable only when threads are allowed; this run has one thread.
  std::vector<std::string> calls;
  for (const std::string& call : algorithm.calls) {
    if (call != "IsMultThreadable") calls.push_back(call);
  }
  std::vector<std::string> expectedWithoutThreadQuestion;
  for (const std::string& call : expected) {
    if (call != "IsMultThreadable") expectedWithoutThreadQuestion.push_back(call);
  }
  EXPECT_EQ(calls, expectedWithoutThreadQuestion);
  EXPECT_EQ(algorithm.pixelsSeen, 2 * 16);

  // Each text is `before`, a number of milliseconds, `after` (no number for the thread count).
  struct Text {
    std::string before;
    std::string after;
  };
  const std::vector<Text> expectedTexts = {
      {"-------------  PhaseGenerator Initialize: ", " ms -------------------\n"},
      {"\tPhaseGenerator Initialize(0): ", " ms\n"},
      {"Generator Number Threads 1\n", ""},
      {"\tPhaseGenerator ProcessPixels: ", " ms\n"},
      {"\tPhaseGenerator PostProcess: ", " ms\n"},
      {"\tPhaseGenerator FinalizeThread: ", " ms\n"},
      {"\tPhaseGenerator Initialize(1): ", " ms\n"},
      {"Generator Number Threads 1\n", ""},
      {"\tPhaseGenerator ProcessPixels: ", " ms\n"},
      {"\tPhaseGenerator PostProcess: ", " ms\n"},
      {"\tPhaseGenerator FinalizeThread: ", " ms\n"}};
  ASSERT_EQ(texts.size(), expectedTexts.size());
  for (std::size_t i = 0; i < expectedTexts.size(); ++i) {
    const Text& e = expectedTexts[i];
    const std::string& text = texts[i];
    ASSERT_EQ(text.compare(0, e.before.size(), e.before), 0) << i << ": '" << text << "'";
    if (e.after.empty()) {
      EXPECT_EQ(text, e.before);
      continue;
    }
    const char* number = text.c_str() + e.before.size();
    char* rest = nullptr;
    const double milliseconds = std::strtod(number, &rest);
    EXPECT_NE(rest, number) << i << ": no number in '" << text << "'";
    EXPECT_GE(milliseconds, 0.0);
    EXPECT_EQ(std::string(rest), e.after) << i << ": '" << text << "'";
  }
}

// ---------------------------------------------------------------------------------------------
// Trace pixels

class TraceRecorder : public PhaseAlgorithmNone {
 public:
  int skip = 1;
  std::vector<int> traced;
  int GetSkipCount() const override { return skip; }
  int ProcessPixel(int thread, int pixel, int peak, int aux) override {
    if (IsDebuging(thread)) traced.push_back(pixel);
    return PhaseAlgorithmNone::ProcessPixel(thread, pixel, peak, aux);
  }
};

TEST(PhaseGeneratorTest, TracePixelsSkippedOverAreTracedThroughThePixelBefore) {
  ScanCase scan;
  MakeScan(scan, Settings(4, 8), TiltedStep);
  for (const int skip : {1, 4}) {
    TraceRecorder algorithm;
    algorithm.skip = skip;
    algorithm.SetScanIncrement(Nanometres(kStepNm));
    algorithm.AddTracePixel(6);  // with a stride of 4, pixels 0, 4, 8, ... are processed
    algorithm.AddTracePixel(12);
    PhaseGenerator generator(&algorithm);
    DoubleMatrix2D surface(4, 8);
    surface.SetAll(0.0);
    generator.Process(scan.frames, scan.peaks, scan.aux, surface);
    EXPECT_EQ(algorithm.traced, skip == 1 ? std::vector<int>({6, 12}) : std::vector<int>({4, 12}))
        << "skip " << skip;
    ASSERT_NE(algorithm.TracePixels(), nullptr);
    EXPECT_EQ(algorithm.TracePixels()->Size(), 0) << "the list is emptied by the pass";
  }
}

// ---------------------------------------------------------------------------------------------
// Signal loading

// An algorithm that keeps the signal and the peak it was handed for one pixel.
class SignalProbe : public PhaseAlgorithmNone {
 public:
  int watch = 0;
  std::vector<double> signal;
  int peakSeen = -999;
  int ProcessPixel(int thread, int pixel, int peak, int aux) override {
    if (pixel == watch) {
      signal.assign(GetDataArray(thread), GetDataArray(thread) + GetDataArraySize(thread));
      peakSeen = peak;
    }
    return PhaseAlgorithmNone::ProcessPixel(thread, pixel, peak, aux);
  }
};

// A 16-bit scan in which every sample holds its scan position plus one (frame f of a forward scan
// holds f + 1, frame f of a reversed scan F - f + 1), so a loaded signal shows which positions it
// was cut from. A ring keeps the frames around `ringCentre`.
void PositionScan(FrameBuffer& frames, int scanned, int stored, int direction, int ringCentre) {
  ASSERT_TRUE(frames.Allocate(Window2D(0, 0, 1, 2), scanned, FrameBuffer::kRes16Bit, stored, direction));
  stored = frames.GetFramesStored();
  const int first = stored == scanned ? 0
                    : (ringCentre >= stored / 2 && ringCentre < scanned - stored / 2)
                        ? ringCentre - stored / 2
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
  int stored;         // 0: whole scan
  int peak;           // stored-frame peak handed in
  int firstPosition;  // scan position (+1) of the first loaded sample
  int step;           // +1: ascending positions
  int peakSeen;
};

void PrintTo(const LoaderCase& c, std::ostream* os) {
  *os << c.name;
}

class SignalLoaderTest : public ::testing::TestWithParam<LoaderCase> {};

// What the algorithm receives, in scan positions. Forward windows are cut around the peak or, at
// the ends of the scan, are the first or last 64 frames with the peak moved to the window rules;
// reversed scans are mirrored into scan order with their peak p becoming F - p; a ring is unrolled
// around its peak.
TEST_P(SignalLoaderTest, CutsAndOrdersTheSignal) {
  const LoaderCase& c = GetParam();
  FrameBuffer frames;
  PositionScan(frames, kFrames, c.stored, c.direction, c.peak);
  IntMatrix2D peaks(1, 2), aux(1, 2);
  peaks.SetAll(c.peak);
  aux.SetAll(0);
  SignalProbe probe;
  probe.SetScanIncrement(Nanometres(kStepNm));
  PhaseGenerator generator(&probe);
  DoubleMatrix2D surface(1, 2);
  surface.SetAll(0.0);
  generator.Process(frames, peaks, aux, surface);
  ASSERT_EQ(probe.signal.size(), 64u);
  for (int k = 0; k < 64; ++k) {
    ASSERT_EQ(probe.signal[static_cast<std::size_t>(k)], c.firstPosition + c.step * k) << "sample " << k;
  }
  EXPECT_EQ(probe.peakSeen, c.peakSeen);
}

INSTANTIATE_TEST_SUITE_P(Layouts, SignalLoaderTest,
                         ::testing::Values(LoaderCase{"ForwardCentred", 1, 0, 100, 69, 1, 100},
                                           LoaderCase{"ForwardNearTheStart", 1, 0, 20, 1, 1, 32},
                                           LoaderCase{"ForwardNearTheEnd", 1, 0, 240, 193, 1, 223},
                                           LoaderCase{"ReversedCentred", -1, 0, 100, 125, 1, 156},
                                           LoaderCase{"ReversedNearTheStoredStart", -1, 0, 20, 2, 1, 236},
                                           LoaderCase{"ReversedNearTheStoredEnd", -1, 0, 240, 194, 1, 16},
                                           LoaderCase{"ForwardRing", 1, 64, 100, 69, 1, 100},
                                           LoaderCase{"ReversedRing", -1, 64, 100, 126, 1, 156}),
                         [](const ::testing::TestParamInfo<LoaderCase>& info) { return info.param.name; });

TEST(PhaseGeneratorTest, UnknownPeaksAreEstimatedFromTheSteepestRise) {
  // Forward whole scan, peak unknown (0): the steepest two-frame rise above 8 counts is taken.
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
  SignalProbe probe;
  probe.SetScanIncrement(Nanometres(kStepNm));
  PhaseGenerator generator(&probe);
  DoubleMatrix2D surface(1, 1);
  surface.SetAll(0.0);
  generator.Process(frames, peaks, aux, surface);
  EXPECT_EQ(probe.peakSeen, 152);
  EXPECT_EQ(surface(0, 0), 152 * kStepNm);

  // A signal without a rise above 8 counts keeps the unknown peak: the first 64 frames are loaded.
  for (int f = 0; f < kFrames; ++f) {
    const std::uint8_t value = static_cast<std::uint8_t>(100 + (f % 3));
    frames.StoreFrame(f, &value);
  }
  generator.Process(frames, peaks, aux, surface);
  EXPECT_EQ(probe.peakSeen, 0);
}

// The trivial algorithm without an intensity loads the whole scan unwindowed: a forward scan's
// height is its peak frame times the step, and the same surface scanned in reverse reads the same
// heights through the mirror F - p.
TEST(PhaseGeneratorTest, WholeUnwindowedScansGiveTheSameHeightsInBothDirections) {
  for (const int direction : {1, -1}) {
    Testing::ScanSettings s = Settings(6, 6);
    s.framesScanned = 64;
    s.scanDirection = direction;
    ScanCase scan;
    MakeScan(scan, s, [](int r, int c) { return 2000.0 + 40.0 * r + 17.0 * c; });
    PhaseAlgorithmNone none;
    none.SetRemoveFringes(FringeRemovalMethod::kNone);
    // Micrometres in, nanometres out.
    none.SetScanIncrement(UnitNumber(0.08, LinearConverter(Units::kMicrometers)));
    PhaseGenerator generator(&none);
    DoubleMatrix2D surface(6, 6);
    surface.SetAll(0.0);
    generator.Process(scan.frames, scan.peaks, scan.aux, surface);
    ASSERT_TRUE(generator.GetStatus().IsOk()) << generator.GetStatus().GetPrintString();
    for (int r = 0; r < 6; ++r) {
      for (int c = 0; c < 6; ++c) {
        const int forwardPeak = direction < 0 ? 64 - scan.peaks(r, c) : scan.peaks(r, c);
        EXPECT_NEAR(surface(r, c), forwardPeak * 80.0, 1e-9) << r << "," << c << " direction " << direction;
      }
    }
  }
}

// ---------------------------------------------------------------------------------------------
// The fast path (frames copied block by block) against the reference (samples read one by one)

// Keeps every pixel's loaded signal and peak; pixels of different threads go to different rows.
class SignalTable : public PhaseAlgorithmNone {
 public:
  bool discriminator = true;
  int skip = 1;
  std::vector<std::vector<double>> signals;
  std::vector<int> peaksSeen;
  bool NeedDiscriminator() const override { return discriminator; }
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
    return PhaseAlgorithmNone::ProcessPixel(thread, pixel, peak, aux);
  }
};

struct PathCase {
  std::string name;
  int direction;
  int scanned;
  int stored;          // 0: whole scan
  bool discriminator;  // false with a whole scan of 64 frames: loaded unwindowed
  int skip;
  int threads;
};

void PrintTo(const PathCase& c, std::ostream* os) {
  *os << c.name;
}

class FastPathTest : public ::testing::TestWithParam<PathCase> {};

// Both paths must hand every pixel the same samples and peak, for every loader, for peaks of every
// kind (unknown, negative, near either end, beyond the scan) and for partial blocks (a width that is
// not a multiple of the block), strides and threads.
TEST_P(FastPathTest, LoadsTheSameSignalsAsTheReference) {
  const PathCase& c = GetParam();
  Testing::ScanSettings s = Settings(7, 75);
  s.framesScanned = c.scanned;
  s.framesStored = c.stored;
  s.scanDirection = c.direction;
  s.resolution = FrameBuffer::kRes16Bit;
  s.biasCounts = 1600.0;
  s.modulationCounts = 900.0;
  ScanCase scan;
  MakeScan(scan, s,
           [&](int r, int col) { return (0.15 + 0.7 * (r * 75 + col) / 525.0) * c.scanned * kStepNm; });
  // Peaks of every kind on the first row.
  const int specials[] = {0, -3, 1, 31, 32, c.scanned - 33, c.scanned - 32, c.scanned - 1, c.scanned + 7};
  for (int i = 0; i < 9; ++i)
    scan.peaks(0, 3 * i) = specials[i];
  std::vector<std::vector<double>> signals[2];
  std::vector<int> peaks[2];
  DoubleMatrix2D surfaces[2];
  int workers = 1;
  for (const bool fast : {false, true}) {
    SignalTable table;
    table.discriminator = c.discriminator;
    table.skip = c.skip;
    table.SetRemoveFringes(c.discriminator ? FringeRemovalMethod::kStandard : FringeRemovalMethod::kNone);
    table.SetScanIncrement(Nanometres(kStepNm));
    PhaseGenerator generator(&table);
    generator.SetUseFastPath(fast);
    generator.SetAllowMultiThreads(c.threads > 1);
    generator.SetMaxNumThreads(c.threads);
    DoubleMatrix2D& surface = surfaces[fast ? 1 : 0];
    surface.Resize(0, 0, 7, 75);
    surface.SetAll(0.0);
    generator.Process(scan.frames, scan.peaks, scan.aux, surface);
    ASSERT_TRUE(generator.GetStatus().IsOk()) << generator.GetStatus().GetPrintString();
    workers = c.threads > 1 ? generator.GetMaxNumThreads() : 1;
    signals[fast ? 1 : 0] = table.signals;
    peaks[fast ? 1 : 0] = table.peaksSeen;
  }
  int loaded = 0;
  for (std::size_t p = 0; p < signals[0].size(); ++p) {
    ASSERT_EQ(signals[1][p], signals[0][p]) << "pixel " << p;
    ASSERT_EQ(peaks[1][p], peaks[0][p]) << "pixel " << p;
    ASSERT_EQ(surfaces[1].At(static_cast<std::int64_t>(p)), surfaces[0].At(static_cast<std::int64_t>(p)));
    loaded += signals[0][p].empty() ? 0 : 1;
  }
  // Each worker's range is strided from its own first pixel.
  int expected = 0;
  for (int i = 0; i < workers; ++i) {
    const int first = i * 525 / workers, last = (i + 1) * 525 / workers;
    expected += (last - first + c.skip - 1) / c.skip;
  }
  EXPECT_EQ(loaded, expected);
}

INSTANTIATE_TEST_SUITE_P(Loaders, FastPathTest,
                         ::testing::Values(PathCase{"ForwardWindowed", 1, 200, 0, true, 1, 1},
                                           PathCase{"ForwardWindowedThreadsStride", 1, 200, 0, true, 3, 3},
                                           PathCase{"ForwardWhole", 1, 64, 0, false, 1, 1},
                                           PathCase{"ForwardRing", 1, 200, 64, true, 1, 2},
                                           PathCase{"ReversedWindowed", -1, 200, 0, true, 1, 1},
                                           PathCase{"ReversedWindowedThreadsStride", -1, 200, 0, true, 2, 3},
                                           PathCase{"ReversedWhole", -1, 64, 0, false, 1, 1},
                                           PathCase{"ReversedRing", -1, 200, 64, true, 1, 2}),
                         [](const ::testing::TestParamInfo<PathCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// The same surface in every layout

enum class Algorithm { kCentroid, kFda };

struct LayoutCase {
  Algorithm algorithm;
  FrameBuffer::ElementRes resolution;
};

class ScanLayoutTest : public ::testing::TestWithParam<LayoutCase> {
 protected:
  DoubleMatrix2D Heights(int direction, int stored) {
    Testing::ScanSettings s = Settings();
    s.scanDirection = direction;
    s.framesStored = stored;
    s.resolution = GetParam().resolution;
    if (s.resolution == FrameBuffer::kRes16Bit) {
      // A 12-bit camera's counts in 16-bit samples.
      s.biasCounts = 1600.0;
      s.modulationCounts = 960.0;
      s.noiseSigmaCounts = 16.0;
    }
    ScanCase scan;
    MakeScan(scan, s, TiltedStep);
    if (s.resolution == FrameBuffer::kRes16Bit) scan.frames.SetMaxValue(4095);
    PhaseAlgorithmCentroid centroid;
    PhaseAlgorithmFda fda;
    PhaseAlgorithm& algorithm =
        GetParam().algorithm == Algorithm::kCentroid ? static_cast<PhaseAlgorithm&>(centroid) : fda;
    return Evaluate(algorithm, scan);
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
  const double tolerance =
      GetParam().algorithm == Algorithm::kFda ? 0.5 : 0.05 * Testing::CoherenceLengthNm({});
  for (std::int64_t i = 0; i < forward.GetCount(); ++i) {
    if (!DoubleMatrix2D::IsDataValid(forward.At(i))) continue;
    EXPECT_NEAR(reversedRing.At(i), forward.At(i) - kStepNm, tolerance) << "pixel " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Algorithms, ScanLayoutTest,
                         ::testing::Values(LayoutCase{Algorithm::kCentroid, FrameBuffer::kRes8Bit},
                                           LayoutCase{Algorithm::kCentroid, FrameBuffer::kRes16Bit},
                                           LayoutCase{Algorithm::kFda, FrameBuffer::kRes8Bit},
                                           LayoutCase{Algorithm::kFda, FrameBuffer::kRes16Bit}));

// ---------------------------------------------------------------------------------------------
// The surface handed in is the input mask

TEST(PhaseGeneratorTest, PixelsMarkedNoDataAreSkippedButKeepTheirIntensity) {
  ScanCase scan;
  MakeScan(scan, Settings(), TiltedStep);
  for (const bool fda : {false, true}) {
    PhaseAlgorithmCentroid centroid;
    PhaseAlgorithmFda frequency;
    PhaseAlgorithm& algorithm = fda ? static_cast<PhaseAlgorithm&>(frequency) : centroid;
    const DoubleMatrix2D all = Evaluate(algorithm, scan);
    const IntMatrix2D allIntensity = algorithm.GetIntensityMatrix();

    // Evaluate only a disc; any value marks a pixel to evaluate.
    DoubleMatrix2D surface(16, 24);
    for (int r = 0; r < 16; ++r) {
      for (int c = 0; c < 24; ++c) {
        const bool inside = (r - 8) * (r - 8) + (c - 12) * (c - 12) < 36;
        surface(r, c) = inside ? -123.0 : DoubleMatrix2D::NoData();
      }
    }
    PhaseGenerator generator(&algorithm);
    generator.Process(scan.frames, scan.peaks, scan.aux, surface);
    ASSERT_TRUE(generator.GetStatus().IsOk()) << generator.GetStatus().GetPrintString();
    const IntMatrix2D& intensity = algorithm.GetIntensityMatrix();
    for (int r = 0; r < 16; ++r) {
      for (int c = 0; c < 24; ++c) {
        const bool inside = (r - 8) * (r - 8) + (c - 12) * (c - 12) < 36;
        if (inside && !fda) {
          EXPECT_EQ(surface(r, c), all(r, c)) << r << "," << c;
        } else if (inside) {
          // The frequency-domain heights depend on the field's mean wavenumber, which is now the
          // disc's: equal to well within the measurement noise.
          EXPECT_NEAR(surface(r, c), all(r, c), 0.05) << r << "," << c;
        } else {
          EXPECT_TRUE(DoubleMatrix2D::IsNoData(surface(r, c))) << r << "," << c;
        }
        // The intensity is made everywhere, masked or not, and is the same as without the mask.
        EXPECT_EQ(intensity(r, c), allIntensity(r, c)) << r << "," << c;
        EXPECT_NEAR(intensity(r, c), scan.settings.biasCounts, 6.0) << r << "," << c;
      }
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Threads

class ThreadCountTest : public ::testing::TestWithParam<int> {};

// Every thread count gives the single-threaded maps bit for bit, including the field quantities
// of the frequency-domain analysis (mean wavenumber, average gap) that are sums over all pixels.
TEST_P(ThreadCountTest, ResultsAreIdenticalToOneThread) {
  Testing::ScanSettings s = Settings(23, 29);  // a pixel count that does not divide evenly
  s.reflectionPhaseRad = 1.3;
  ScanCase scan;
  MakeScan(scan, s, TiltedStep);
  for (const Algorithm kind : {Algorithm::kCentroid, Algorithm::kFda}) {
    PhaseAlgorithmCentroid centroid1, centroidN;
    PhaseAlgorithmFda fda1, fdaN;
    PhaseAlgorithm& one = kind == Algorithm::kCentroid ? static_cast<PhaseAlgorithm&>(centroid1) : fda1;
    PhaseAlgorithm& many = kind == Algorithm::kCentroid ? static_cast<PhaseAlgorithm&>(centroidN) : fdaN;
    const DoubleMatrix2D single = Evaluate(one, scan, 0);
    const DoubleMatrix2D threaded = Evaluate(many, scan, GetParam());
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

INSTANTIATE_TEST_SUITE_P(Threads, ThreadCountTest, ::testing::Values(1, 2, 3, 5, 8));

// ---------------------------------------------------------------------------------------------
// Allocations

// Buffers are made per pass and per thread, never per pixel: a run over 36 times the pixels makes
// exactly as many allocations.
TEST(PhaseGeneratorTest, AllocationsDoNotGrowWithThePixelCount) {
  for (const int threads : {0, 3}) {
    for (const Algorithm kind : {Algorithm::kCentroid, Algorithm::kFda}) {
      long counts[2] = {0, 0};
      const int sides[2] = {8, 48};
      for (int i = 0; i < 2; ++i) {
        ScanCase scan;
        MakeScan(scan, Settings(sides[i], sides[i]), TiltedStep);
        PhaseAlgorithmCentroid centroid;
        PhaseAlgorithmFda fda;
        PhaseAlgorithm& algorithm =
            kind == Algorithm::kCentroid ? static_cast<PhaseAlgorithm&>(centroid) : fda;
        algorithm.SetScanIncrement(Nanometres(kStepNm));
        PhaseGenerator generator(&algorithm);
        generator.SetAllowMultiThreads(threads > 0);
        generator.SetMaxNumThreads(threads);
        DoubleMatrix2D surface(sides[i], sides[i]);
        surface.SetAll(0.0);
        generator.Process(scan.frames, scan.peaks, scan.aux, surface);  // first run: lazily made members
        generator.SetMaxNumThreads(threads);
        const long before = gAllocations.load();
        generator.Process(scan.frames, scan.peaks, scan.aux, surface);
        counts[i] = gAllocations.load() - before;
        ASSERT_TRUE(generator.GetStatus().IsOk()) << generator.GetStatus().GetPrintString();
      }
      EXPECT_EQ(counts[1], counts[0])
          << "threads " << threads << (kind == Algorithm::kFda ? " fda" : " centroid");
    }
  }
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

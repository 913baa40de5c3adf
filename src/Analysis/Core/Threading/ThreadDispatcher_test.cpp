#include "Analysis/Core/Threading/ThreadDispatcher.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace Quarn::Metrology::Analysis::Core::Threading {
namespace {

using Chunks = std::vector<std::pair<int, int>>;

// A work object that records which chunk each worker got and writes f(i) for its elements.
class Recorder {
 public:
  explicit Recorder(int size) : values(size, 0.0), chunks(64, {-1, -1}), threads(64) {}

  static double F(int i) { return std::sqrt(static_cast<double>(i)) * 3.0; }
  void Fill(int thread, int first, int end) {
    chunks[thread] = {first, end};
    threads[thread] = std::this_thread::get_id();
    for (int i = first; i < end; ++i)
      values[i] = F(i);
  }
  void FillRange(int first, int end) {
    for (int i = first; i < end; ++i)
      values[i] = F(i);
  }
  void FillWithData(void* data, int /*thread*/, int first, int end) {
    for (int i = first; i < end; ++i)
      values[i] = F(i) * *static_cast<double*>(data);
  }
  // Chunks of odd workers fail through their delegate status; the others succeed.
  void FailOdd(int thread, int first, int end) {
    Fill(thread, first, end);
    if (thread % 2 == 1) {
      dispatcher->GetDelegateStatus(thread) = Status(
          0, StatusCode::kCallFailed, 100u + static_cast<unsigned>(thread), "test\\Recorder", "chunk failed");
    }
  }
  void Throw(int, int, int) { throw std::runtime_error("boom"); }
  // Holds every worker until all have started: only passes when the chunks really run at once.
  void Rendezvous(int thread, int first, int end) {
    arrived.fetch_add(1);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (arrived.load() < expectedConcurrent && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    Fill(thread, first, end);
  }
  Chunks FirstChunks(int n) const { return Chunks(chunks.begin(), chunks.begin() + n); }

  std::vector<double> values;
  Chunks chunks;
  std::vector<std::thread::id> threads;
  ThreadDispatcher<Recorder>* dispatcher = nullptr;
  std::atomic<int> arrived{0};
  int expectedConcurrent = 0;
};

TEST(ThreadDispatcherTest, ChunksAreContiguousAndEmptyRangesRunNothing) {
  ThreadPool pool(4);
  Recorder recorder(110);
  ThreadDispatcher<Recorder> dispatcher(&recorder, &pool, 4);
  dispatcher.SetNumberOfWorkers(4);
  dispatcher.Invoke(&Recorder::Fill, 0, 10);
  EXPECT_EQ(recorder.FirstChunks(4), (Chunks{{0, 2}, {2, 5}, {5, 7}, {7, 10}}));
  dispatcher.Invoke(&Recorder::Fill, 100, 110);
  EXPECT_EQ(recorder.FirstChunks(4), (Chunks{{100, 102}, {102, 105}, {105, 107}, {107, 110}}));

  recorder.chunks.assign(64, {-1, -1});
  for (const auto& [first, end] : Chunks{{5, 5}, {5, 2}}) {
    dispatcher.Invoke(&Recorder::Fill, first, end);
    EXPECT_EQ(dispatcher.GetStatus().GetCode(), StatusCode::kNotSet) << first << ".." << end;
    EXPECT_EQ(dispatcher.GetStatus().GetFile(), "Analysis\\Core/Threading/ThreadDispatcher");
  }
  EXPECT_EQ(recorder.chunks[0], std::make_pair(-1, -1));
  EXPECT_EQ(dispatcher.GetNumberOfWorkers(), 4) << "a rejected range does not lower the worker count";
}

TEST(ThreadDispatcherTest, ShortRangeLowersTheWorkerCountForLaterCalls) {
  ThreadPool pool(2);
  Recorder recorder(100);
  ThreadDispatcher<Recorder> dispatcher(&recorder, &pool, 8);
  dispatcher.SetNumberOfWorkers(8);
  dispatcher.Invoke(&Recorder::Fill, 0, 3);
  EXPECT_EQ(dispatcher.GetNumberOfWorkers(), 3);
  EXPECT_EQ(recorder.FirstChunks(3), (Chunks{{0, 1}, {1, 2}, {2, 3}}));
  recorder.chunks.assign(64, {-1, -1});
  dispatcher.Invoke(&Recorder::Fill, 0, 100);
  EXPECT_EQ(recorder.FirstChunks(4), (Chunks{{0, 33}, {33, 66}, {66, 100}, {-1, -1}}))
      << "the lowered count persists";

  for (const auto& [requested, expected] : Chunks{{0, 1}, {-5, 1}, {100, 8}, {5, 5}}) {
    dispatcher.SetNumberOfWorkers(requested);
    EXPECT_EQ(dispatcher.GetNumberOfWorkers(), expected) << "requested " << requested;
  }
  dispatcher.ResetNumberOfWorkers();
  EXPECT_EQ(dispatcher.GetNumberOfWorkers(), 8);
}

TEST(ThreadDispatcherTest, FirstFailingWorkerStatusIsThrown) {
  ThreadPool pool(4);
  Recorder recorder(40);
  ThreadDispatcher<Recorder> dispatcher(&recorder, &pool, 4);
  recorder.dispatcher = &dispatcher;
  dispatcher.SetNumberOfWorkers(4);
  try {
    dispatcher.Invoke(&Recorder::FailOdd, 0, 40);
    FAIL() << "a failed chunk must reach the caller";
  } catch (const Status& thrown) {
    EXPECT_EQ(thrown.GetCode(), StatusCode::kCallFailed);
    EXPECT_EQ(thrown.GetLine(), 101u) << "worker 1 is the first failing one in worker order";
  }
  EXPECT_EQ(recorder.values[39], Recorder::F(39)) << "every chunk still ran";
  EXPECT_NO_THROW(dispatcher.Invoke(&Recorder::Fill, 0, 40)) << "the next run starts clean";

  // An exception escaping a work function reaches the caller as a status too, pooled or not.
  for (int workers : {1, 4}) {
    dispatcher.SetNumberOfWorkers(workers);
    try {
      dispatcher.Invoke(&Recorder::Throw, 0, 8);
      FAIL() << workers << " workers";
    } catch (const Status& thrown) {
      EXPECT_EQ(thrown.GetCode(), StatusCode::kCallFailed);
      EXPECT_EQ(thrown.GetMessage(), "Unhandled exception") << workers << " workers";
    }
  }
}

// Every worker count, with every work-function shape, gives the serial result.
TEST(ThreadDispatcherTest, EveryWorkerCountMatchesTheSerialResult) {
  ThreadPool pool(3);
  constexpr int kSize = 1001;
  Recorder serial(kSize);
  serial.Fill(0, 0, kSize);
  std::vector<double> doubled = serial.values;
  for (double& v : doubled)
    v *= 2.0;
  double scale = 2.0;
  for (int workers : {1, 2, 3, 7}) {
    Recorder plain(kSize), ranged(kSize), scaled(kSize);
    ThreadDispatcher<Recorder> dispatcher(&plain, &pool, 16);
    dispatcher.SetNumberOfWorkers(workers);
    dispatcher.Invoke(&Recorder::Fill, 0, kSize);
    dispatcher.SetObject(&ranged);
    dispatcher.Invoke(&Recorder::FillRange, 0, kSize);
    dispatcher.SetObject(&scaled);
    dispatcher.Invoke(&Recorder::FillWithData, &scale, 0, kSize);
    EXPECT_EQ(plain.values, serial.values) << workers << " workers";
    EXPECT_EQ(ranged.values, serial.values) << workers << " workers";
    EXPECT_EQ(scaled.values, doubled) << workers << " workers";
  }
}

TEST(ThreadDispatcherTest, ChunksReallyRunConcurrentlyOnPoolThreads) {
  ThreadPool pool(4);
  Recorder recorder(400);
  recorder.expectedConcurrent = 4;
  ThreadDispatcher<Recorder> dispatcher(&recorder, &pool, 4);
  dispatcher.SetNumberOfWorkers(4);
  dispatcher.Invoke(&Recorder::Rendezvous, 0, 400);
  EXPECT_EQ(recorder.arrived.load(), 4);
  std::set<std::thread::id> distinct(recorder.threads.begin(), recorder.threads.begin() + 4);
  EXPECT_EQ(distinct.size(), 4u) << "four chunks that wait for each other need four threads";
  EXPECT_EQ(distinct.count(std::this_thread::get_id()), 0u) << "the caller only waits";
}

TEST(ThreadDispatcherTest, CopiesAndDetachedPools) {
  ThreadPool pool(2);
  Recorder a(20), b(20);
  ThreadDispatcher<Recorder> original(&a, &pool, 3);
  EXPECT_EQ(pool.GetNumberOfUsers(), 1);
  {
    ThreadDispatcher<Recorder> copy(original);
    EXPECT_EQ(pool.GetNumberOfUsers(), 2);
    copy.SetObject(&b);
    copy.SetNumberOfWorkers(3);
    copy.Invoke(&Recorder::Fill, 0, 20);
    EXPECT_EQ(b.values[19], Recorder::F(19));
    EXPECT_EQ(a.values[19], 0.0) << "the copy works on its own object";
  }
  EXPECT_EQ(pool.GetNumberOfUsers(), 1);

  original.SetPool(nullptr);
  EXPECT_EQ(pool.GetNumberOfUsers(), 0);
  original.SetNumberOfWorkers(3);
  original.Invoke(&Recorder::Fill, 0, 20);
  EXPECT_EQ(a.values[19], Recorder::F(19)) << "without a pool the chunks run on the caller";
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core::Threading

#include "Analysis/Core/Threading/ThreadDispatcher.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace Quarn::Metrology::Analysis::Core::Threading {
namespace {

// A work object that records which chunk each worker got and writes f(i) for its elements.
class Recorder {
 public:
  explicit Recorder(int size)
      : values(static_cast<std::size_t>(size), 0.0), chunks(64, {-1, -1}), threads(64) {}

  void Fill(int thread, int first, int end) {
    chunks[static_cast<std::size_t>(thread)] = {first, end};
    threads[static_cast<std::size_t>(thread)] = std::this_thread::get_id();
    for (int i = first; i < end; ++i)
      values[static_cast<std::size_t>(i)] = std::sqrt(static_cast<double>(i)) * 3.0;
  }
  void FillRange(int first, int end) {
    for (int i = first; i < end; ++i)
      values[static_cast<std::size_t>(i)] = 1.0;
  }
  void FillWithData(void* data, int thread, int first, int end) {
    const double scale = *static_cast<double*>(data);
    Fill(thread, first, end);
    for (int i = first; i < end; ++i)
      values[static_cast<std::size_t>(i)] *= scale;
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

  std::vector<double> values;
  std::vector<std::pair<int, int>> chunks;
  std::vector<std::thread::id> threads;
  ThreadDispatcher<Recorder>* dispatcher = nullptr;
  std::atomic<int> arrived{0};
  int expectedConcurrent = 0;
};

TEST(ThreadDispatcherTest, ChunksAreContiguousAndDifferByAtMostOne) {
  ThreadPool pool(4);
  Recorder recorder(110);
  ThreadDispatcher<Recorder> dispatcher(&recorder, &pool, 4);
  dispatcher.SetNumberOfWorkers(4);
  dispatcher.Invoke(&Recorder::Fill, 0, 10);
  const std::vector<std::pair<int, int>> expected = {{0, 2}, {2, 5}, {5, 7}, {7, 10}};
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(recorder.chunks[static_cast<std::size_t>(i)], expected[static_cast<std::size_t>(i)])
        << "worker " << i;

  // An offset range splits the same way.
  dispatcher.Invoke(&Recorder::Fill, 100, 110);
  EXPECT_EQ(recorder.chunks[1], std::make_pair(102, 105));
}

TEST(ThreadDispatcherTest, ShortRangeLowersTheWorkerCountForLaterCalls) {
  ThreadPool pool(2);
  Recorder recorder(100);
  ThreadDispatcher<Recorder> dispatcher(&recorder, &pool, 8);
  dispatcher.SetNumberOfWorkers(8);
  EXPECT_EQ(dispatcher.GetNumberOfWorkers(), 8);
  dispatcher.Invoke(&Recorder::Fill, 0, 3);
  EXPECT_EQ(dispatcher.GetNumberOfWorkers(), 3);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(recorder.chunks[static_cast<std::size_t>(i)], std::make_pair(i, i + 1));
  recorder.chunks.assign(64, {-1, -1});
  dispatcher.Invoke(&Recorder::Fill, 0, 100);
  EXPECT_EQ(recorder.chunks[3], std::make_pair(-1, -1)) << "the lowered count persists";
  EXPECT_EQ(recorder.chunks[2], std::make_pair(66, 100));

  dispatcher.SetNumberOfWorkers(0);
  EXPECT_EQ(dispatcher.GetNumberOfWorkers(), 1);
  dispatcher.SetNumberOfWorkers(-5);
  EXPECT_EQ(dispatcher.GetNumberOfWorkers(), 1);
  dispatcher.SetNumberOfWorkers(100);
  EXPECT_EQ(dispatcher.GetNumberOfWorkers(), 8) << "capped at the capacity";
  dispatcher.ResetNumberOfWorkers();
  EXPECT_EQ(dispatcher.GetNumberOfWorkers(), 8);
}

TEST(ThreadDispatcherTest, EmptyRangeWithSeveralWorkersIsCode21AndRunsNothing) {
  ThreadPool pool(2);
  Recorder recorder(4);
  ThreadDispatcher<Recorder> dispatcher(&recorder, &pool, 4);
  dispatcher.SetNumberOfWorkers(4);
  dispatcher.Invoke(&Recorder::Fill, 5, 5);
  EXPECT_EQ(dispatcher.GetStatus().GetCode(), StatusCode::kNotSet);
  EXPECT_EQ(dispatcher.GetStatus().GetFile(), "Analysis\\Core/Threading/ThreadDispatcher");
  EXPECT_EQ(recorder.chunks[0], std::make_pair(-1, -1));
  dispatcher.Invoke(&Recorder::Fill, 5, 2);
  EXPECT_EQ(dispatcher.GetStatus().GetCode(), StatusCode::kNotSet);
  EXPECT_EQ(dispatcher.GetNumberOfWorkers(), 4) << "a rejected range does not lower the worker count";
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
  for (int i = 1; i < 40; ++i)
    EXPECT_NE(recorder.values[static_cast<std::size_t>(i)], 0.0) << "every chunk still ran";

  // The next run starts with clean delegate statuses.
  EXPECT_NO_THROW(dispatcher.Invoke(&Recorder::Fill, 0, 40));
}

TEST(ThreadDispatcherTest, ExceptionInAWorkFunctionBecomesUnhandledException) {
  ThreadPool pool(2);
  Recorder recorder(8);
  for (int workers : {1, 2}) {
    ThreadDispatcher<Recorder> dispatcher(&recorder, &pool, 2);
    dispatcher.SetNumberOfWorkers(workers);
    try {
      dispatcher.Invoke(&Recorder::Throw, 0, 8);
      FAIL() << workers << " workers";
    } catch (const Status& thrown) {
      EXPECT_EQ(thrown.GetCode(), StatusCode::kCallFailed);
      EXPECT_EQ(thrown.GetMessage(), "Unhandled exception");
    }
  }
}

// Every worker count gives the serial result.
TEST(ThreadDispatcherTest, EveryWorkerCountMatchesTheSerialResult) {
  ThreadPool pool(3);
  Recorder serial(1001);
  serial.Fill(0, 0, 1001);
  for (int workers = 1; workers <= 9; ++workers) {
    Recorder parallel(1001);
    ThreadDispatcher<Recorder> dispatcher(&parallel, &pool, 16);
    dispatcher.SetNumberOfWorkers(workers);
    dispatcher.Invoke(&Recorder::Fill, 0, 1001);
    EXPECT_EQ(parallel.values, serial.values) << workers << " workers";
  }
  Recorder plain(50);
  ThreadDispatcher<Recorder> dispatcher(&plain, &pool, 4);
  dispatcher.SetNumberOfWorkers(4);
  dispatcher.Invoke(&Recorder::FillRange, 0, 50);
  double scale = 2.0;
  Recorder scaled(50);
  ThreadDispatcher<Recorder> withData(&scaled, &pool, 4);
  withData.SetNumberOfWorkers(4);
  withData.Invoke(&Recorder::FillWithData, &scale, 0, 50);
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(plain.values[static_cast<std::size_t>(i)], 1.0);
    EXPECT_EQ(scaled.values[static_cast<std::size_t>(i)], 2.0 * serial.values[static_cast<std::size_t>(i)]);
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
    EXPECT_EQ(b.values[19], std::sqrt(19.0) * 3.0);
    EXPECT_EQ(a.values[19], 0.0) << "the copy works on its own object";
  }
  EXPECT_EQ(pool.GetNumberOfUsers(), 1);

  original.SetPool(nullptr);
  EXPECT_EQ(pool.GetNumberOfUsers(), 0);
  original.SetNumberOfWorkers(3);
  original.Invoke(&Recorder::Fill, 0, 20);
  EXPECT_EQ(a.values[19], std::sqrt(19.0) * 3.0) << "without a pool the chunks run on the caller";
}

TEST(ThreadDispatcherTest, DefaultsComeFromTheProcessorCount) {
  Recorder recorder(1);
  ThreadDispatcher<Recorder> dispatcher(&recorder);
  const int processors = CpuCounter::Instance().GetNumberOfProcessors();
  EXPECT_EQ(dispatcher.GetNumberOfThreads(), processors);
  EXPECT_EQ(dispatcher.GetNumberOfWorkers(), processors);
  EXPECT_EQ(dispatcher.GetPool(), ThreadPool::GetGlobalPool());
  ThreadDispatcher<Recorder> wide(&recorder, nullptr, processors + 4);
  EXPECT_EQ(wide.GetNumberOfThreads(), processors + 4);
  EXPECT_EQ(wide.GetNumberOfWorkers(), processors) << "workers start at min(processors, threads)";
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core::Threading

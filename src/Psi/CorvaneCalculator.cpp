#include "Psi/CorvaneCalculator.h"

#include <cstdint>
#include <string>
#include <type_traits>

#include "Psi/Corvane13.h"
#include "Psi/Corvane7.h"
#include "Psi/detail/PixelWalk.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

using Analysis::Core::CopyIfFailed;
using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::FrameBuffer;
using Analysis::Core::RegionIdMatrix2D;
using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "Psi\\CorvaneCalculator";
}  // namespace

CorvaneCalculator::CorvaneCalculator() : dispatcher_(this, nullptr, -1, 0), status_(__LINE__, kSource) {}

CorvaneCalculator::CorvaneCalculator(const CorvaneCalculator& other)
    : algorithm_(other.algorithm_),
      minimumModulation_(other.minimumModulation_),
      scanPeriod_(other.scanPeriod_),
      allowMultipleThreads_(other.allowMultipleThreads_),
      dispatcher_(other.dispatcher_),
      status_(other.status_) {
  dispatcher_.SetObject(this);
}

CorvaneCalculator& CorvaneCalculator::operator=(const CorvaneCalculator& other) {
  if (this == &other) return *this;
  algorithm_ = other.algorithm_;
  minimumModulation_ = other.minimumModulation_;
  scanPeriod_ = other.scanPeriod_;
  allowMultipleThreads_ = other.allowMultipleThreads_;
  dispatcher_ = other.dispatcher_;
  dispatcher_.SetObject(this);
  status_ = other.status_;
  return *this;
}

CorvaneCalculator::~CorvaneCalculator() = default;

void CorvaneCalculator::SetNumberOfThreads(int n) {
  dispatcher_ =
      Analysis::Core::Threading::ThreadDispatcher<CorvaneCalculator>(this, nullptr, n <= 0 ? -1 : n, 0);
}

void CorvaneCalculator::Calculate(FrameBuffer& frames, DoubleMatrix2D& out) {
  Calculate(frames, nullptr, out);
}

void CorvaneCalculator::Calculate(FrameBuffer& frames, RegionIdMatrix2D* regions, DoubleMatrix2D& out) {
  try {
    Run(frames, regions, out);
  } catch (const Status& thrown) {
    status_ = thrown;  // a worker's failure, raised by the dispatcher
  } catch (...) {
    status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Unhandled exception");
  }
}

void CorvaneCalculator::Run(FrameBuffer& frames, RegionIdMatrix2D* regions, DoubleMatrix2D& out) {
  if (!algorithm_) {
    status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "");
    return;
  }
  if (scanPeriod_ < 1) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                     "The scan period must be at least 1, it is " + std::to_string(scanPeriod_));
    return;
  }
  if (allowMultipleThreads_) {
    dispatcher_.ResetNumberOfWorkers();
  } else {
    dispatcher_.SetNumberOfWorkers(1);
  }
  const int workers = dispatcher_.GetNumberOfWorkers();

  frameBuffer_ = &frames;
  regionMask_ = regions;
  const int numberOfPixels = frames.GetPixelCount();

  algorithm_->SetFrameBuffer(&frames);
  algorithm_->SetCorvaneMatrix(&out);
  algorithm_->SetMinimumModulation(minimumModulation_);
  algorithm_->Intialize(workers);
  if (CopyIfFailed(status_, algorithm_->GetStatus())) return;

  // Every worker, the calling thread's included, gathers samples into its own scratch slot.
  if (CopyIfFailed(status_, frames.MakeThreadData(workers))) return;

  detail::PixelWalk walk;
  if (CopyIfFailed(status_, walk.Prepare(frames.GetAllocatedWindow(), regions, scanPeriod_))) return;

  dispatcher_.GetStatus().ClearError();
  dispatcher_.Invoke(&CorvaneCalculator::ProcessPixels, &walk, 0, numberOfPixels);
  if (CopyIfFailed(status_, dispatcher_.GetStatus())) return;
  if (CopyIfFailed(status_, algorithm_->GetStatus())) return;

  algorithm_->PostProcess();
  CopyIfFailed(status_, algorithm_->GetStatus());
}

// The sample type and the algorithm's class are decided once per range; for the built-in
// algorithms the per-pixel call then binds statically.
void CorvaneCalculator::ProcessPixels(void* walk, int thread, int first, int end) {
  const auto visit = [&](auto& algorithm) {
    using Algorithm = std::remove_reference_t<decltype(algorithm)>;
    switch (frameBuffer_->GetElementRes()) {
      case FrameBuffer::kRes8Bit:
        Walk<std::uint8_t, unsigned char, Algorithm>(algorithm, walk, thread, first, end);
        break;
      case FrameBuffer::kRes16Bit:
        Walk<std::uint16_t, int, Algorithm>(algorithm, walk, thread, first, end);
        break;
      case FrameBuffer::kRes32Bit:
        Walk<std::int32_t, int, Algorithm>(algorithm, walk, thread, first, end);
        break;
    }
  };
  if (auto* seven = dynamic_cast<Corvane7*>(algorithm_)) {
    visit(*seven);
  } else if (auto* thirteen = dynamic_cast<Corvane13*>(algorithm_)) {
    visit(*thirteen);
  } else {
    visit(*algorithm_);
  }
}

template <typename Stored, typename Sample, typename Algorithm>
void CorvaneCalculator::Walk(Algorithm& algorithm, const void* walk, int thread, int first, int end) {
  FrameBuffer& frames = *frameBuffer_;
  static_cast<const detail::PixelWalk*>(walk)->ForEach(first, end, [&](int p) {
    const Sample* samples = frames.ExtractIndexAs<Stored, Sample>(thread, p);
    algorithm.ProcessPixel(thread, p, samples);
  });
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

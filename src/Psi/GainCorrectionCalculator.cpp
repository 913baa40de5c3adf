#include "Psi/GainCorrectionCalculator.h"

#include <cstdint>
#include <string>
#include <type_traits>

#include "Psi/GainCorrectionPmi.h"
#include "Psi/GainCorrectionSinPsi.h"
#include "Psi/detail/PixelWalk.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

using Analysis::Core::CopyIfFailed;
using Analysis::Core::FrameBuffer;
using Analysis::Core::RegionIdMatrix2D;
using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "Psi\\GainCorrectionCalculator";
constexpr double kNoData = Analysis::Core::kNoDataDouble;
}  // namespace

GainCorrectionCalculator::GainCorrectionCalculator()
    : dispatcher_(this, nullptr, -1, 0), status_(__LINE__, kSource) {}

GainCorrectionCalculator::GainCorrectionCalculator(const GainCorrectionCalculator& other)
    : algorithm_(other.algorithm_),
      minimumModulation_(other.minimumModulation_),
      scanPeriod_(other.scanPeriod_),
      allowMultipleThreads_(other.allowMultipleThreads_),
      gainCorrection_(other.gainCorrection_),
      dispatcher_(other.dispatcher_),
      status_(other.status_) {
  dispatcher_.SetObject(this);
}

GainCorrectionCalculator& GainCorrectionCalculator::operator=(const GainCorrectionCalculator& other) {
  if (this == &other) return *this;
  algorithm_ = other.algorithm_;
  minimumModulation_ = other.minimumModulation_;
  scanPeriod_ = other.scanPeriod_;
  allowMultipleThreads_ = other.allowMultipleThreads_;
  gainCorrection_ = other.gainCorrection_;
  dispatcher_ = other.dispatcher_;
  dispatcher_.SetObject(this);
  status_ = other.status_;
  return *this;
}

GainCorrectionCalculator::~GainCorrectionCalculator() = default;

void GainCorrectionCalculator::SetNumberOfThreads(int n) {
  dispatcher_ = Analysis::Core::Threading::ThreadDispatcher<GainCorrectionCalculator>(this, nullptr,
                                                                                      n <= 0 ? -1 : n, 0);
}

void GainCorrectionCalculator::Calculate(FrameBuffer& frames) {
  Calculate(frames, nullptr);
}

void GainCorrectionCalculator::Calculate(FrameBuffer& frames, RegionIdMatrix2D* regions) {
  // A run that fails must not leave the number of an earlier run behind.
  gainCorrection_ = kNoData;
  try {
    Run(frames, regions);
  } catch (const Status& thrown) {
    status_ = thrown;  // a worker's failure, raised by the dispatcher
  } catch (...) {
    status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Unhandled exception");
  }
}

void GainCorrectionCalculator::Run(FrameBuffer& frames, RegionIdMatrix2D* regions) {
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
  algorithm_->SetMinimumModulation(minimumModulation_);
  algorithm_->Intialize(workers);
  if (CopyIfFailed(status_, algorithm_->GetStatus())) return;

  // Every worker, the calling thread's included, gathers samples into its own scratch slot.
  if (CopyIfFailed(status_, frames.MakeThreadData(workers))) return;

  detail::PixelWalk walk;
  if (CopyIfFailed(status_, walk.Prepare(frames.GetAllocatedWindow(), regions, scanPeriod_))) return;

  dispatcher_.GetStatus().ClearError();
  dispatcher_.Invoke(&GainCorrectionCalculator::ProcessPixels, &walk, 0, numberOfPixels);
  if (CopyIfFailed(status_, dispatcher_.GetStatus())) return;
  if (CopyIfFailed(status_, algorithm_->GetStatus())) return;

  algorithm_->PostProcess();
  gainCorrection_ = algorithm_->GetGainCorrection();
  CopyIfFailed(status_, algorithm_->GetStatus());
}

// The sample type and the algorithm's class are decided once per range; for the built-in
// algorithms the per-pixel call then binds statically.
void GainCorrectionCalculator::ProcessPixels(void* walk, int thread, int first, int end) {
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
  if (auto* pmi = dynamic_cast<GainCorrectionPmi*>(algorithm_)) {
    visit(*pmi);
  } else if (auto* sinPsi = dynamic_cast<GainCorrectionSinPsi*>(algorithm_)) {
    visit(*sinPsi);
  } else {
    visit(*algorithm_);
  }
}

template <typename Stored, typename Sample, typename Algorithm>
void GainCorrectionCalculator::Walk(Algorithm& algorithm, const void* walk, int thread, int first, int end) {
  FrameBuffer& frames = *frameBuffer_;
  static_cast<const detail::PixelWalk*>(walk)->ForEach(first, end, [&](int p) {
    algorithm.ProcessPixel(thread, frames.ExtractIndexAs<Stored, Sample>(thread, p));
  });
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

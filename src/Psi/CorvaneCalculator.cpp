#include "Psi/CorvaneCalculator.h"

#include "Psi/Corvane13.h"
#include "Psi/Corvane7.h"
#include "Psi/detail/PixelCheckRun.h"

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
  detail::SetCalculatorThreads(dispatcher_, this, n);
}

void CorvaneCalculator::Calculate(FrameBuffer& frames, DoubleMatrix2D& out) {
  Calculate(frames, nullptr, out);
}

void CorvaneCalculator::Calculate(FrameBuffer& frames, RegionIdMatrix2D* regions, DoubleMatrix2D& out) {
  detail::RunGuarded(status_, kSource, [&] {
    if (!algorithm_) {
      status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "");
      return;
    }
    frameBuffer_ = &frames;
    regionMask_ = regions;
    detail::RunPixelCheck(status_, {kSource, scanPeriod_, allowMultipleThreads_}, dispatcher_,
                          &CorvaneCalculator::ProcessPixels, *algorithm_, frames, regions, [&](int workers) {
                            algorithm_->SetFrameBuffer(&frames);
                            algorithm_->SetCorvaneMatrix(&out);
                            algorithm_->SetMinimumModulation(minimumModulation_);
                            algorithm_->Intialize(workers);
                          });
  });
}

void CorvaneCalculator::ProcessPixels(void* walk, int thread, int first, int end) {
  const auto process = [&](auto& algorithm) {
    static_cast<const detail::PixelWalk*>(walk)->ForEachSamples(
        *frameBuffer_, thread, first, end,
        [&](int p, const auto* samples) { algorithm.ProcessPixel(thread, p, samples); });
  };
  // Decided once per range: the built-in algorithms are final classes, so their per-pixel call
  // binds statically.
  if (auto* seven = dynamic_cast<Corvane7*>(algorithm_)) {
    process(*seven);
  } else if (auto* thirteen = dynamic_cast<Corvane13*>(algorithm_)) {
    process(*thirteen);
  } else {
    process(*algorithm_);
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

#include "Psi/GainCorrectionCalculator.h"

#include "Psi/GainCorrectionPmi.h"
#include "Psi/GainCorrectionSinPsi.h"
#include "Psi/detail/PixelCheckRun.h"

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
  detail::SetCalculatorThreads(dispatcher_, this, n);
}

void GainCorrectionCalculator::Calculate(FrameBuffer& frames) {
  Calculate(frames, nullptr);
}

void GainCorrectionCalculator::Calculate(FrameBuffer& frames, RegionIdMatrix2D* regions) {
  // A run that fails must not leave the number of an earlier run behind.
  gainCorrection_ = kNoData;
  detail::RunGuarded(status_, kSource, [&] {
    if (!algorithm_) {
      status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "");
      return;
    }
    frameBuffer_ = &frames;
    regionMask_ = regions;
    const bool postProcessed = detail::RunPixelCheck(status_, {kSource, scanPeriod_, allowMultipleThreads_},
                                                     dispatcher_, &GainCorrectionCalculator::ProcessPixels,
                                                     *algorithm_, frames, regions, [&](int workers) {
                                                       algorithm_->SetFrameBuffer(&frames);
                                                       algorithm_->SetMinimumModulation(minimumModulation_);
                                                       algorithm_->Intialize(workers);
                                                     });
    if (postProcessed) gainCorrection_ = algorithm_->GetGainCorrection();
  });
}

void GainCorrectionCalculator::ProcessPixels(void* walk, int thread, int first, int end) {
  const auto process = [&](auto& algorithm) {
    static_cast<const detail::PixelWalk*>(walk)->ForEachSamples(
        *frameBuffer_, thread, first, end,
        [&](int, const auto* samples) { algorithm.ProcessPixel(thread, samples); });
  };
  // Decided once per range: the built-in algorithms are final classes, so their per-pixel call
  // binds statically.
  if (auto* pmi = dynamic_cast<GainCorrectionPmi*>(algorithm_)) {
    process(*pmi);
  } else if (auto* sinPsi = dynamic_cast<GainCorrectionSinPsi*>(algorithm_)) {
    process(*sinPsi);
  } else {
    process(*algorithm_);
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi

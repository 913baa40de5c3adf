#include "Swli/PhaseAlgorithm.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include "Analysis/Core/NoData.h"
#include "Analysis/Core/Units.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

using Analysis::Core::Array;
using Analysis::Core::DataMatrix2D;
using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::FrameBuffer;
using Analysis::Core::IntMatrix2D;
using Analysis::Core::Status;
using Analysis::Core::Window2D;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "Swli\\PhaseAlgorithm";

// The weights of the standard estimator, 1 1 3 3 3 3 1 1, sum 16.
constexpr double kStandardScale = 0.0625;
// 1/64: the 64-sample estimators.
constexpr double kBucketScale = 0.015625;
constexpr int kBucketHalf = 32;
}  // namespace

PhaseAlgorithm::PhaseAlgorithm() : PhaseAlgorithm(__LINE__, kSource) {}

PhaseAlgorithm::PhaseAlgorithm(unsigned line, const char* source) : MeasurementAnalysis(line, source) {}

PhaseAlgorithm::~PhaseAlgorithm() = default;

void PhaseAlgorithm::Reset() {
  surface_ = &ownSurface_;
  intensity_ = &ownIntensity_;
  currentPass_ = 0;
}

bool PhaseAlgorithm::IsMultThreadable() const {
  return true;
}

void PhaseAlgorithm::SetupFringeRemovalAlgorithm() {
  if (removeFringes_ == FringeRemovalMethod::kNone) {
    fringeRemoval_ = &PhaseAlgorithm::RemoveFringesNone;
  } else if (removeFringes_ == FringeRemovalMethod::k64Bucket) {
    // Around the peak only when the signal is the whole scan; a cut window is averaged as it is.
    fringeRemoval_ = signalSize_ == numberFrames_ ? &PhaseAlgorithm::RemoveFringes64BucketFull
                                                  : &PhaseAlgorithm::RemoveFringes64BucketSimple;
  } else {
    fringeRemoval_ = &PhaseAlgorithm::StandardRemoveFringes;
  }
}

void PhaseAlgorithm::Initialize(int pass, int numberFrames, int qSize, const Window2D& window) {
  currentPass_ = pass;
  status_ = Status(__LINE__, kSource);
  numberFrames_ = numberFrames;
  signalSize_ = qSize;
  halfSignalSize_ = qSize / 2;
  numberPixels_ = static_cast<int>(window.GetCount());

  if (!surface_->Resize(window)) {
    Analysis::Core::RecordCallFailure(status_, surface_->GetStatus(), "surface.Resize", kSource, __LINE__);
    return;
  }
  surface_->SetAll(DoubleMatrix2D::NoData());
  SetupFringeRemovalAlgorithm();
  if (removeFringes_ != FringeRemovalMethod::kNone) {
    if (!intensity_->Resize(window)) {
      Analysis::Core::RecordCallFailure(status_, intensity_->GetStatus(), "intensity.Resize", kSource,
                                        __LINE__);
      return;
    }
    intensity_->SetAll(IntMatrix2D::NoData());
  }
  // Heights are positions along the scan in nanometres; the direction of the scan is the loaders'
  // business, so only the step's length counts.
  scanIncrementValue_ = std::abs(scanIncrement_.GetValue(Analysis::Core::Units::kNanometers));
  if (!std::isfinite(scanIncrementValue_) || Analysis::Core::IsNoDataValue(scanIncrementValue_)) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                     "The scan increment is undefined or not a length");
  }
}

void PhaseAlgorithm::Initialize(FrameBuffer&, DataMatrix2D<int>&, bool) {}

void PhaseAlgorithm::InitializeThread(int numberThreads) {
  threadBuffers_.clear();
  threadBuffers_.resize(static_cast<std::size_t>(std::max(numberThreads, 0)));
  for (ThreadSignalBuffer& buffer : threadBuffers_) {
    buffer.signal = std::make_unique<double[]>(static_cast<std::size_t>(std::max(signalSize_, 0)));
    buffer.length = signalSize_;
    buffer.debugPixel = -1;
  }
  numberThreads_ = numberThreads;
}

void PhaseAlgorithm::FinalizeThread() {
  threadBuffers_.clear();
  numberThreads_ = 0;
  if (tracePixels_) tracePixels_->Resize(0);
}

void PhaseAlgorithm::PostProcess() {}

void PhaseAlgorithm::SetDebug(int thread, int pixel) {
  if (thread >= 0 && thread < static_cast<int>(threadBuffers_.size())) {
    threadBuffers_[static_cast<std::size_t>(thread)].debugPixel = pixel;
  }
}

void PhaseAlgorithm::ClearDebug(int thread) {
  SetDebug(thread, -1);
}

int PhaseAlgorithm::RequiredNumberOfPasses() const {
  return 1;
}

int PhaseAlgorithm::GetSkipCount() const {
  return 1;
}

double* PhaseAlgorithm::GetDataArray(int thread) {
  if (thread < 0 || thread >= static_cast<int>(threadBuffers_.size())) return nullptr;
  return threadBuffers_[static_cast<std::size_t>(thread)].signal.get();
}

int PhaseAlgorithm::GetDataArraySize(int thread) const {
  if (thread < 0 || thread >= static_cast<int>(threadBuffers_.size())) return 0;
  return threadBuffers_[static_cast<std::size_t>(thread)].length;
}

bool PhaseAlgorithm::NeedDiscriminator() const {
  return true;
}

bool PhaseAlgorithm::NeedPeakFrame() const {
  return true;
}

int PhaseAlgorithm::CalculateQSize(int, int signalSize, FringeRemovalMethod method) {
  const int size = signalSize <= 0 ? expectedSignalSize_ : signalSize;
  removeFringes_ = method;
  return size == 128 ? 128 : 64;
}

void PhaseAlgorithm::SetRemoveFringes(FringeRemovalMethod method) {
  removeFringes_ = method;
}

int PhaseAlgorithm::GetQSize() const {
  return signalSize_;
}

bool PhaseAlgorithm::IsDebuging(int thread) const {
  return thread >= 0 && thread < static_cast<int>(threadBuffers_.size()) &&
         threadBuffers_[static_cast<std::size_t>(thread)].debugPixel >= 0;
}

void PhaseAlgorithm::AddTracePixel(int pixel) {
  if (!tracePixels_) tracePixels_ = std::make_unique<Array<int>>(10);
  tracePixels_->Add(pixel);
}

void PhaseAlgorithm::SetSurfaceMatrix(DoubleMatrix2D&) {}

DoubleMatrix2D* PhaseAlgorithm::GetDoubleMatrix(const std::string&) {
  return nullptr;
}
IntMatrix2D* PhaseAlgorithm::GetIntMatrix(const std::string&) {
  return nullptr;
}
void PhaseAlgorithm::StoreMatrix(const std::string&, DoubleMatrix2D&) {}
void PhaseAlgorithm::StoreMatrix(const std::string&, IntMatrix2D&) {}
Array<std::string> PhaseAlgorithm::GetDoubleMatrixNames() const {
  return Array<std::string>();
}
Array<std::string> PhaseAlgorithm::GetIntMatrixNames() const {
  return Array<std::string>();
}

const double* PhaseAlgorithm::SignalOf(int thread) const {
  if (thread < 0 || thread >= static_cast<int>(threadBuffers_.size())) return nullptr;
  return threadBuffers_[static_cast<std::size_t>(thread)].signal.get();
}

int PhaseAlgorithm::StoreIntensity(int pixel, double value) {
  // Half away from zero; kept below the int no-data value so that a huge 32-bit signal cannot turn
  // into "no data" or overflow the conversion.
  const double rounded = value >= 0.0 ? value + 0.5 : value - 0.5;
  const double bounded =
      std::clamp(rounded, static_cast<double>(INT_MIN), static_cast<double>(Analysis::Core::kNoDataInt - 1));
  const int intensity = static_cast<int>(bounded);
  intensity_->At(pixel) = intensity;
  return intensity;
}

int PhaseAlgorithm::RemoveFringesNone(int, int, int) {
  return Analysis::Core::kNoDataInt;
}

int PhaseAlgorithm::StandardRemoveFringes(int thread, int pixel, int peakFrame) {
  const double* d = SignalOf(thread);
  const int q = signalSize_;
  if (!d || q < 8) return 0;
  const auto window = [d](int c) {
    return kStandardScale *
           (d[c - 4] + d[c - 3] + 3.0 * (d[c - 2] + d[c - 1] + d[c] + d[c + 1]) + d[c + 2] + d[c + 3]);
  };
  if (q == numberFrames_) {
    const int c = (peakFrame < 4 || peakFrame >= q - 3) ? q / 2 : peakFrame;
    return StoreIntensity(pixel, window(c));
  }
  if (peakFrame > 0) return StoreIntensity(pixel, window(q / 2));
  // No peak known: the window slides circularly over the whole signal, and its largest value is
  // taken (a fringe-free window reads the bias; a window on the fringes reads less or more only by
  // what the weights fail to cancel).
  double w = d[0] + d[1] + 3.0 * (d[2] + d[3] + d[4] + d[5]) + d[6] + d[7];
  double best = w;
  for (int i = 0; i < q - 1; ++i) {
    w += 2.0 * d[(i + 6) % q] + d[(i + 8) % q] - d[i] - 2.0 * d[(i + 2) % q];
    best = std::max(best, w);
  }
  return StoreIntensity(pixel, kStandardScale * best);
}

int PhaseAlgorithm::RemoveFringes64BucketFull(int thread, int pixel, int peakFrame) {
  const double* d = SignalOf(thread);
  const int q = signalSize_;
  if (!d || q < 1) return 0;
  int c = peakFrame;
  if (c < kBucketHalf) c = kBucketHalf;
  if (c >= q - kBucketHalf + 1) c = q - kBucketHalf;
  // A signal shorter than 64 samples has no 64-sample bucket; it is averaged whole instead.
  const int first = std::max(c - kBucketHalf, 0);
  const int end = std::min(c + kBucketHalf, q);
  double sum = 0.0;
  for (int k = first; k < end; ++k)
    sum += d[k];
  return StoreIntensity(pixel, end - first == 2 * kBucketHalf ? sum * kBucketScale : sum / (end - first));
}

int PhaseAlgorithm::RemoveFringes64BucketSimple(int thread, int pixel, int) {
  const double* d = SignalOf(thread);
  if (!d) return 0;
  const int length = GetDataArraySize(thread);
  double sum = 0.0;
  for (int k = 0; k < length; ++k)
    sum += d[k];
  // Deliberately 1/64 whatever the length: the estimator is defined for 64-sample signals, and a
  // 128-sample signal reads twice its mean.
  return StoreIntensity(pixel, sum * kBucketScale);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli

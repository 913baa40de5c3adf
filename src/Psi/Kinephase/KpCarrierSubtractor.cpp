#include "Psi/Kinephase/KpCarrierSubtractor.h"

#include <cmath>
#include <string>

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "Psi\\Kinephase\\KpCarrierSubtractor";
constexpr double kTwoPi = 6.283185307179586;
}  // namespace

KpCarrierSubtractor::KpCarrierSubtractor() : dispatcher_(this), status_(__LINE__, kSource) {
  requestedWorkers_ = dispatcher_.GetNumberOfWorkers();
}

KpCarrierSubtractor::KpCarrierSubtractor(const KpCarrierSubtractor& other)
    : allowMultiThreads_(other.allowMultiThreads_),
      fringePeriod_(other.fringePeriod_),
      fft_(other.fft_),
      orientation_(other.orientation_),
      rotators_(other.rotators_),
      dispatcher_(other.dispatcher_),
      sequence_(other.sequence_),
      step_(other.step_),
      requestedWorkers_(other.requestedWorkers_),
      status_(other.status_) {
  dispatcher_.SetObject(this);
}

KpCarrierSubtractor& KpCarrierSubtractor::operator=(const KpCarrierSubtractor& other) {
  if (this == &other) return *this;
  allowMultiThreads_ = other.allowMultiThreads_;
  fringePeriod_ = other.fringePeriod_;
  fft_ = other.fft_;
  orientation_ = other.orientation_;
  rotators_ = other.rotators_;
  dispatcher_ = other.dispatcher_;
  sequence_ = other.sequence_;
  step_ = other.step_;
  dispatcher_.SetObject(this);
  requestedWorkers_ = other.requestedWorkers_;
  status_ = other.status_;
  return *this;
}

KpCarrierSubtractor::~KpCarrierSubtractor() = default;

Status KpCarrierSubtractor::Prepare() {
  if (!fft_) return Status(0, StatusCode::kNotSet, __LINE__, kSource, "No transform has been set (SetFft)");
  if (fringePeriod_ < 1) {
    return Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                  "The fringe period must be at least 1 pixel, not " + std::to_string(fringePeriod_));
  }
  if (!BuildRotators())
    return rotators_.GetStatus().IsError() ? rotators_.GetStatus() : sequence_.GetStatus();
  return Status(__LINE__, kSource);
}

Status KpCarrierSubtractor::Execute() {
  const Status prepared = Prepare();
  if (prepared.IsError()) return prepared;
  const int rows = fft_->GetRows();
  try {
    if (allowMultiThreads_ && rows > 1) {
      dispatcher_.SetNumberOfWorkers(requestedWorkers_);
      dispatcher_.Invoke(&KpCarrierSubtractor::ApplyRotators, 0, rows);
    } else {
      ApplyRotators(0, rows);
    }
  } catch (const Status& failure) {
    return failure;
  }
  return Status(__LINE__, kSource);
}

bool KpCarrierSubtractor::BuildRotators() {
  if (!rotators_.Resize(fringePeriod_)) return false;
  for (int k = 0; k < fringePeriod_; ++k) {
    const double angle = kTwoPi * k / fringePeriod_;
    rotators_[k] = std::complex<double>(std::cos(angle), std::sin(angle));
  }
  // Along a row the index walks the table by one step (+1 or -1) per column. Unrolled into a
  // sequence one period longer than a row, every row reads a contiguous slice of it, starting
  // where its first pixel's index is: the inner loop is a plain complex multiply.
  step_ = (orientation_ == KpQuadrant::Quadrant1 || orientation_ == KpQuadrant::Quadrant4) ? -1 : 1;
  const int length = fft_->GetColumns() + fringePeriod_;
  if (!sequence_.Resize(length)) return false;
  for (int j = 0; j < length; ++j)
    sequence_[j] = rotators_[((step_ * j) % fringePeriod_ + fringePeriod_) % fringePeriod_];
  return true;
}

const std::complex<double>* KpCarrierSubtractor::RowRotators(int y) const {
  const long long rows = fft_->GetRows();
  const int columns = fft_->GetColumns();
  const int period = fringePeriod_;
  // m = base + step x; pixel x takes rotator (base + step x) mod P = sequence[x + j0] with
  // j0 = step base mod P (step is its own inverse).
  long long base = y;
  switch (static_cast<int>(orientation_)) {
    case KpQuadrant::Quadrant1:
      base = rows + columns + y;
      break;
    case KpQuadrant::Quadrant3:
    case KpQuadrant::Quadrant4:
      base = rows + columns - y;
      break;
    default:
      break;  // quadrant 2 and anything undefined: m = x + y
  }
  const int k0 = static_cast<int>(base % period);
  const int j0 = (step_ * k0 % period + period) % period;
  return sequence_.Data() + j0;
}

void KpCarrierSubtractor::ApplyRotators(int first, int end) {
  const int columns = fft_->GetColumns();
  for (int y = first; y < end; ++y) {
    const double* rotator = reinterpret_cast<const double*>(RowRotators(y));
    double* z = reinterpret_cast<double*>(fft_->GetRow(y));
    for (int x = 0; x < columns; ++x) {
      const double re = z[2 * x], im = z[2 * x + 1];
      const double cosine = rotator[2 * x], sine = rotator[2 * x + 1];
      z[2 * x] = re * cosine - im * sine;
      z[2 * x + 1] = re * sine + im * cosine;
    }
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase

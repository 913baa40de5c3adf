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
  dispatcher_.SetObject(this);
  requestedWorkers_ = other.requestedWorkers_;
  status_ = other.status_;
  return *this;
}

KpCarrierSubtractor::~KpCarrierSubtractor() = default;

Status KpCarrierSubtractor::Execute() {
  if (!fft_) return Status(0, StatusCode::kNotSet, __LINE__, kSource, "No transform has been set (SetFft)");
  if (fringePeriod_ < 1) {
    return Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                  "The fringe period must be at least 1 pixel, not " + std::to_string(fringePeriod_));
  }
  if (!BuildRotators()) return rotators_.GetStatus();
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
  return true;
}

void KpCarrierSubtractor::ApplyRotators(int first, int end) {
  const int rows = fft_->GetRows();
  const int columns = fft_->GetColumns();
  const int period = fringePeriod_;
  const std::complex<double>* rotator = rotators_.Data();
  // m = base + step x along a row, so k = m mod P walks the table by +1 or -1 per column.
  int step = 1;
  for (int y = first; y < end; ++y) {
    long long base = 0;
    switch (static_cast<int>(orientation_)) {
      case KpQuadrant::Quadrant1:
        base = static_cast<long long>(rows) + columns + y, step = -1;
        break;
      case KpQuadrant::Quadrant3:
        base = static_cast<long long>(rows) + columns - y, step = 1;
        break;
      case KpQuadrant::Quadrant4:
        base = static_cast<long long>(rows) + columns - y, step = -1;
        break;
      default:
        base = y, step = 1;
        break;  // quadrant 2 and anything undefined
    }
    int k = static_cast<int>(base % period);
    std::complex<double>* row = fft_->GetRow(y);
    for (int x = 0; x < columns; ++x) {
      const double re = row[x].real(), im = row[x].imag();
      const double cosine = rotator[k].real(), sine = rotator[k].imag();
      row[x] = std::complex<double>(re * cosine - im * sine, re * sine + im * cosine);
      k += step;
      if (k == period) k = 0;
      if (k < 0) k = period - 1;
    }
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase

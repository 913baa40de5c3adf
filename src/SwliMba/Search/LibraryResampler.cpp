#include "SwliMba/Search/LibraryResampler.h"

#include <cfloat>
#include <cmath>
#include <new>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {

constexpr double kUnset = DBL_MAX;

std::unique_ptr<Analysis::Core::Threading::ThreadDispatcher<LibraryResampler>> MakeDispatcher(
    LibraryResampler* owner) {
  try {
    return std::make_unique<Analysis::Core::Threading::ThreadDispatcher<LibraryResampler>>(owner);
  } catch (...) {
    return nullptr;
  }
}

}  // namespace

LibraryResampler::LibraryResampler()
    : inputRampSlope_(kUnset), outputRampSlope_(kUnset), status_(__LINE__, kSource) {
  dispatcher_ = MakeDispatcher(this);
  if (!dispatcher_) Fail(StatusCode::kAllocationFailed, __LINE__, "Dispatcher allocation failed");
}

LibraryResampler::LibraryResampler(const LibraryResampler& other)
    : allowMultiThreads_(other.allowMultiThreads_),
      numberOfOutputBins_(other.numberOfOutputBins_),
      numberOfOutputSamples_(other.numberOfOutputSamples_),
      inputRampSlope_(other.inputRampSlope_),
      outputRampSlope_(other.outputRampSlope_),
      status_(other.status_) {
  dispatcher_ = MakeDispatcher(this);
  if (!dispatcher_) Fail(StatusCode::kAllocationFailed, __LINE__, "Dispatcher allocation failed");
}

LibraryResampler& LibraryResampler::operator=(const LibraryResampler& other) {
  if (this == &other) return *this;
  allowMultiThreads_ = other.allowMultiThreads_;
  numberOfOutputBins_ = other.numberOfOutputBins_;
  numberOfOutputSamples_ = other.numberOfOutputSamples_;
  inputRampSlope_ = other.inputRampSlope_;
  outputRampSlope_ = other.outputRampSlope_;
  status_ = other.status_;
  return *this;
}

LibraryResampler::~LibraryResampler() = default;

void LibraryResampler::Fail(unsigned code, unsigned line, const char* message) {
  status_ = Status(0, code, line, kSource, message);
}

void LibraryResampler::SetNumberOfOutputSamples(int n) {
  if (n % 2 != 0) {
    Fail(StatusCode::kNotSet, __LINE__, "Number of output samples must be an even number");
    return;
  }
  numberOfOutputSamples_ = n;
  numberOfOutputBins_ = n / 2 + 1;
}

bool LibraryResampler::CheckAdmissible(const DoubleMatrix2D& matrix) {
  const int width = matrix.GetColumns();
  if (width < 1) {
    Fail(StatusCode::kNotSet, __LINE__, "Input library matrix is not admissible: width must be positive");
  } else if (matrix.GetRows() < 1) {
    Fail(StatusCode::kNotSet, __LINE__, "Input library matrix is not admissible: height must be positive");
  } else if (width % 2 != 0) {
    Fail(StatusCode::kNotSet, __LINE__,
         "Input library matrix is not admissible: the width of a library matrix must be an even number");
  } else if ((width / 2) % 2 == 0) {
    Fail(StatusCode::kNotSet, __LINE__,
         "Input library matrix is not admissible: half the width of a library matrix must be an odd number");
  } else {
    return true;
  }
  return false;
}

std::complex<double> LibraryResampler::Interpolate(const std::complex<double>* bins, int numberOfBins,
                                                   int first, int last, double x) {
  if (x < first || x > last) return {0.0, 0.0};
  int i0;
  double t;
  if (x < first + 1) {
    i0 = first;
    t = x - (first + 1);
  } else if (x > last - 2) {
    i0 = last - 3;
    t = x - (last - 2);
  } else {
    const int i = static_cast<int>(std::floor(x));
    i0 = i - 1;
    t = x - i;
  }
  // A row with fewer than four valid bins has no full stencil inside the row; what lies beyond
  // the row's ends counts as 0.
  auto at = [&](int k) { return k >= 0 && k < numberOfBins ? bins[k] : std::complex<double>(0.0, 0.0); };
  const std::complex<double> y0 = at(i0), y1 = at(i0 + 1), y2 = at(i0 + 2), y3 = at(i0 + 3);
  // Lagrange cubic through the nodes -1, 0, 1, 2 (y1 at t = 0); complex arithmetic with a real t
  // treats the real and imaginary parts separately.
  const std::complex<double> c3 = -y0 / 6.0 + y1 / 2.0 - y2 / 2.0 + y3 / 6.0;
  const std::complex<double> c2 = y0 / 2.0 - y1 + y2 / 2.0;
  const std::complex<double> c1 = -y0 / 3.0 - y1 / 2.0 + y2 - y3 / 6.0;
  const std::complex<double> c0 = y1;
  return ((c3 * t + c2) * t + c1) * t + c0;
}

bool LibraryResampler::PrepareWorkers() {
  const int threads = allowMultiThreads_ ? dispatcher_->GetNumberOfThreads() : 1;
  if (allowMultiThreads_)
    dispatcher_->ResetNumberOfWorkers();
  else
    dispatcher_->SetNumberOfWorkers(1);
  try {
    work_.resize(static_cast<std::size_t>(threads));
    for (auto& row : work_)
      row.assign(static_cast<std::size_t>(numberOfInputBins_), {0.0, 0.0});
  } catch (const std::bad_alloc&) {
    Fail(StatusCode::kAllocationFailed, __LINE__, "Call to work.Resize failed");
    return false;
  }
  return true;
}

std::complex<double>* LibraryResampler::LoadRow(int thread, const double* row) {
  std::vector<std::complex<double>>& work = work_[static_cast<std::size_t>(thread)];
  std::fill(work.begin(), work.end(), std::complex<double>(0.0, 0.0));
  const int last = std::min(lastValidInputBin_, numberOfInputBins_ - 1);
  for (int j = std::max(0, firstValidInputBin_); j <= last; ++j)
    work[static_cast<std::size_t>(j)] = {row[2 * j], row[2 * j + 1]};
  return work.data();
}

void LibraryResampler::ResampleRows(int thread, int first, int end) {
  // The same frequency j / (N s) at the input's fractional bin.
  const double scale = inputRampSlope_ * numberOfInputSamples_ / outputRampSlope_ / numberOfOutputSamples_;
  for (int r = first; r < end; ++r) {
    const std::complex<double>* bins = LoadRow(thread, input_->Row(r));
    double* out = output_->Row(r);
    for (int j = 0; j < numberOfOutputBins_; ++j) {
      const std::complex<double> v =
          Interpolate(bins, numberOfInputBins_, firstValidInputBin_, lastValidInputBin_, j * scale);
      out[2 * j] = v.real();
      out[2 * j + 1] = v.imag();
    }
  }
}

void LibraryResampler::Execute(DoubleMatrix2D& input, DoubleMatrix2D& output) {
  if (inputRampSlope_ >= kUnset) return Fail(StatusCode::kCallFailed, __LINE__, "Input ramp slope is unset");
  if (outputRampSlope_ >= kUnset)
    return Fail(StatusCode::kCallFailed, __LINE__, "Output ramp slope is unset");
  if (!dispatcher_) return Fail(StatusCode::kCallFailed, __LINE__, "Dispatcher allocation failed");
  input_ = &input;
  output_ = &output;
  if (!CheckAdmissible(input)) return;

  numberOfRows_ = input.GetRows();
  numberOfInputBins_ = input.GetColumns() / 2;
  numberOfInputSamples_ = 2 * numberOfInputBins_ - 2;
  if (numberOfOutputBins_ < 1) {
    numberOfOutputBins_ = numberOfInputBins_;
    numberOfOutputSamples_ = numberOfInputSamples_;
  }
  if (!output.Resize(numberOfRows_, 2 * numberOfOutputBins_)) {
    status_ = output.GetStatus();
    return;
  }

  // The valid band is that of the source spectrum, the same for every signal: the first row
  // defines it.
  const double* row0 = input.Row(0);
  int firstValid = -1, lastValid = -1;
  for (int j = 0; j < numberOfInputBins_; ++j) {
    if (std::hypot(row0[2 * j], row0[2 * j + 1]) > 0.0) {
      if (firstValid < 0) firstValid = j;
      lastValid = j;
    }
  }
  if (firstValid < 0)
    return Fail(StatusCode::kCallFailed, __LINE__, "Determination of first valid library bin failed");
  if (lastValid < 0)
    return Fail(StatusCode::kCallFailed, __LINE__, "Determination of last valid library bin failed");
  firstValidInputBin_ = firstValid;
  lastValidInputBin_ = lastValid;

  if (!PrepareWorkers()) return;
  try {
    dispatcher_->Invoke(&LibraryResampler::ResampleRows, 0, numberOfRows_);
  } catch (const Status& failure) {
    status_ = failure;
  } catch (...) {
    Fail(StatusCode::kCallFailed, __LINE__, "Unhandled exception");
  }
}

void LibraryResampler::NormalizeRows(int thread, int first, int end) {
  const int bins = input_->GetColumns() / 2;
  for (int r = first; r < end; ++r) {
    double* row = input_->Row(r);
    std::complex<double>* values = LoadRow(thread, row);
    double energy = 0.0;
    for (int j = 0; j < bins; ++j)
      energy += std::norm(values[j]);
    const double norm = std::sqrt(energy);
    const double scale = norm > 0.0 ? 1.0 / norm : 1.0;
    for (int j = 0; j < bins; ++j) {
      row[2 * j] = values[j].real() * scale;
      row[2 * j + 1] = values[j].imag() * scale;
    }
  }
}

void LibraryResampler::NormalizeLibrary(DoubleMatrix2D& library) {
  if (!dispatcher_) return Fail(StatusCode::kCallFailed, __LINE__, "Dispatcher allocation failed");
  if (!CheckAdmissible(library)) return;
  input_ = &library;
  output_ = nullptr;
  numberOfInputBins_ = library.GetColumns() / 2;
  numberOfInputSamples_ = 2 * numberOfInputBins_ - 2;
  if (PrepareWorkers()) {
    try {
      dispatcher_->Invoke(&LibraryResampler::NormalizeRows, 0, library.GetRows());
    } catch (const Status& failure) {
      status_ = failure;
    } catch (...) {
      Fail(StatusCode::kCallFailed, __LINE__, "Unhandled exception");
    }
  }
  input_ = nullptr;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search

#include "Analysis/Core/Fft1DReal.h"

#include <fftw3.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>

#include "Analysis/Core/detail/FftwPlanning.h"

namespace Quarn::Metrology::Analysis::Core {

namespace {
constexpr const char* kSource = "analysis\\core\\Fft1DReal";
}

struct Fft1DReal::Impl {
  int size = 0;
  double* input = nullptr;
  fftw_complex* output = nullptr;
  fftw_plan plan = nullptr;

  Impl() = default;
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  ~Impl() { Release(); }

  void Release() {
    if (plan) {
      std::lock_guard<std::mutex> lock(detail::FftwPlannerMutex());
      fftw_destroy_plan(plan);
      plan = nullptr;
    }
    fftw_free(input);
    fftw_free(output);
    input = nullptr;
    output = nullptr;
    size = 0;
  }

  bool Make(int n) {
    input = static_cast<double*>(fftw_malloc(sizeof(double) * static_cast<std::size_t>(n)));
    output =
        static_cast<fftw_complex*>(fftw_malloc(sizeof(fftw_complex) * static_cast<std::size_t>(n / 2 + 1)));
    if (!input || !output) return false;
    {
      // Estimate mode never touches the arrays while planning and always picks the same algorithm
      // for a size, which keeps the sums identical between instances.
      std::lock_guard<std::mutex> lock(detail::FftwPlannerMutex());
      plan = fftw_plan_dft_r2c_1d(n, input, output, FFTW_ESTIMATE);
    }
    if (!plan) return false;
    for (int j = 0; j < n; ++j)
      input[j] = 0.0;
    for (int k = 0; k <= n / 2; ++k)
      output[k][0] = output[k][1] = 0.0;
    size = n;
    return true;
  }
};

Fft1DReal::Fft1DReal() : impl_(std::make_unique<Impl>()), status_(__LINE__, kSource) {}

Fft1DReal::Fft1DReal(int size) : Fft1DReal() {
  Resize(size);
}

// A moved-from instance is empty (no arrays, no plan) until it is resized again.
Fft1DReal::Fft1DReal(Fft1DReal&& other) noexcept : impl_(std::move(other.impl_)), status_(other.status_) {}

Fft1DReal& Fft1DReal::operator=(Fft1DReal&& other) noexcept {
  if (this != &other) {
    impl_ = std::move(other.impl_);
    status_ = other.status_;
  }
  return *this;
}

Fft1DReal::~Fft1DReal() = default;

bool Fft1DReal::Resize(int size) {
  if (impl_ && size == impl_->size && size > 0) return true;
  if (impl_) {
    impl_->Release();
  } else {
    impl_ = std::make_unique<Impl>();
  }
  if (size < 1) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                     "Transform size must be at least 1, got " + std::to_string(size));
    return false;
  }
  if (!impl_->Make(size)) {
    impl_->Release();
    status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource,
                     "Planning a transform of " + std::to_string(size) + " samples failed");
    return false;
  }
  return true;
}

int Fft1DReal::GetSize() const {
  return impl_ ? impl_->size : 0;
}
int Fft1DReal::GetNumberOfBins() const {
  return GetSize() > 0 ? GetSize() / 2 + 1 : 0;
}

double* Fft1DReal::Input() {
  return impl_ ? impl_->input : nullptr;
}
const double* Fft1DReal::Input() const {
  return impl_ ? impl_->input : nullptr;
}

// fftw_complex is double[2], laid out as std::complex<double> is required to be.
std::complex<double>* Fft1DReal::Output() {
  return impl_ ? reinterpret_cast<std::complex<double>*>(impl_->output) : nullptr;
}
const std::complex<double>* Fft1DReal::Output() const {
  return impl_ ? reinterpret_cast<const std::complex<double>*>(impl_->output) : nullptr;
}

void Fft1DReal::Forward() {
  if (impl_ && impl_->plan) fftw_execute(impl_->plan);
}

void Fft1DReal::Forward(const double* input, std::complex<double>* output) {
  if (!impl_ || !impl_->plan || !input || !output) return;
  // The plan's vector code assumes the alignment of the arrays it was made for (fftw_malloc's); other
  // arrays with the same alignment modulo 16 bytes are executed in place, any others go through the
  // instance's own arrays, which gives the same sums.
  const auto misaligned = [](const void* p) { return reinterpret_cast<std::uintptr_t>(p) % 16 != 0; };
  if (misaligned(input) || misaligned(output)) {
    std::memcpy(impl_->input, input, sizeof(double) * static_cast<std::size_t>(impl_->size));
    fftw_execute(impl_->plan);
    std::memcpy(static_cast<void*>(output), impl_->output,
                sizeof(fftw_complex) * static_cast<std::size_t>(impl_->size / 2 + 1));
    return;
  }
  // FFTW's new-array execute. An out-of-place real-to-complex plan preserves its input (FFTW's
  // default for that kind), so the const input is honoured.
  fftw_execute_dft_r2c(impl_->plan, const_cast<double*>(input), reinterpret_cast<fftw_complex*>(output));
}

}  // namespace Quarn::Metrology::Analysis::Core

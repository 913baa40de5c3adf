#include "Analysis/Core/Fft2D.h"

#include <fftw3.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <list>
#include <mutex>
#include <string>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "Analysis/Core/AlignedBuffer.h"
#include "Analysis/Core/Threading/ThreadDispatcher.h"
#include "Analysis/Core/detail/FftwPlanning.h"

namespace Quarn::Metrology::Analysis::Core {

namespace {

constexpr const char* kSource = "analysis\\core\\Fft2D";

// Columns are transformed in blocks of this many neighbouring columns: one block is 16 complex
// values (four cache lines) per row, so every line fetched from a row is used completely, and a
// block of a 2048-row image (512 KiB) stays in the second-level cache while FFTW works on it.
// Fixed blocks (rather than one block per worker) keep the arithmetic independent of the number of
// threads.
constexpr int kColumnBlock = 16;

// The six plans of one size: rows, full column blocks and the last, narrower block, each forward
// and backward. Plans are made on a buffer of the final layout and run on any buffer of that layout
// (FFTW's new-array execution), which needs equal alignment: rows and blocks start on 64-byte
// boundaries everywhere.
struct PlanSet {
  int rows = 0;
  int columns = 0;
  std::ptrdiff_t stride = 0;
  unsigned flags = 0;
  fftw_plan rowForward = nullptr;
  fftw_plan rowBackward = nullptr;
  fftw_plan blockForward = nullptr;
  fftw_plan blockBackward = nullptr;
  fftw_plan tailForward = nullptr;
  fftw_plan tailBackward = nullptr;

  PlanSet() = default;
  PlanSet(const PlanSet&) = delete;
  PlanSet& operator=(const PlanSet&) = delete;
  ~PlanSet() {
    std::lock_guard<std::mutex> lock(detail::FftwPlannerMutex());
    for (fftw_plan plan : {rowForward, rowBackward, blockForward, blockBackward, tailForward, tailBackward}) {
      if (plan) fftw_destroy_plan(plan);
    }
  }
  bool Complete() const {
    const bool blocks = columns < kColumnBlock || (blockForward && blockBackward);
    const bool tail = columns % kColumnBlock == 0 || (tailForward && tailBackward);
    return rowForward && rowBackward && blocks && tail;
  }
};

// The plans of the sizes used last, shared by every transform of the process. A transform keeps
// its plans alive while it holds them, so dropping a size from the cache never pulls plans from
// under a running transform.
class PlanCache {
 public:
  static constexpr std::size_t kCapacity = 8;

  // The plans for rows x columns with the given row stride and planner flags, made on `buffer`
  // (whose contents FFTW's measuring planner overwrites) when the cache does not hold them. Null
  // when FFTW cannot plan the size.
  std::shared_ptr<const PlanSet> Acquire(int rows, int columns, std::ptrdiff_t stride, unsigned flags,
                                         fftw_complex* buffer) {
    std::shared_ptr<const PlanSet> dropped;  // released after the lock: its destructor takes the lock
    std::lock_guard<std::mutex> lock(detail::FftwPlannerMutex());
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
      if ((*it)->rows == rows && (*it)->columns == columns && (*it)->stride == stride &&
          (*it)->flags == flags) {
        entries_.splice(entries_.begin(), entries_, it);
        return entries_.front();
      }
    }
    auto plans = std::make_shared<PlanSet>();
    plans->rows = rows;
    plans->columns = columns;
    plans->stride = stride;
    plans->flags = flags;
    plans->rowForward = fftw_plan_dft_1d(columns, buffer, buffer, FFTW_FORWARD, flags);
    plans->rowBackward = fftw_plan_dft_1d(columns, buffer, buffer, FFTW_BACKWARD, flags);
    const int n[1] = {rows};
    const int stride32 = static_cast<int>(stride);
    if (columns >= kColumnBlock) {
      plans->blockForward = fftw_plan_many_dft(1, n, kColumnBlock, buffer, nullptr, stride32, 1, buffer,
                                               nullptr, stride32, 1, FFTW_FORWARD, flags);
      plans->blockBackward = fftw_plan_many_dft(1, n, kColumnBlock, buffer, nullptr, stride32, 1, buffer,
                                                nullptr, stride32, 1, FFTW_BACKWARD, flags);
    }
    if (const int tail = columns % kColumnBlock; tail > 0) {
      plans->tailForward = fftw_plan_many_dft(1, n, tail, buffer, nullptr, stride32, 1, buffer, nullptr,
                                              stride32, 1, FFTW_FORWARD, flags);
      plans->tailBackward = fftw_plan_many_dft(1, n, tail, buffer, nullptr, stride32, 1, buffer, nullptr,
                                               stride32, 1, FFTW_BACKWARD, flags);
    }
    if (!plans->Complete()) {
      dropped = std::move(plans);
      return nullptr;
    }
    detail::CountFftwPlanSet();
    entries_.push_front(std::move(plans));
    if (entries_.size() > kCapacity) {
      dropped = std::move(entries_.back());
      entries_.pop_back();
    }
    return entries_.front();
  }

 private:
  std::list<std::shared_ptr<const PlanSet>> entries_;
};

std::atomic<Fft2D::PlanningEffort> planningEffort{Fft2D::PlanningEffort::kMeasure};

PlanCache& Plans() {
  // Never destroyed: transforms held in static objects may release their plans after the end of
  // main, and the planner lock they then take must still exist.
  static PlanCache* cache = new PlanCache;
  return *cache;
}

// Rows start on 64-byte boundaries (four complex values); a row of a multiple of 4 KiB is padded by
// one cache line so that the rows of a column block do not all fall into the same cache sets.
std::ptrdiff_t RowStrideFor(int columns) {
  std::ptrdiff_t stride = (static_cast<std::ptrdiff_t>(columns) + 3) / 4 * 4;
  if (stride > 0 && stride % 256 == 0) stride += 4;
  return stride;
}

}  // namespace

class Fft2D::Impl {
 public:
  Impl() : dispatcher_(this) { requestedWorkers_ = dispatcher_.GetNumberOfWorkers(); }
  Impl(const Impl& other)
      : rows_(other.rows_),
        columns_(other.columns_),
        stride_(other.stride_),
        plans_(other.plans_),
        allowMultiThreads_(other.allowMultiThreads_),
        releaseData_(other.releaseData_),
        requestedWorkers_(other.requestedWorkers_),
        dispatcher_(other.dispatcher_),
        status_(other.status_) {
    dispatcher_.SetObject(this);
    const std::size_t bytes = other.data_.Size();
    if (bytes > 0) {
      if (data_.Allocate(bytes)) {
        std::memcpy(data_.Data(), other.data_.Data(), bytes);
      } else {
        rows_ = columns_ = 0;
        stride_ = 0;
        plans_.reset();
        status_ =
            Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "Copying the transform data failed");
      }
    }
  }

  bool SetSize(int rows, int columns) {
    if (rows < 0 || columns < 0) {
      status_ = Status(0, StatusCode::kNegativeDimension, __LINE__, kSource, "");
      return false;
    }
    if (rows == rows_ && columns == columns_) return true;
    const std::ptrdiff_t stride = RowStrideFor(columns);
    const std::size_t bytes =
        static_cast<std::size_t>(rows) * static_cast<std::size_t>(stride) * sizeof(fftw_complex);
    AlignedBuffer fresh;
    if (!fresh.Allocate(bytes)) {
      status_ =
          Status(0, StatusCode::kAllocationFailed, __LINE__, kSource,
                 "No memory for a " + std::to_string(rows) + " x " + std::to_string(columns) + " transform");
      return false;
    }
    std::shared_ptr<const PlanSet> plans;
    if (rows > 0 && columns > 0) {
      const unsigned flags = planningEffort.load() == PlanningEffort::kMeasure ? FFTW_MEASURE : FFTW_ESTIMATE;
      plans = Plans().Acquire(rows, columns, stride, flags, reinterpret_cast<fftw_complex*>(fresh.Data()));
      if (!plans) {
        status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource,
                         "Call to fftw_plan_many_dft failed for " + std::to_string(rows) + " x " +
                             std::to_string(columns));
        return false;
      }
      // The measuring planner has scribbled over the buffer; the estimating one leaves it alone, and
      // a fresh buffer is zero already.
      if (flags == FFTW_MEASURE) fresh.Zero();
    }
    data_ = std::move(fresh);
    plans_ = std::move(plans);
    rows_ = rows;
    columns_ = columns;
    stride_ = stride;
    return true;
  }

  bool SetData(const DataWindow2D<double>& data, bool removeMean, bool applyHann, bool centreSpectrum) {
    if (!AcceptSource(data, removeMean, applyHann, centreSpectrum)) return false;
    return Guarded([&] { Run(&Impl::LoadRows, rows_); });
  }

  bool Transform(bool inverse) {
    if (!HasSize()) return false;
    inverse_ = inverse;
    const int blocks = (columns_ + kColumnBlock - 1) / kColumnBlock;
    return Guarded([&] {
      // The inverse goes columns first so that the 1 / (rows x columns) scaling rides on the row
      // pass, while each row is still in the first-level cache.
      if (inverse) {
        Run(&Impl::ColumnBlocks, blocks);
        Run(&Impl::Rows, rows_);
      } else {
        Run(&Impl::Rows, rows_);
        Run(&Impl::ColumnBlocks, blocks);
      }
    });
  }

  bool FilterRoundTrip(const DataWindow2D<double>& data, const BlockPass& spectrum, const RowPass& result) {
    if (!AcceptSource(data, false, false, false) || !HasSize()) return false;
    load_ = RowPass{};
    return RunRoundTrip(spectrum, result);
  }

  bool FilterRoundTrip(const RowPass& load, const BlockPass& spectrum, const RowPass& result) {
    if (!HasSize()) return false;
    load_ = load;
    return RunRoundTrip(spectrum, result);
  }

  bool RunRoundTrip(const BlockPass& spectrum, const RowPass& result) {
    spectrum_ = spectrum;
    result_ = result;
    // One row of scratch per worker, on the rows' alignment (the row plans run on it).
    const std::size_t scratchBytes = static_cast<std::size_t>(std::max(1, requestedWorkers_)) *
                                     static_cast<std::size_t>(stride_) * sizeof(fftw_complex);
    if (scratch_.Size() < scratchBytes && !scratch_.Allocate(scratchBytes)) {
      status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "No memory for the row scratch");
      return false;
    }
    const int blocks = (columns_ + kColumnBlock - 1) / kColumnBlock;
    return Guarded([&] {
      Run(&Impl::LoadAndTransformRows, rows_);
      Run(&Impl::FilterColumnBlocks, blocks);
      Run(&Impl::InverseRows, rows_);
    });
  }

  fftw_complex* Row(int row) const {
    return reinterpret_cast<fftw_complex*>(data_.Data()) + static_cast<std::ptrdiff_t>(row) * stride_;
  }

  int rows_ = 0;
  int columns_ = 0;
  std::ptrdiff_t stride_ = 0;
  AlignedBuffer data_;
  std::shared_ptr<const PlanSet> plans_;
  bool allowMultiThreads_ = true;
  bool releaseData_ = false;
  int requestedWorkers_ = 1;
  Threading::ThreadDispatcher<Impl> dispatcher_;
  Status status_{__LINE__, kSource};

 private:
  template <typename F>
  bool Guarded(F&& work) {
    try {
      work();
    } catch (const Status& failure) {
      status_ = failure;
      return false;
    } catch (...) {
      status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Unhandled exception");
      return false;
    }
    return true;
  }

  void Run(void (Impl::*work)(int, int), int count) {
    if (count <= 0) return;
    if (!allowMultiThreads_ || count == 1) {
      (this->*work)(0, count);
      return;
    }
    // A short range lowers the dispatcher's worker count for good; ask for the full count each time.
    dispatcher_.SetNumberOfWorkers(requestedWorkers_);
    dispatcher_.Invoke(work, 0, count);
  }

  void Run(void (Impl::*work)(int, int, int), int count) {
    if (count <= 0) return;
    if (!allowMultiThreads_ || count == 1) {
      (this->*work)(0, 0, count);
      return;
    }
    dispatcher_.SetNumberOfWorkers(requestedWorkers_);
    dispatcher_.Invoke(work, 0, count);
  }

  bool AcceptSource(const DataWindow2D<double>& data, bool removeMean, bool applyHann, bool centreSpectrum) {
    if (removeMean || applyHann || centreSpectrum) {
      status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                       "Mean removal, Hann window and centred spectrum are not supported");
      return false;
    }
    const Window2D window = data.GetWindow();
    if (window.GetRows() > rows_ || window.GetCols() > columns_) {
      status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                       "The data window (" + std::to_string(window.GetRows()) + " x " +
                           std::to_string(window.GetCols()) + ") is larger than the transform (" +
                           std::to_string(rows_) + " x " + std::to_string(columns_) + ")");
      return false;
    }
    source_ = &data;
    sourceWindow_ = window;
    return true;
  }

  bool HasSize() {
    if (rows_ > 0 && columns_ > 0) return true;
    status_ = Status(0, StatusCode::kNotSet, __LINE__, kSource, "The transform has no size (SetSize)");
    return false;
  }

  const double* SourceRow(int r) const {
    return source_->Row(sourceWindow_.GetStartRow() - source_->GetStartRow() + r) +
           (sourceWindow_.GetStartCol() - source_->GetStartCol());
  }

  void LoadRow(int r, fftw_complex* out) {
    const int windowRows = sourceWindow_.GetRows();
    const int windowCols = sourceWindow_.GetCols();
    if (r >= windowRows) {
      std::memset(static_cast<void*>(out), 0, sizeof(fftw_complex) * static_cast<std::size_t>(columns_));
      return;
    }
    const double* in = SourceRow(r);
    for (int c = 0; c < windowCols; ++c) {
      out[c][0] = DataWindow2D<double>::IsDataValid(in[c]) ? in[c] : 0.0;
      out[c][1] = 0.0;
    }
    if (windowCols < columns_) {
      std::memset(static_cast<void*>(out + windowCols), 0,
                  sizeof(fftw_complex) * static_cast<std::size_t>(columns_ - windowCols));
    }
  }

  void LoadRows(int first, int end) {
    for (int r = first; r < end; ++r)
      LoadRow(r, Row(r));
  }

  void TransformRow(fftw_complex* row, bool inverse) {
    fftw_execute_dft(inverse ? plans_->rowBackward : plans_->rowForward, row, row);
    if (inverse) {
      const double scale = 1.0 / (static_cast<double>(rows_) * columns_);
      double* values = &row[0][0];
      for (int i = 0; i < 2 * columns_; ++i)
        values[i] *= scale;
    }
  }

  void TransformBlock(int b, bool inverse) {
    const bool full = b < columns_ / kColumnBlock;
    const fftw_plan plan = full ? (inverse ? plans_->blockBackward : plans_->blockForward)
                                : (inverse ? plans_->tailBackward : plans_->tailForward);
    fftw_complex* start = Row(0) + static_cast<std::ptrdiff_t>(b) * kColumnBlock;
    fftw_execute_dft(plan, start, start);
  }

  void Rows(int first, int end) {
    for (int r = first; r < end; ++r)
      TransformRow(Row(r), inverse_);
  }

  void ColumnBlocks(int first, int end) {
    for (int b = first; b < end; ++b)
      TransformBlock(b, inverse_);
  }

  // The passes of FilterRoundTrip. A row is loaded and transformed in the worker's scratch row and
  // streamed to its place, past the cache: the data's old contents are never fetched.
  void LoadAndTransformRows(int thread, int first, int end) {
    fftw_complex* scratch = Scratch(thread);
    for (int r = first; r < end; ++r) {
      if (load_.run) {
        load_.run(load_.context, r, reinterpret_cast<std::complex<double>*>(scratch));
      } else {
        LoadRow(r, scratch);
      }
      TransformRow(scratch, false);
      StreamRow(scratch, Row(r));
    }
#if defined(__SSE2__)
    _mm_sfence();  // streamed stores are weakly ordered: visible before the pass counts as done
#endif
  }

  void FilterColumnBlocks(int first, int end) {
    for (int b = first; b < end; ++b) {
      TransformBlock(b, false);
      if (spectrum_.run) {
        const int firstColumn = b * kColumnBlock;
        spectrum_.run(spectrum_.context, firstColumn, std::min(kColumnBlock, columns_ - firstColumn),
                      reinterpret_cast<std::complex<double>*>(Row(0) + firstColumn), stride_);
      }
      TransformBlock(b, true);
    }
  }

  // The row is inverted in the worker's scratch row, so the data is only read: nothing of it is
  // written back to memory. With releaseData_, the rows the worker has read are given back to the
  // kernel a huge page at a time while the caller's result maps fill up, so that the two do not
  // both reach their full size; pages shared with a neighbouring worker's rows stay.
  void InverseRows(int thread, int first, int end) {
    fftw_complex* scratch = Scratch(thread);
    const std::size_t rowBytes = static_cast<std::size_t>(stride_) * sizeof(fftw_complex);
    std::size_t released = static_cast<std::size_t>(first) * rowBytes;
    for (int r = first; r < end; ++r) {
      std::memcpy(static_cast<void*>(scratch), Row(r),
                  sizeof(fftw_complex) * static_cast<std::size_t>(columns_));
      TransformRow(scratch, true);
      if (result_.run) result_.run(result_.context, r, reinterpret_cast<std::complex<double>*>(scratch));
      if (!releaseData_) continue;
      const std::size_t read = static_cast<std::size_t>(r + 1) * rowBytes;
      const bool last = r + 1 == end;
      const std::size_t until = last ? read : read / AlignedBuffer::kHugePage * AlignedBuffer::kHugePage;
      if (until > released && (last || until - released >= AlignedBuffer::kHugePage)) {
        data_.Discard(released, until - released);
        released = until;
      }
    }
  }

  fftw_complex* Scratch(int thread) const {
    return reinterpret_cast<fftw_complex*>(scratch_.Data()) + static_cast<std::ptrdiff_t>(thread) * stride_;
  }

  void StreamRow(const fftw_complex* from, fftw_complex* to) const {
#if defined(__SSE2__)
    const double* in = &from[0][0];
    double* out = &to[0][0];
    for (int i = 0; i < 2 * columns_; i += 2)
      _mm_stream_pd(out + i, _mm_load_pd(in + i));
#else
    std::memcpy(static_cast<void*>(to), from, sizeof(fftw_complex) * static_cast<std::size_t>(columns_));
#endif
  }

  // State of the pass in progress, read by the work functions.
  const DataWindow2D<double>* source_ = nullptr;
  Window2D sourceWindow_;
  bool inverse_ = false;
  RowPass load_;  // no function: rows come from source_
  BlockPass spectrum_;
  RowPass result_;
  AlignedBuffer scratch_;
};

Fft2D::Fft2D() : impl_(std::make_unique<Impl>()) {}
Fft2D::Fft2D(const Fft2D& other) : impl_(std::make_unique<Impl>(*other.impl_)) {}
Fft2D& Fft2D::operator=(const Fft2D& other) {
  if (this != &other) impl_ = std::make_unique<Impl>(*other.impl_);
  return *this;
}
Fft2D::~Fft2D() = default;

bool Fft2D::SetSize(int rows, int columns) {
  return impl_->SetSize(rows, columns);
}
int Fft2D::GetRows() const {
  return impl_->rows_;
}
int Fft2D::GetColumns() const {
  return impl_->columns_;
}
std::ptrdiff_t Fft2D::GetRowStride() const {
  return impl_->stride_;
}

bool Fft2D::SetData(const DataWindow2D<double>& data, bool removeMean, bool applyHann, bool centreSpectrum) {
  return impl_->SetData(data, removeMean, applyHann, centreSpectrum);
}

bool Fft2D::Transform(bool inverse) {
  return impl_->Transform(inverse);
}

int Fft2D::ColumnBlockWidth() {
  return kColumnBlock;
}

bool Fft2D::FilterRoundTrip(const DataWindow2D<double>& data, const BlockPass& spectrum,
                            const RowPass& result) {
  return impl_->FilterRoundTrip(data, spectrum, result);
}

bool Fft2D::FilterRoundTrip(const RowPass& load, const BlockPass& spectrum, const RowPass& result) {
  return impl_->FilterRoundTrip(load, spectrum, result);
}

double Fft2D::MagSquared(int row, int column) const {
  const fftw_complex& x = impl_->Row(row)[column];
  return x[0] * x[0] + x[1] * x[1];
}

std::complex<double>* Fft2D::GetRow(int row) {
  return reinterpret_cast<std::complex<double>*>(impl_->Row(row));
}
const std::complex<double>* Fft2D::GetRow(int row) const {
  return reinterpret_cast<const std::complex<double>*>(impl_->Row(row));
}

namespace {
template <int Part>
bool CopyPart(const Fft2D& fft, DataMatrix2D<double>& out) {
  if (!out.Resize(fft.GetRows(), fft.GetColumns())) return false;
  for (int r = 0; r < fft.GetRows(); ++r) {
    const double* in = reinterpret_cast<const double*>(fft.GetRow(r));
    double* o = out.Row(r);
    for (int c = 0; c < fft.GetColumns(); ++c)
      o[c] = in[2 * c + Part];
  }
  return true;
}
}  // namespace

bool Fft2D::GetRealPart(DataMatrix2D<double>& real) const {
  return CopyPart<0>(*this, real);
}
bool Fft2D::GetImaginaryPart(DataMatrix2D<double>& imaginary) const {
  return CopyPart<1>(*this, imaginary);
}

bool Fft2D::GetRoundTripReleasesData() const {
  return impl_->releaseData_;
}
void Fft2D::SetRoundTripReleasesData(bool release) {
  impl_->releaseData_ = release;
}

bool Fft2D::GetAllowMultiThreads() const {
  return impl_->allowMultiThreads_;
}
void Fft2D::SetAllowMultiThreads(bool allow) {
  impl_->allowMultiThreads_ = allow;
}
int Fft2D::GetNumberOfThreads() const {
  return impl_->requestedWorkers_;
}
void Fft2D::SetNumberOfThreads(int n) {
  impl_->dispatcher_.SetNumberOfWorkers(n);
  impl_->requestedWorkers_ = impl_->dispatcher_.GetNumberOfWorkers();
}

Status& Fft2D::GetStatus() {
  return impl_->status_;
}
const Status& Fft2D::GetStatus() const {
  return impl_->status_;
}

void Fft2D::SetPlanningEffort(PlanningEffort effort) {
  planningEffort.store(effort);
}
Fft2D::PlanningEffort Fft2D::GetPlanningEffort() {
  return planningEffort.load();
}

}  // namespace Quarn::Metrology::Analysis::Core

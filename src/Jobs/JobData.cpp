#include "Jobs/JobData.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>

#include "Analysis/Core/NoData.h"

namespace Quarn::Jobs {

namespace {

std::string Shape(int cols, int rows) {
  return std::to_string(cols) + " x " + std::to_string(rows);
}

// The refusal of a number: what was given and what is needed; NaN and infinities by name, since NaN
// passes every check made of comparisons.
bool Refuse(JobRecord& record, const char* option, double value, const std::string& needed) {
  const std::string given = std::isnan(value)   ? "nan"
                            : std::isinf(value) ? (value > 0 ? "inf" : "-inf")
                                                : FormatNumber(value);
  const std::string text = std::isfinite(value) ? "got " + given + "; " + needed + " is needed"
                                                : given + " is not a finite number; " + needed + " is needed";
  return Fail(record, JobOutcome::kBadInput, std::string(option) + ": " + text);
}

template <typename T>
double SampleAt(const ArrayView& view, int frame, int row, int col) {
  const auto* base = static_cast<const std::byte*>(view.data) + frame * view.frameStride +
                     row * view.rowStride + col * view.colStride;
  T value;
  std::memcpy(&value, base, sizeof value);
  return static_cast<double>(value);
}

double Sample(const ArrayView& view, int frame, int row, int col) {
  switch (view.type) {
    case SampleType::kUInt8:
      return SampleAt<std::uint8_t>(view, frame, row, col);
    case SampleType::kUInt16:
      return SampleAt<std::uint16_t>(view, frame, row, col);
    case SampleType::kDouble:
      return SampleAt<double>(view, frame, row, col);
  }
  return 0.0;
}

bool CheckShape(const ArrayView& view, JobRecord& record) {
  if (view.data == nullptr || view.rows < 1 || view.cols < 1 || view.frames < 1) {
    return Fail(record, JobOutcome::kBadInput,
                view.name + " is empty (" + std::to_string(view.frames) + " frames of " +
                    Shape(view.cols, view.rows) + "); at least one frame of one pixel is needed");
  }
  // The containers count pixels in an int.
  if (static_cast<std::int64_t>(view.rows) * view.cols > std::numeric_limits<int>::max()) {
    return Fail(record, JobOutcome::kBadInput,
                view.name + " is " + Shape(view.cols, view.rows) + ", more than 2^31 - 1 pixels");
  }
  return true;
}

}  // namespace

ArrayView ArrayView::Contiguous(const void* data, SampleType type, int frames, int rows, int cols,
                                std::string name) {
  ArrayView view;
  view.data = data;
  view.type = type;
  view.frames = frames;
  view.rows = rows;
  view.cols = cols;
  view.colStride = view.BytesPerSample();
  view.rowStride = view.colStride * cols;
  view.frameStride = view.rowStride * rows;
  view.name = std::move(name);
  return view;
}

int ArrayView::BytesPerSample() const {
  return type == SampleType::kUInt8 ? 1 : type == SampleType::kUInt16 ? 2 : 8;
}

bool ArrayView::RowsPacked() const {
  return colStride == BytesPerSample() && rowStride == colStride * cols;
}

bool Fail(JobRecord& record, JobOutcome outcome, const std::string& message) {
  record.outcome = outcome;
  record.message = message;
  return false;
}

std::string FormatNumber(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

bool CheckNumberFrom(JobRecord& record, const char* option, double value, double lo, double hi) {
  if (value >= lo && value <= hi) return true;
  return Refuse(record, option, value, "a number from " + FormatNumber(lo) + " to " + FormatNumber(hi));
}

bool CheckWholeNumberFrom(JobRecord& record, const char* option, double value, double lo, double hi) {
  if (value >= lo && value <= hi && value == std::floor(value)) return true;
  return Refuse(record, option, value, "a whole number from " + FormatNumber(lo) + " to " + FormatNumber(hi));
}

bool CheckNumberAbove(JobRecord& record, const char* option, double value, double bound) {
  if (value > bound && std::isfinite(value)) return true;
  return Refuse(record, option, value, "a number above " + FormatNumber(bound));
}

bool CheckNumberAtLeast(JobRecord& record, const char* option, double value, double bound) {
  if (value >= bound && std::isfinite(value)) return true;
  return Refuse(record, option, value, "a number of at least " + FormatNumber(bound));
}

bool CheckCommonOptions(JobRecord& record, int maxValue, int threads) {
  if (maxValue != 0 && !CheckWholeNumberFrom(record, "--max-value", maxValue, 1, 65535)) return false;
  if (threads != -1 && !CheckWholeNumberFrom(record, "--threads", threads, 0, 1024)) return false;
  return true;
}

bool MakeFrameBuffer(const ArrayView& view, Core::FrameBuffer& frames, JobRecord& record) {
  if (!CheckShape(view, record)) return false;
  if (view.type == SampleType::kDouble) {
    return Fail(record, JobOutcome::kBadInput,
                view.name + ": samples are floating point; camera frames are 8- or 16-bit unsigned integers");
  }
  const auto resolution =
      view.type == SampleType::kUInt8 ? Core::FrameBuffer::kRes8Bit : Core::FrameBuffer::kRes16Bit;
  const Core::Window2D window(0, 0, view.rows, view.cols);
  const int bytes = view.BytesPerSample();
  const auto* base = static_cast<const std::byte*>(view.data);
  const bool aligned = reinterpret_cast<std::uintptr_t>(base) % bytes == 0 && view.frameStride % bytes == 0;
  if (view.RowsPacked() && aligned) {
    // The host's frames are read in place. The algorithms only read them; the frame buffer's
    // interface takes writable slots because a host may also fill adopted frames through it.
    std::vector<std::byte*> slots;
    slots.reserve(static_cast<std::size_t>(view.frames));
    for (int k = 0; k < view.frames; ++k)
      slots.push_back(const_cast<std::byte*>(base + k * view.frameStride));
    const std::shared_ptr<void> borrowed(const_cast<std::byte*>(base), [](void*) {});
    if (!frames.AdoptFrames(window, view.frames, resolution, std::move(slots), borrowed)) {
      return Fail(record, JobOutcome::kBadInput, view.name + ": " + frames.GetStatus().GetPrintString());
    }
    return true;
  }
  if (!frames.Allocate(window, view.frames, resolution)) {
    return Fail(record, JobOutcome::kBadInput, view.name + ": " + frames.GetStatus().GetPrintString());
  }
  for (int k = 0; k < view.frames; ++k) {
    auto* slot = static_cast<std::byte*>(frames.GetFrameData(k));
    for (int r = 0; r < view.rows; ++r) {
      const std::byte* row = base + k * view.frameStride + r * view.rowStride;
      std::byte* out = slot + static_cast<std::int64_t>(r) * view.cols * bytes;
      if (view.colStride == bytes) {
        std::memcpy(out, row, static_cast<std::size_t>(view.cols) * bytes);
      } else {
        for (int c = 0; c < view.cols; ++c)
          std::memcpy(out + c * bytes, row + c * view.colStride, static_cast<std::size_t>(bytes));
      }
    }
  }
  return true;
}

bool MakeIntImage(const ArrayView& view, int frame, Core::IntMatrix2D& image, JobRecord& record) {
  if (!CheckShape(view, record)) return false;
  if (view.type == SampleType::kDouble) {
    return Fail(record, JobOutcome::kBadInput,
                view.name + ": samples are floating point; camera images are 8- or 16-bit unsigned integers");
  }
  if (!image.Resize(0, 0, view.rows, view.cols)) {
    return Fail(record, JobOutcome::kBadInput, view.name + ": " + image.GetStatus().GetPrintString());
  }
  for (int r = 0; r < view.rows; ++r)
    for (int c = 0; c < view.cols; ++c)
      image(r, c) = static_cast<int>(Sample(view, frame, r, c));
  return true;
}

bool MakeDoubleMap(const ArrayView& view, Core::DataMatrix2D<double>& map, JobRecord& record) {
  if (!CheckShape(view, record)) return false;
  if (!map.Resize(0, 0, view.rows, view.cols)) {
    return Fail(record, JobOutcome::kBadInput, view.name + ": " + map.GetStatus().GetPrintString());
  }
  for (int r = 0; r < view.rows; ++r) {
    for (int c = 0; c < view.cols; ++c) {
      const double v = Sample(view, 0, r, c);
      map(r, c) = std::isnan(v) ? Core::kNoDataDouble : v;
    }
  }
  return true;
}

bool MakeMask(const ArrayView& view, Core::RegionIdMatrix2D& mask, JobRecord& record) {
  if (!CheckShape(view, record)) return false;
  if (!mask.Resize(0, 0, view.rows, view.cols)) {
    return Fail(record, JobOutcome::kBadInput, view.name + ": " + mask.GetStatus().GetPrintString());
  }
  for (int r = 0; r < view.rows; ++r)
    for (int c = 0; c < view.cols; ++c)
      mask(r, c) = Sample(view, 0, r, c) != 0.0 ? 0 : Core::RegionIdMatrix2D::NoData();
  return true;
}

namespace {

template <typename T>
bool CopyMapImpl(const Core::DataMatrix2D<T>& map, const MapView& out, JobRecord& record, const char* what) {
  if (out.Empty()) return true;
  if (out.rows != map.GetRows() || out.cols != map.GetColumns()) {
    return Fail(record, JobOutcome::kBadInput,
                std::string(what) + " map is " + Shape(out.cols, out.rows) + ", the result is " +
                    Shape(map.GetColumns(), map.GetRows()));
  }
  const std::int64_t stride = out.rowStride > 0 ? out.rowStride : out.cols;
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (int r = 0; r < out.rows; ++r) {
    const T* in = map.Row(r);
    double* row = out.data + r * stride;
    for (int c = 0; c < out.cols; ++c)
      row[c] = Core::IsNoDataValue(in[c]) ? nan : static_cast<double>(in[c]);
  }
  return true;
}

}  // namespace

void NoDataToNan(Core::DataMatrix2D<double>& map) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  double* data = map.Data();
  for (std::int64_t i = 0; i < map.GetCount(); ++i)
    if (Core::IsNoDataValue(data[i])) data[i] = nan;
}

void FillNan(const MapView& out) {
  if (out.Empty()) return;
  const std::int64_t stride = out.rowStride > 0 ? out.rowStride : out.cols;
  for (int r = 0; r < out.rows; ++r)
    std::fill(out.data + r * stride, out.data + r * stride + out.cols,
              std::numeric_limits<double>::quiet_NaN());
}

bool CopyMap(const Core::DataMatrix2D<double>& map, const MapView& out, JobRecord& record, const char* what) {
  return CopyMapImpl(map, out, record, what);
}

bool CopyMap(const Core::IntMatrix2D& map, const MapView& out, JobRecord& record, const char* what) {
  return CopyMapImpl(map, out, record, what);
}

}  // namespace Quarn::Jobs

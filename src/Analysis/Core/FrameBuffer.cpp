#include "Analysis/Core/FrameBuffer.h"

#include <climits>
#include <limits>
#include <string>

namespace Quarn::Metrology::Analysis::Core {

namespace {
constexpr const char* kSource = "analysis\\core\\FrameBuffer";
}

FrameBuffer::FrameBuffer() : status_(__LINE__, kSource) {}

FrameBuffer::~FrameBuffer() = default;

int FrameBuffer::DefaultMaxValue(ElementRes resolution) {
  switch (resolution) {
    case kRes8Bit:
      return 255;
    case kRes16Bit:
      return 65535;
    case kRes32Bit:
      return INT_MAX;
  }
  return 255;
}

bool FrameBuffer::CheckGeometry(const Window2D& window, int framesScanned, ElementRes resolution,
                                int framesStored) {
  if (!window.IsWellFormed()) {
    status_ =
        Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource, "Frame window has a negative size");
    return false;
  }
  if (framesScanned < 1 || framesStored > framesScanned || framesStored < 1) {
    status_ =
        Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
               "Frames scanned must be at least 1 and frames stored at most frames scanned (got " +
                   std::to_string(framesScanned) + " scanned, " + std::to_string(framesStored) + " stored)");
    return false;
  }
  if (resolution != kRes8Bit && resolution != kRes16Bit && resolution != kRes32Bit) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource, "Unknown sample width");
    return false;
  }
  if (window.GetCount() > INT_MAX) {
    status_ =
        Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "Frame window of more than 2^31 pixels");
    return false;
  }
  return true;
}

bool FrameBuffer::TakeGeometry(const Window2D& window, int framesScanned, ElementRes resolution,
                               int framesStored, int scanDirection) {
  window_ = window;
  framesScanned_ = framesScanned;
  framesStored_ = framesStored;
  scanDirection_ = scanDirection < 0 ? -1 : 1;
  resolution_ = resolution;
  maxValue_ = DefaultMaxValue(resolution);
  const Status scratch = MakeThreadData(1);
  if (scratch.IsError()) {
    Release();
    status_ = scratch;
    return false;
  }
  return true;
}

bool FrameBuffer::Allocate(const Window2D& window, int framesScanned, ElementRes resolution, int framesStored,
                           int scanDirection) {
  Release();
  if (framesStored <= 0) framesStored = framesScanned;
  if (!CheckGeometry(window, framesScanned, resolution, framesStored)) return false;
  const std::size_t frameBytes =
      static_cast<std::size_t>(window.GetCount()) * static_cast<std::size_t>(resolution);
  const std::size_t stride = AlignedBuffer::RoundUp(frameBytes);
  if (!frames_.Allocate(stride * static_cast<std::size_t>(framesStored))) {
    status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "Allocation of the frames failed");
    return false;
  }
  slots_.resize(static_cast<std::size_t>(framesStored));
  for (int slot = 0; slot < framesStored; ++slot) {
    slots_[static_cast<std::size_t>(slot)] = frames_.Data() + static_cast<std::size_t>(slot) * stride;
  }
  return TakeGeometry(window, framesScanned, resolution, framesStored, scanDirection);
}

bool FrameBuffer::AdoptFrames(const Window2D& window, int framesScanned, ElementRes resolution,
                              std::vector<std::byte*> slots, std::shared_ptr<void> owner, int scanDirection) {
  Release();
  const int framesStored = static_cast<int>(slots.size());
  if (!CheckGeometry(window, framesScanned, resolution, framesStored)) return false;
  for (std::byte* slot : slots) {
    if (!slot || reinterpret_cast<std::uintptr_t>(slot) % static_cast<std::uintptr_t>(resolution) != 0) {
      status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                       "Adopted frame is null or misaligned");
      return false;
    }
  }
  adoptedOwner_ = std::move(owner);
  slots_ = std::move(slots);
  return TakeGeometry(window, framesScanned, resolution, framesStored, scanDirection);
}

void FrameBuffer::Release() {
  frames_.Release();
  adoptedOwner_.reset();
  slots_.clear();
  scratch_.Release();
  window_ = Window2D();
  framesScanned_ = framesStored_ = 0;
  scratchStride_ = 0;
  threadCount_ = 0;
}

void* FrameBuffer::GetFrameData(int slot) {
  if (slot < 0 || slot >= framesStored_) return nullptr;
  return slots_[static_cast<std::size_t>(slot)];
}

const void* FrameBuffer::GetFrameData(int slot) const {
  if (slot < 0 || slot >= framesStored_) return nullptr;
  return slots_[static_cast<std::size_t>(slot)];
}

template <typename Source>
bool FrameBuffer::StoreFrameImpl(int frame, const Source* pixels, int rowStride) {
  if (!pixels || frame < 0 || frame >= framesScanned_) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                     pixels ? "Frame index " + std::to_string(frame) + " is outside 0.." +
                                  std::to_string(framesScanned_ - 1)
                            : std::string("pixels == 0"));
    return false;
  }
  const int rows = window_.GetRows();
  const int cols = window_.GetCols();
  if (rowStride <= 0) rowStride = cols;
  void* target = GetFrameData(GetSlotOfFrame(frame));
  bool inRange = true;
  const auto copy = [&](auto* out) {
    using Stored = std::remove_pointer_t<decltype(out)>;
    for (int r = 0; r < rows; ++r) {
      const Source* in = pixels + static_cast<std::ptrdiff_t>(r) * rowStride;
      Stored* o = out + static_cast<std::ptrdiff_t>(r) * cols;
      for (int c = 0; c < cols; ++c) {
        const auto v = static_cast<long long>(in[c]);
        if constexpr (sizeof(Stored) < sizeof(Source) ||
                      std::is_signed_v<Source> != std::is_signed_v<Stored>) {
          if (v < std::numeric_limits<Stored>::min() || v > std::numeric_limits<Stored>::max())
            inRange = false;
        }
        o[c] = static_cast<Stored>(v);
      }
    }
  };
  switch (resolution_) {
    case kRes8Bit:
      copy(static_cast<std::uint8_t*>(target));
      break;
    case kRes16Bit:
      copy(static_cast<std::uint16_t*>(target));
      break;
    case kRes32Bit:
      copy(static_cast<std::int32_t*>(target));
      break;
  }
  if (!inRange) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                     "Frame " + std::to_string(frame) + " holds samples outside the range of " +
                         std::to_string(8 * static_cast<int>(resolution_)) + "-bit storage");
    return false;
  }
  return true;
}

bool FrameBuffer::StoreFrame(int frame, const std::uint8_t* pixels, int rowStride) {
  return StoreFrameImpl(frame, pixels, rowStride);
}
bool FrameBuffer::StoreFrame(int frame, const std::uint16_t* pixels, int rowStride) {
  return StoreFrameImpl(frame, pixels, rowStride);
}
bool FrameBuffer::StoreFrame(int frame, const std::int32_t* pixels, int rowStride) {
  return StoreFrameImpl(frame, pixels, rowStride);
}

Status FrameBuffer::MakeThreadData(int numberOfThreads) {
  if (numberOfThreads < 1) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource, "numberOfThreads < 1");
    return status_;
  }
  const std::size_t stride =
      AlignedBuffer::RoundUp(static_cast<std::size_t>(framesStored_) * kMaxScratchElementBytes);
  if (numberOfThreads <= threadCount_ && stride == scratchStride_) return Status(__LINE__, kSource);
  const int count = numberOfThreads > threadCount_ ? numberOfThreads : threadCount_;
  if (!scratch_.Allocate(stride * static_cast<std::size_t>(count))) {
    threadCount_ = 0;
    status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "Allocation of thread data failed");
    return status_;
  }
  scratchStride_ = stride;
  threadCount_ = count;
  return Status(__LINE__, kSource);
}

}  // namespace Quarn::Metrology::Analysis::Core

#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

#include "Analysis/Core/AlignedBuffer.h"
#include "Analysis/Core/QuarnCoreExport.h"
#include "Analysis/Core/Status.h"
#include "Analysis/Core/Window2D.h"

namespace Quarn::Metrology::Analysis::Core {

// FrameBuffer
//
// A stack of camera frames over one window of the camera (the allocated window): phase-shifted
// frames for PSI, scan frames for white-light interferometry, a single frame for carrier fringes.
//
// Geometry and conventions
// - Frames are stored frame by frame ("slot" by slot), each slot one row-major image of the window,
//   64-byte aligned. Pixel p is element p of every slot (row-major over the window).
// - Samples are unsigned 8-bit, unsigned 16-bit or signed 32-bit (`ElementRes`, bytes per sample).
// - Frames scanned F and frames stored S: normally S == F and frame f sits in slot f. A buffer may
//   keep only S < F slots as a ring: frame f then sits in slot f mod S, so after a scan the ring
//   holds the last S frames (or, when the host stops writing a pixel around its signal peak, the S
//   frames around that peak).
// - Scan direction +1 (forward) or -1 (reversed: the scan moved the other way; the white-light
//   loaders mirror the signal).
// - `GetMaxValue()` is the saturation level: the largest sample the camera can deliver (255, 65535
//   or 2^31 - 1 by sample width, or what the host sets, e.g. 4095 for a 12-bit camera).
//
// Reading one pixel across frames: `MakeThreadData(n)` creates one scratch array per worker thread
// (each on its own cache lines), and `ExtractIndex<T>(thread, pixel)` gathers the pixel's S samples,
// slot 0 first, into that thread's scratch as T and returns a pointer to them. Only the thread that
// owns the slot may use it; no lock is taken.
//
// Filling: `StoreFrame(frame, pixels)` copies a host buffer (any of the three sample types, with an
// optional row stride) into the frame's slot, or a host writes a slot in place through
// `GetFrameData(slot)`. A host that already holds the frames in memory (a memory-mapped file, a
// camera driver's buffers) can instead lend them with `AdoptFrames`: no copy is made, the buffer
// reads the host's memory for as long as the owner handle it was given lives.
class QUARN_CORE_EXPORT FrameBuffer {
 public:
  enum ElementRes : int { kRes8Bit = 1, kRes16Bit = 2, kRes32Bit = 4 };

  FrameBuffer();
  FrameBuffer(const FrameBuffer&) = delete;
  FrameBuffer& operator=(const FrameBuffer&) = delete;
  FrameBuffer(FrameBuffer&&) noexcept = default;
  FrameBuffer& operator=(FrameBuffer&&) noexcept = default;
  ~FrameBuffer();

  // Allocates S = framesStored slots (S = F when framesStored <= 0) of the window, all zero, and
  // scratch for one thread. Fails with code 20 for a malformed window, a frame count below 1 or
  // S > F, and with code 3 when memory runs out; the buffer is then empty.
  bool Allocate(const Window2D& window, int framesScanned, ElementRes resolution, int framesStored = 0,
                int scanDirection = 1);

  // Uses the host's frames in place: slot k is the row-major image at `slots[k]` (S = slots.size()
  // slots of pixel-count samples, each aligned to its sample size). `owner` keeps that memory alive
  // and is released with the buffer. The memory must be writable if the host writes frames through
  // `GetFrameData` or `StoreFrame`. Fails with code 20 for the same reasons as `Allocate`, and for a
  // null or misaligned slot.
  bool AdoptFrames(const Window2D& window, int framesScanned, ElementRes resolution,
                   std::vector<std::byte*> slots, std::shared_ptr<void> owner, int scanDirection = 1);
  bool OwnsFrames() const { return !adoptedOwner_; }

  void Release();

  Window2D GetAllocatedWindow() const { return window_; }
  int GetPixelCount() const { return static_cast<int>(window_.GetCount()); }
  int GetRows() const { return window_.GetRows(); }
  int GetColumns() const { return window_.GetCols(); }
  int GetNumberOfFrames() const { return framesScanned_; }
  int GetFramesStored() const { return framesStored_; }
  bool IsRing() const { return framesStored_ != framesScanned_; }
  int GetScanDirection() const { return scanDirection_; }
  void SetScanDirection(int direction) { scanDirection_ = direction < 0 ? -1 : 1; }
  ElementRes GetElementRes() const { return resolution_; }
  int GetBytesPerSample() const { return static_cast<int>(resolution_); }

  int GetMaxValue() const { return maxValue_; }
  void SetMaxValue(int maxValue) { maxValue_ = maxValue; }
  static int DefaultMaxValue(ElementRes resolution);

  int GetSlotOfFrame(int frame) const { return framesStored_ > 0 ? frame % framesStored_ : 0; }

  // Raw storage of one slot (pixel count samples of the buffer's type), or null for a bad slot.
  void* GetFrameData(int slot);
  const void* GetFrameData(int slot) const;
  // Typed access; null unless T is the stored sample type.
  template <typename T>
  T* GetFrame(int slot) {
    return MatchesStorage<T>() ? static_cast<T*>(GetFrameData(slot)) : nullptr;
  }
  template <typename T>
  const T* GetFrame(int slot) const {
    return MatchesStorage<T>() ? static_cast<const T*>(GetFrameData(slot)) : nullptr;
  }

  // Copies one frame from a host buffer into slot `frame mod S`. `rowStride` is in samples (0 for
  // tightly packed rows). Samples that do not fit the buffer's type fail with code 20 and leave the
  // slot partly written.
  bool StoreFrame(int frame, const std::uint8_t* pixels, int rowStride = 0);
  bool StoreFrame(int frame, const std::uint16_t* pixels, int rowStride = 0);
  bool StoreFrame(int frame, const std::int32_t* pixels, int rowStride = 0);

  // Creates (or keeps, when large enough) scratch for `numberOfThreads` readers.
  Status MakeThreadData(int numberOfThreads);
  int GetThreadDataCount() const { return threadCount_; }

  // Gathers pixel `pixel` of every stored slot, slot 0 first, into the scratch of `thread` as T and
  // returns it. T must be able to hold every stored sample (unsigned char only for 8-bit buffers),
  // otherwise the result is null. Converts per call according to the stored type; hot loops that
  // have already decided the type call `ExtractIndexAs<Stored, T>`.
  //
  // Precondition, not checked in release builds because this runs once per pixel: 0 <= thread <
  // GetThreadDataCount() (so `MakeThreadData` must have succeeded for that many threads) and
  // 0 <= pixel < GetPixelCount(). Debug builds assert it.
  template <typename T>
  T* ExtractIndex(int thread, int pixel) {
    switch (resolution_) {
      case kRes8Bit:
        return ExtractIndexAs<std::uint8_t, T>(thread, pixel);
      case kRes16Bit:
        if constexpr (sizeof(T) < 2 || std::is_same_v<T, std::int16_t>)
          return nullptr;
        else
          return ExtractIndexAs<std::uint16_t, T>(thread, pixel);
      case kRes32Bit:
        if constexpr (sizeof(T) < 4 || std::is_same_v<T, std::uint32_t> || std::is_same_v<T, float>)
          return nullptr;
        else
          return ExtractIndexAs<std::int32_t, T>(thread, pixel);
    }
    return nullptr;
  }

  template <typename Stored, typename T>
  T* ExtractIndexAs(int thread, int pixel) {
    assert(thread >= 0 && thread < threadCount_ && "ExtractIndex: thread has no scratch (MakeThreadData)");
    assert(pixel >= 0 && pixel < GetPixelCount() && "ExtractIndex: pixel outside the allocated window");
    T* out = ThreadScratch<T>(thread);
    std::byte* const* slots = slots_.data();
    for (int slot = 0; slot < framesStored_; ++slot) {
      out[slot] = static_cast<T>(reinterpret_cast<const Stored*>(slots[slot])[pixel]);
    }
    return out;
  }

  // The scratch array of a thread, room for S values of up to 8 bytes each.
  template <typename T>
  T* ThreadScratch(int thread) {
    static_assert(sizeof(T) <= kMaxScratchElementBytes, "scratch holds elements of up to 8 bytes");
    return reinterpret_cast<T*>(scratch_.Data() + static_cast<std::size_t>(thread) * scratchStride_);
  }

  Status& GetStatus() { return status_; }
  const Status& GetStatus() const { return status_; }

 private:
  static constexpr std::size_t kMaxScratchElementBytes = 8;

  template <typename T>
  bool MatchesStorage() const {
    switch (resolution_) {
      case kRes8Bit:
        return std::is_same_v<T, std::uint8_t>;
      case kRes16Bit:
        return std::is_same_v<T, std::uint16_t>;
      case kRes32Bit:
        return std::is_same_v<T, std::int32_t>;
    }
    return false;
  }

  template <typename Source>
  bool StoreFrameImpl(int frame, const Source* pixels, int rowStride);
  bool CheckGeometry(const Window2D& window, int framesScanned, ElementRes resolution, int framesStored);
  // Records the geometry of fresh or adopted frames and creates the scratch of one thread.
  bool TakeGeometry(const Window2D& window, int framesScanned, ElementRes resolution, int framesStored,
                    int scanDirection);

  Window2D window_;
  int framesScanned_ = 0;
  int framesStored_ = 0;
  int scanDirection_ = 1;
  ElementRes resolution_ = kRes8Bit;
  int maxValue_ = 255;
  AlignedBuffer frames_;                // own storage (empty when the frames are adopted)
  std::shared_ptr<void> adoptedOwner_;  // keeps adopted frames alive
  std::vector<std::byte*> slots_;       // start of each slot's image
  AlignedBuffer scratch_;
  std::size_t scratchStride_ = 0;  // bytes from one thread's scratch to the next
  int threadCount_ = 0;
  Status status_;
};

}  // namespace Quarn::Metrology::Analysis::Core

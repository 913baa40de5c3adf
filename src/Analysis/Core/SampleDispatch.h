#pragma once

#include <cstdint>
#include <utility>

#include "Analysis/Core/FrameBuffer.h"

namespace Quarn::Metrology::Analysis::Core {

// SampleTag
//
// Names one stored sample type as a value, so that a generic lambda can take it as a parameter and
// recover the type: `[&]<typename Stored>(SampleTag<Stored>) { ... }`.
template <typename T>
struct SampleTag {
  using type = T;
};

// DispatchSampleType
//
// The one place where a frame buffer's sample width (`ElementRes`) becomes a type: calls
// `body(SampleTag<Stored>{})` with Stored = std::uint8_t, std::uint16_t or std::int32_t and returns
// what the body returns. Every image operation that reads frames decides its sample type here once,
// before its loop, and runs a kernel templated on the type (validate, dispatch, templated kernel):
//
//   DispatchSampleType(frames, [&]<typename Stored>(SampleTag<Stored>) {
//     const Stored* slot = static_cast<const Stored*>(frames.GetFrameData(0));
//     ...
//   });
//
// A resolution outside the three (which `FrameBuffer::Allocate` refuses) is read as 32-bit samples,
// the width the phase code has always assumed for anything that is not 8 or 16 bits.
template <typename Body>
decltype(auto) DispatchSampleType(FrameBuffer::ElementRes resolution, Body&& body) {
  switch (resolution) {
    case FrameBuffer::kRes8Bit:
      return std::forward<Body>(body)(SampleTag<std::uint8_t>{});
    case FrameBuffer::kRes16Bit:
      return std::forward<Body>(body)(SampleTag<std::uint16_t>{});
    case FrameBuffer::kRes32Bit:
      break;
  }
  return std::forward<Body>(body)(SampleTag<std::int32_t>{});
}

template <typename Body>
decltype(auto) DispatchSampleType(const FrameBuffer& frames, Body&& body) {
  return DispatchSampleType(frames.GetElementRes(), std::forward<Body>(body));
}

}  // namespace Quarn::Metrology::Analysis::Core

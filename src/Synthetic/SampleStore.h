#pragma once

#include <cstddef>

#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/SampleDispatch.h"

namespace Quarn::Testing {

// StoreSample
//
// Writes one synthesised sample into slot `slot` of `frames` at pixel `pixel` (row-major over the
// window) in the buffer's own sample type. `value` must already be a whole number within the
// type's range (the synthesisers round and clamp to the saturation level first), so the
// conversion is exact. One call per sample: the synthesisers are test code, where clarity matters
// more than the cost of deciding the type each time.
inline void StoreSample(::Quarn::Metrology::Analysis::Core::FrameBuffer& frames, int slot, std::size_t pixel,
                        double value) {
  void* data = frames.GetFrameData(slot);
  ::Quarn::Metrology::Analysis::Core::DispatchSampleType(
      frames, [&]<typename Stored>(::Quarn::Metrology::Analysis::Core::SampleTag<Stored>) {
        static_cast<Stored*>(data)[pixel] = static_cast<Stored>(value);
      });
}

}  // namespace Quarn::Testing

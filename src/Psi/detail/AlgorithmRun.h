#pragma once

#include <algorithm>
#include <cstdint>
#include <type_traits>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/Status.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail {

// The parts of `Intialize` and `PostProcess` that the phase-shifter checks (`Corvane7`,
// `Corvane13`, `GainCorrectionPmi`, `GainCorrectionSinPsi`) share.

// Starts a run on `frames` from a clean status: false, with `status` set, when there is no frame
// buffer or `countFits(frames)` refuses its frame count (code 6, no message), or when the buffer
// keeps its frames in a ring (code 20: the checks need every phase-shifted frame of the stack).
template <typename CountFits>
bool AcceptFrameStack(Analysis::Core::Status& status, const char* source,
                      const Analysis::Core::FrameBuffer* frames, CountFits countFits) {
  namespace StatusCode = Analysis::Core::StatusCode;
  status.ClearError();
  if (!frames || !countFits(frames->GetNumberOfFrames())) {
    status = Analysis::Core::Status(0, StatusCode::kCallFailed, __LINE__, source, "");
    return false;
  }
  if (frames->IsRing()) {
    status = Analysis::Core::Status(0, StatusCode::kArgumentOutOfRange, __LINE__, source,
                                    "Phase-shifted frames must all be stored (not a ring)");
    return false;
  }
  return true;
}

// Sizes the per-thread records to `numberOfThreads` (at least one) and clears each with `reset`;
// false, with "Call to <call> failed" in `status`, when memory runs out.
template <typename Record, typename Reset>
bool PrepareThreadRecords(Analysis::Core::Status& status, Analysis::Core::Array<Record>& records,
                          int numberOfThreads, const char* call, Reset reset) {
  QUARN_RETURN_IF_CALL_FAILED(records.Resize(std::max(1, numberOfThreads)), status, status.GetFile().c_str(),
                              records, call, false);
  for (Record& record : records)
    reset(record);
  return true;
}

// One field summed over the per-thread records, in thread order on the calling thread, so that a
// given number of threads always adds its partial sums in the same order. Integer fields are summed
// in 64 bits.
template <typename Record, typename Field>
auto SumOverThreads(const Analysis::Core::Array<Record>& records, Field Record::*field) {
  using Total = std::conditional_t<std::is_integral_v<Field>, std::int64_t, Field>;
  Total total{};
  for (const Record& record : records)
    total += record.*field;
  return total;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail

#pragma once

#include <cstdint>
#include <mutex>

#include "Analysis/Core/QuarnCoreExport.h"

namespace Quarn::Metrology::Analysis::Core::detail {

// FFTW's planner keeps global state and is not thread-safe: every fftw_plan_* and fftw_destroy_plan
// call of the library holds this one lock (executing a finished plan needs no lock). All transform
// wrappers of the core use it, so two of them can never plan at the same time.
//
//   std::lock_guard<std::mutex> lock(detail::FftwPlannerMutex());
//   plan_ = fftw_plan_dft_2d(rows, cols, in, out, FFTW_FORWARD, FFTW_ESTIMATE);
std::mutex& FftwPlannerMutex();

// How many sets of 2-D transform plans (all the plans of one size) the process has made; a size
// served from the plan cache adds none. Counted under the planner lock; for tests and diagnostics.
QUARN_CORE_EXPORT std::int64_t FftwPlanSetsMade();
void CountFftwPlanSet();

}  // namespace Quarn::Metrology::Analysis::Core::detail

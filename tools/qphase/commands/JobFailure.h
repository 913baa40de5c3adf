// How a subcommand ends when its job produced nothing.
#pragma once

#include <string>

#include "Jobs/JobData.h"
#include "ToolError.h"

namespace Quarn::Qphase {

// A job's failure as the tool's exit: no result is exit status 1 (the message then says what was not
// written, `noResultTail`), bad input exit status 2. Returns when the job succeeded.
inline void ThrowIfFailed(const Jobs::JobRecord& record,
                          const std::string& noResultTail = "; nothing written") {
  if (record.outcome == Jobs::JobOutcome::kNoResult) throw NoResultError(record.message + noResultTail);
  if (record.outcome == Jobs::JobOutcome::kBadInput) throw UsageError(record.message);
}

}  // namespace Quarn::Qphase

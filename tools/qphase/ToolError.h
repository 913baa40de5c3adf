#pragma once

#include <stdexcept>
#include <string>

namespace Quarn::Qphase {

// Exit statuses of the tool: 0 success; 1 the run worked but produced no valid result (no valid
// pixel, no detection possible); 2 bad usage or an unreadable or unsuitable input file.
inline constexpr int kExitSuccess = 0;
inline constexpr int kExitNoResult = 1;
inline constexpr int kExitUsage = 2;

// ToolError
//
// What a subcommand throws to end with a message and an exit status. The message names the file
// and the problem ("stack.tif: page 3 is 640 x 480, page 1 is 800 x 600").
class ToolError : public std::runtime_error {
 public:
  ToolError(int exitStatus, const std::string& message)
      : std::runtime_error(message), exitStatus_(exitStatus) {}
  int GetExitStatus() const { return exitStatus_; }

 private:
  int exitStatus_;
};

inline ToolError UsageError(const std::string& message) {
  return ToolError(kExitUsage, message);
}
inline ToolError NoResultError(const std::string& message) {
  return ToolError(kExitNoResult, message);
}

}  // namespace Quarn::Qphase

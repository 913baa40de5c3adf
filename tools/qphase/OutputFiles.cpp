#include "OutputFiles.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ToolError.h"

namespace Quarn::Qphase {

OutputFiles::~OutputFiles() {
  for (const auto& [temporary, final] : staged_)
    std::remove(temporary.c_str());
}

std::string OutputFiles::Stage(const std::string& finalPath) {
  const std::size_t slash = finalPath.find_last_of('/');
  const std::string directory = slash == std::string::npos ? "" : finalPath.substr(0, slash + 1);
  const std::string name = slash == std::string::npos ? finalPath : finalPath.substr(slash + 1);
  if (name.empty()) throw UsageError("'" + finalPath + "' is a directory, not a file name");
  const std::string temporary =
      directory + "." + name + ".partial-" + std::to_string(getpid()) + "-" + std::to_string(staged_.size());
  staged_.emplace_back(temporary, finalPath);
  return temporary;
}

void OutputFiles::Commit() {
  for (std::size_t i = 0; i < staged_.size(); ++i) {
    const auto& [temporary, final] = staged_[i];
    if (std::rename(temporary.c_str(), final.c_str()) != 0) {
      throw UsageError(final + ": cannot be written (" + std::strerror(errno) + ")");
    }
  }
  staged_.clear();
}

}  // namespace Quarn::Qphase

#include "OutputFiles.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

constexpr const char* kPartial = ".partial-";

std::string Identity(const std::string& path) {
  std::error_code error;
  const std::filesystem::path canonical = std::filesystem::weakly_canonical(path, error);
  if (!error) return canonical.string();
  return std::filesystem::absolute(path, error).lexically_normal().string();
}

std::string Describe(const std::string& what, const std::string& path) {
  return what.empty() ? "'" + path + "'" : what + " (" + path + ")";
}

}  // namespace

OutputFiles::~OutputFiles() {
  for (const Staged& file : staged_)
    std::remove(file.temporary.c_str());
}

std::string OutputFiles::Stage(const std::string& finalPath, const std::string& what) {
  const std::size_t slash = finalPath.find_last_of('/');
  const std::string directory = slash == std::string::npos ? "" : finalPath.substr(0, slash + 1);
  const std::string name = slash == std::string::npos ? finalPath : finalPath.substr(slash + 1);
  if (name.empty()) throw UsageError("'" + finalPath + "' is a directory, not a file name");
  const std::string identity = Identity(finalPath);
  for (const Staged& other : staged_) {
    if (other.identity == identity) {
      throw UsageError(Describe(what, finalPath) + " and " + Describe(other.what, other.final) +
                       " name the same file; each output needs a file of its own");
    }
  }
  const std::string temporary =
      directory + "." + name + kPartial + std::to_string(getpid()) + "-" + std::to_string(staged_.size());
  staged_.push_back(Staged{temporary, finalPath, identity, what});
  return temporary;
}

void OutputFiles::Commit() {
  for (const Staged& file : staged_) {
    if (std::rename(file.temporary.c_str(), file.final.c_str()) != 0) {
      throw UsageError(file.final + ": cannot be written (" + std::strerror(errno) + ")");
    }
  }
  staged_.clear();
}

std::string UserPath(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  const std::size_t start = slash == std::string::npos ? 0 : slash + 1;
  const std::size_t partial = path.rfind(kPartial);
  if (partial == std::string::npos || partial <= start + 1 || path[start] != '.') return path;
  const std::string suffix = path.substr(partial + std::strlen(kPartial));  // "<pid>-<index>"
  if (suffix.find_first_not_of("0123456789-") != std::string::npos) return path;
  return path.substr(0, start) + path.substr(start + 1, partial - start - 1);
}

}  // namespace Quarn::Qphase

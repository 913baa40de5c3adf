#include "InputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ToolError.h"

namespace Quarn::Qphase {

std::optional<FileIdentity> IdentityOf(const std::string& path) {
  struct stat info {};
  if (path.empty() || stat(path.c_str(), &info) != 0) return std::nullopt;
  return FileIdentity{info.st_dev, info.st_ino};
}

std::string KindOfFile(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a FIFO (named pipe)";
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISBLK(mode)) return "a block device";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISLNK(mode)) return "a symbolic link";
  return "a regular file";
}

InputFile::InputFile(const std::string& path) : path_(path) {
  if (path.empty()) throw UsageError("an input file name is empty");
  // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer that may never come.
  fd_ = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd_ < 0) throw UsageError(path + ": " + std::strerror(errno));
  struct stat info {};
  if (fstat(fd_, &info) != 0) {
    const int error = errno;
    close(fd_);
    throw UsageError(path + ": " + std::strerror(error));
  }
  if (!S_ISREG(info.st_mode)) {
    close(fd_);
    fd_ = -1;
    throw UsageError(path + ": " + KindOfFile(info.st_mode) + ", not a regular file");
  }
  // Reads of a regular file never block; the flag is cleared all the same so that the descriptor
  // behaves as a plain one wherever it is handed.
  const int flags = fcntl(fd_, F_GETFL);
  if (flags >= 0) fcntl(fd_, F_SETFL, flags & ~O_NONBLOCK);
  size_ = static_cast<std::uint64_t>(info.st_size);
  identity_ = FileIdentity{info.st_dev, info.st_ino};
}

InputFile::~InputFile() {
  if (fd_ >= 0) close(fd_);
}

int InputFile::Release() {
  const int fd = fd_;
  fd_ = -1;
  return fd;
}

}  // namespace Quarn::Qphase

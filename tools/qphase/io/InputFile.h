#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace Quarn::Qphase {

// Which file a path names, whatever its spelling ("x", "./x", "a//x", a link to it): the device and
// the inode number.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const FileIdentity&) const = default;
};

// The identity of the file `path` names, links followed; nullopt when there is none.
std::optional<FileIdentity> IdentityOf(const std::string& path);

// InputFile
//
// An input of the tool, opened once for reading. Only a regular file is accepted: a FIFO would block
// the open (or the first read) for ever, a device or a directory is no data file. The file is opened
// without blocking, checked on the open descriptor (so what is checked is what is read) and then
// read as usual. Failures are usage errors naming the file and the problem.
class InputFile {
 public:
  explicit InputFile(const std::string& path);
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;
  ~InputFile();

  const std::string& Path() const { return path_; }
  std::uint64_t Size() const { return size_; }
  FileIdentity Identity() const { return identity_; }
  // The open descriptor, still owned here.
  int Descriptor() const { return fd_; }
  // Hands the descriptor over (to a library that closes it); the file is then closed by that owner.
  int Release();

 private:
  std::string path_;
  int fd_ = -1;
  std::uint64_t size_ = 0;
  FileIdentity identity_;
};

// What kind of file a mode describes, for messages: "a directory", "a FIFO (named pipe)", ...
std::string KindOfFile(mode_t mode);

}  // namespace Quarn::Qphase

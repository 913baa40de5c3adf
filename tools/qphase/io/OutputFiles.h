#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "InputFile.h"

namespace Quarn::Qphase {

// WriteTarget
//
// A file opened once for writing, and the name messages give it: the user's name, not that of the
// hidden temporary file it may be. A writer takes the target, writes and closes it; a target never
// handed to a writer closes its file when destroyed. An empty target (no file) stands for an output
// that was not asked for.
class WriteTarget {
 public:
  WriteTarget() = default;
  WriteTarget(int fd, std::string shown) : fd_(fd), shown_(std::move(shown)) {}
  WriteTarget(WriteTarget&& other) noexcept
      : fd_(std::exchange(other.fd_, -1)), shown_(std::move(other.shown_)) {}
  WriteTarget& operator=(WriteTarget&& other) noexcept;
  WriteTarget(const WriteTarget&) = delete;
  WriteTarget& operator=(const WriteTarget&) = delete;
  ~WriteTarget();

  // Creates (or truncates) `path` and opens it once, for writers that write a file directly (the
  // demo, tests); throws a usage error naming the path when it cannot be opened.
  static WriteTarget Create(const std::string& path);

  explicit operator bool() const { return fd_ >= 0; }
  const std::string& Shown() const { return shown_; }
  // Hands the descriptor to the writer, which closes it.
  int Release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
  std::string shown_;
};

// Writes `bytes` to the target and closes it; a short write or a failing close (a full disk) is a
// usage error naming the file.
void WriteBytes(WriteTarget target, std::string_view bytes);

// OutputFiles
//
// All-or-nothing output of a subcommand. Each result is written to a temporary file beside its
// final name (`Stage`, which creates and opens it once); `Commit` renames them all into place once
// every one has been written. If the command fails before that, or is interrupted by SIGINT, SIGTERM
// or SIGHUP, the temporary files are removed, so a failed run leaves nothing half-written and no
// earlier result overwritten. Every final name is checked before the first rename; a rename that
// still fails puts back what the earlier renames of the run replaced.
//
// What an output may name:
// - a new file, or an existing regular file, which is replaced;
// - a symbolic link to an existing regular file: the link is followed, the file it points to is
//   replaced and the link stays (a dangling link is refused);
// - never a directory, FIFO, device or socket (writing there would not make a result file: as root,
//   `-o /dev/null` would replace the device node), never an input of the run (compared by device and
//   inode, so also through another spelling or a link), and never the file of another output.
class OutputFiles {
 public:
  OutputFiles() = default;
  OutputFiles(const OutputFiles&) = delete;
  OutputFiles& operator=(const OutputFiles&) = delete;
  ~OutputFiles();

  // An input of the run that no output may overwrite; `what` names it in messages ("--mask"), empty:
  // the path alone. Call before staging the outputs.
  void ProtectInput(const std::string& path, const std::string& what = "");

  // Creates the temporary file that `finalPath` is written to and returns it opened. `what` names the
  // output in messages (an option such as "--modulation"); empty: the path alone.
  WriteTarget Stage(const std::string& finalPath, const std::string& what = "");

  // Moves every staged file to its final name; throws a usage error if one cannot be moved, after
  // putting back what the run had already replaced.
  void Commit();

  // Replaces rename(2) in Commit, so that tests can make a rename fail after others succeeded.
  void SetRenameForTesting(std::function<int(const char*, const char*)> rename) {
    rename_ = std::move(rename);
  }

 private:
  struct Staged {
    std::string temporary;
    std::string target;  // the file the rename replaces: the final name with a link followed
    std::string final;   // as the user gave it
    std::string what;
    std::string canonical;  // the target made absolute and normal, to compare outputs not yet on disk
    int slot = -1;          // where the signal handler finds the temporary name
  };
  struct Protected {
    FileIdentity identity;
    std::string path;
    std::string what;
  };
  void Discard();

  std::vector<Staged> staged_;
  std::vector<Protected> inputs_;
  std::function<int(const char*, const char*)> rename_;
};

}  // namespace Quarn::Qphase

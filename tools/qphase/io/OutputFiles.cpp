#include "OutputFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <system_error>

#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

// The temporary files of this process, for the signal handler: an interrupted run removes them
// before it ends. The handler may only make async-signal-safe calls, so the names are kept in fixed
// slots of static storage; a slot is used once and then only marked inactive, so that a handler
// running on another thread never reads a name being overwritten.
constexpr int kSlots = 256;
constexpr std::size_t kNameBytes = 4096;
char stagedNames[kSlots][kNameBytes];
std::atomic<bool> stagedActive[kSlots];
std::atomic<int> slotsUsed{0};
// While Commit renames, a signal is held back: the run finishes its renames (or puts back what it
// replaced) and then ends as the signal asks.
std::atomic<bool> committing{false};
std::atomic<int> heldSignal{0};

void RemoveStagedAndEnd(int signal) {
  const int used = std::min(slotsUsed.load(), kSlots);
  for (int slot = 0; slot < used; ++slot) {
    if (stagedActive[slot].exchange(false)) unlink(stagedNames[slot]);
  }
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

void OnSignal(int signal) {
  if (committing.load()) {
    heldSignal.store(signal);
    return;
  }
  RemoveStagedAndEnd(signal);
}

void InstallSignalHandlers() {
  static std::once_flag installed;
  std::call_once(installed, [] {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
      struct sigaction previous {};
      sigaction(signal, nullptr, &previous);
      if (previous.sa_handler == SIG_IGN) continue;  // e.g. nohup: the user asked not to be stopped
      struct sigaction action {};
      action.sa_handler = OnSignal;
      sigemptyset(&action.sa_mask);
      sigaction(signal, &action, nullptr);
    }
  });
}

// The slot of `name`, or -1 when none is left (the file is then still removed on every other path,
// only not on a signal).
int Register(const std::string& name) {
  if (name.size() >= kNameBytes) return -1;
  const int slot = slotsUsed.fetch_add(1);
  if (slot >= kSlots) return -1;
  std::memcpy(stagedNames[slot], name.c_str(), name.size() + 1);
  stagedActive[slot].store(true);
  return slot;
}

void Unregister(int slot) {
  if (slot >= 0) stagedActive[slot].store(false);
}

std::string Describe(const std::string& what, const std::string& path) {
  return what.empty() ? "'" + path + "'" : what + " (" + path + ")";
}

std::string Canonical(const std::string& path) {
  std::error_code error;
  const std::filesystem::path canonical = std::filesystem::weakly_canonical(path, error);
  if (!error) return canonical.string();
  return std::filesystem::absolute(path, error).lexically_normal().string();
}

std::string DirectoryOf(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? "" : path.substr(0, slash + 1);
}

std::string NameOf(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// A name beside `target` that no other file has: ".NAME.KIND-PID-N".
std::string Beside(const std::string& target, const char* kind, std::size_t index) {
  return DirectoryOf(target) + "." + NameOf(target) + kind + std::to_string(getpid()) + "-" +
         std::to_string(index);
}

}  // namespace

WriteTarget& WriteTarget::operator=(WriteTarget&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) close(fd_);
    fd_ = std::exchange(other.fd_, -1);
    shown_ = std::move(other.shown_);
  }
  return *this;
}

WriteTarget::~WriteTarget() {
  if (fd_ >= 0) close(fd_);
}

WriteTarget WriteTarget::Create(const std::string& path) {
  // Read access too: libtiff reads back the directory chain of a multi-page file it writes.
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) throw UsageError(path + ": " + std::strerror(errno));
  return WriteTarget(fd, path);
}

void WriteBytes(WriteTarget target, std::string_view bytes) {
  const std::string shown = target.Shown();
  const int fd = target.Release();
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t wrote = write(fd, bytes.data() + done, bytes.size() - done);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) {
      const int error = errno;
      close(fd);
      throw UsageError(shown + ": cannot be written (" + std::strerror(error) + ")");
    }
    done += static_cast<std::size_t>(wrote);
  }
  if (close(fd) != 0) throw UsageError(shown + ": cannot be written (" + std::strerror(errno) + ")");
}

OutputFiles::~OutputFiles() {
  Discard();
}

void OutputFiles::Discard() {
  for (const Staged& file : staged_) {
    std::remove(file.temporary.c_str());
    Unregister(file.slot);
  }
  staged_.clear();
}

void OutputFiles::ProtectInput(const std::string& path, const std::string& what) {
  if (const std::optional<FileIdentity> identity = IdentityOf(path))
    inputs_.push_back(Protected{*identity, path, what});
}

WriteTarget OutputFiles::Stage(const std::string& finalPath, const std::string& what) {
  const std::string named = what.empty() ? "" : what + ": ";
  if (finalPath.empty()) throw UsageError(named + "the file name is empty; a file name is needed");
  if (NameOf(finalPath).empty())
    throw UsageError(named + "'" + finalPath + "' is a directory, not a file name");

  // A link is followed: its target is the file replaced, and the temporary file lies beside that one
  // (a rename cannot cross file systems).
  std::string target = finalPath;
  struct stat info {};
  if (lstat(finalPath.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
    char* resolved = realpath(finalPath.c_str(), nullptr);
    if (!resolved) {
      throw UsageError(Describe(what, finalPath) +
                       " is a symbolic link to a missing file; name the file itself or repair the link");
    }
    target = resolved;
    std::free(resolved);
  }
  if (stat(target.c_str(), &info) == 0) {
    if (!S_ISREG(info.st_mode)) {
      throw UsageError(Describe(what, finalPath) + " is " + KindOfFile(info.st_mode) +
                       "; an output must be a regular file (or a new name)");
    }
    const FileIdentity identity{info.st_dev, info.st_ino};
    for (const Protected& input : inputs_) {
      if (input.identity == identity) {
        throw UsageError(Describe(what, finalPath) + " is the input " + Describe(input.what, input.path) +
                         "; a result may not overwrite its input");
      }
    }
  }
  const std::string canonical = Canonical(target);
  for (const Staged& other : staged_) {
    if (other.canonical == canonical) {
      throw UsageError(Describe(what, finalPath) + " and " + Describe(other.what, other.final) +
                       " name the same file; each output needs a file of its own");
    }
  }

  InstallSignalHandlers();
  const std::string temporary = Beside(target, ".partial-", staged_.size());
  // Read access too: libtiff reads back the directory chain of a multi-page file it writes.
  // Registered before it exists: a signal between the creation and the registration would leave it.
  const int slot = Register(temporary);
  const int fd = open(temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) {
    const int error = errno;
    Unregister(slot);
    throw UsageError(finalPath + ": " + std::strerror(error));
  }
  staged_.push_back(Staged{temporary, target, finalPath, what, canonical, slot});
  return WriteTarget(fd, finalPath);
}

void OutputFiles::Commit() {
  // Everything that can be checked is checked before the first rename: each final name must still be
  // a regular file or absent, in a directory this process may write.
  for (const Staged& file : staged_) {
    struct stat info {};
    if (stat(file.target.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
      throw UsageError(Describe(file.what, file.final) + " is " + KindOfFile(info.st_mode) +
                       "; an output must be a regular file (or a new name)");
    }
    const std::string directory = DirectoryOf(file.target);
    if (access(directory.empty() ? "." : directory.c_str(), W_OK) != 0) {
      throw UsageError(file.final + ": cannot be written (" + std::strerror(errno) + ")");
    }
  }

  committing.store(true);
  struct Done {
    const Staged* file;
    std::string backup;  // where the replaced file is kept until all renames succeeded ("": none)
  };
  std::vector<Done> done;
  const auto rename = [this](const std::string& from, const std::string& to) {
    return rename_ ? rename_(from.c_str(), to.c_str()) : std::rename(from.c_str(), to.c_str());
  };
  std::string failure;
  for (const Staged& file : staged_) {
    std::string backup;
    struct stat info {};
    if (stat(file.target.c_str(), &info) == 0) {
      // A second name for the file about to be replaced, so that it can be put back.
      backup = Beside(file.target, ".previous-", done.size());
      if (link(file.target.c_str(), backup.c_str()) != 0) backup.clear();
    }
    if (rename(file.temporary, file.target) != 0) {
      failure = file.final + ": cannot be written (" + std::strerror(errno) + ")";
      if (!backup.empty()) unlink(backup.c_str());
      break;
    }
    Unregister(file.slot);
    done.push_back(Done{&file, backup});
  }
  if (!failure.empty()) {
    // Put back what this run replaced, newest first; what it created goes.
    for (auto it = done.rbegin(); it != done.rend(); ++it) {
      if (it->backup.empty()) {
        unlink(it->file->target.c_str());
      } else {
        std::rename(it->backup.c_str(), it->file->target.c_str());
      }
    }
  } else {
    for (const Done& file : done)
      if (!file.backup.empty()) unlink(file.backup.c_str());
  }
  // On success nothing is left to remove; on failure the destructor removes the temporary files
  // not yet moved (the names of those moved are free).
  if (failure.empty()) staged_.clear();
  committing.store(false);
  if (const int signal = heldSignal.exchange(0)) {
    Discard();
    RemoveStagedAndEnd(signal);
  }
  if (!failure.empty()) throw UsageError(failure);
}

}  // namespace Quarn::Qphase

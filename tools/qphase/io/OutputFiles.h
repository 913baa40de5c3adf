#pragma once

#include <string>
#include <utility>
#include <vector>

namespace Quarn::Qphase {

// OutputFiles
//
// All-or-nothing output of a subcommand. Each result is written to a temporary file beside its
// final name (`Stage`); `Commit` renames them all into place once every one has been written. If
// the command fails before that, the destructor removes the temporary files, so a failed run
// leaves nothing half-written and no earlier result overwritten.
//
// Two outputs of one run may not name the same file (also through another spelling of the path or a
// link): the second would silently replace the first. `Stage` refuses that with a usage error.
class OutputFiles {
 public:
  OutputFiles() = default;
  OutputFiles(const OutputFiles&) = delete;
  OutputFiles& operator=(const OutputFiles&) = delete;
  ~OutputFiles();

  // The temporary path to write `finalPath` to. `what` names the output in messages (an option such
  // as "--modulation"); empty: the path alone.
  std::string Stage(const std::string& finalPath, const std::string& what = "");
  // Moves every staged file to its final name; throws a usage error if one cannot be moved.
  void Commit();

 private:
  struct Staged {
    std::string temporary;
    std::string final;
    std::string identity;  // the final path made absolute, normal and with links resolved
    std::string what;
  };
  std::vector<Staged> staged_;
};

// The path the user gave for `path`, which may be the temporary name `Stage` made of it: messages
// about a file being written name the user's file, not the hidden temporary one.
std::string UserPath(const std::string& path);

}  // namespace Quarn::Qphase

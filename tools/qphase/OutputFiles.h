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
class OutputFiles {
 public:
  OutputFiles() = default;
  OutputFiles(const OutputFiles&) = delete;
  OutputFiles& operator=(const OutputFiles&) = delete;
  ~OutputFiles();

  // The temporary path to write `finalPath` to.
  std::string Stage(const std::string& finalPath);
  // Moves every staged file to its final name; throws a usage error if one cannot be moved.
  void Commit();

 private:
  std::vector<std::pair<std::string, std::string>> staged_;  // temporary, final
};

}  // namespace Quarn::Qphase

#include "CommandRegistry.h"

#include <algorithm>

namespace Quarn::Qphase {

namespace {
std::vector<Command>& Commands() {
  static std::vector<Command> commands;
  return commands;
}
}  // namespace

bool RegisterCommand(Command command) {
  Commands().push_back(std::move(command));
  return true;
}

const std::vector<Command>& RegisteredCommands() {
  // Alphabetical, so --help lists them in a stable order whatever the link order was.
  std::vector<Command>& commands = Commands();
  std::sort(commands.begin(), commands.end(),
            [](const Command& a, const Command& b) { return a.name < b.name; });
  return commands;
}

}  // namespace Quarn::Qphase

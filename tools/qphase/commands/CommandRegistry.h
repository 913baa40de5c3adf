#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace Quarn::Qphase {

// A subcommand of qphase: `setup` adds its options to the subcommand's App and returns the function
// that runs it once the command line has been parsed (the function's return value is the exit
// status; failures are thrown as ToolError).
struct Command {
  std::string name;
  std::string description;
  std::function<std::function<int()>(CLI::App& subcommand)> setup;
};

// Every subcommand file registers itself at start-up:
//
//   static const bool registered = RegisterCommand({"psi", "Phase from a phase-shifted stack", SetupPsi});
bool RegisterCommand(Command command);
const std::vector<Command>& RegisteredCommands();

}  // namespace Quarn::Qphase

// qphase: the command-line face of the Quarn phase-processing library.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <string>

#include "CommandRegistry.h"
#include "ToolError.h"

int main(int argc, char** argv) {
  using namespace Quarn::Qphase;
  CLI::App app{"qphase: interferometer camera data into measurements (phase, height, spots)", "qphase"};
  app.require_subcommand(1);
  app.set_version_flag("--version", "qphase 0.1.0");
  std::map<std::string, std::function<int()>> runners;
  std::map<std::string, CLI::App*> subcommands;
  for (const Command& command : RegisteredCommands()) {
    CLI::App* sub = app.add_subcommand(command.name, command.description);
    runners[command.name] = command.setup(*sub);
    subcommands[command.name] = sub;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    // Worded as every other failure: "qphase CMD: error: ...", naming the option and the rule.
    std::string name;
    for (int i = 1; i < argc && name.empty(); ++i)
      if (subcommands.count(argv[i])) name = argv[i];
    std::fprintf(stderr, "qphase%s%s: error: %s\nRun with --help for more information.\n",
                 name.empty() ? "" : " ", name.c_str(), e.what());
    return kExitUsage;
  }
  for (const auto& [name, sub] : subcommands) {
    if (!sub->parsed()) continue;
    try {
      return runners[name]();
    } catch (const ToolError& e) {
      std::fprintf(stderr, "qphase %s: error: %s\n", name.c_str(), e.what());
      return e.GetExitStatus();
    } catch (const std::exception& e) {
      std::fprintf(stderr, "qphase %s: error: %s\n", name.c_str(), e.what());
      return kExitUsage;
    }
  }
  return kExitUsage;
}

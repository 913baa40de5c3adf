// Options several subcommands share, worded and checked the same way everywhere.
#pragma once

#include <CLI/CLI.hpp>

namespace Quarn::Qphase {

// --max-value N: the camera's saturation level when it is below the sample type's maximum (0 keeps
// the type's maximum).
void AddMaxValueOption(CLI::App& app, int& maxValue);

// --threads N: worker threads (-1 keeps the default, all processors).
void AddThreadsOption(CLI::App& app, int& threads,
                      const char* description = "Worker threads (0: the calling thread only; default: all)");

}  // namespace Quarn::Qphase

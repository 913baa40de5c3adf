// Options several subcommands share, worded and checked the same way everywhere.
#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace Quarn::Qphase {

// --max-value N: the camera's saturation level in counts, from 1 to 65535, for a camera that clips
// below its sample type's maximum (a 12-bit camera in 16-bit pages: 4095). Without the option the
// type's maximum is the saturation level.
void AddMaxValueOption(CLI::App& app, int& maxValue);

// --threads N: worker threads, from 0 (the calling thread only) to 1024; without the option all
// processors work.
void AddThreadsOption(CLI::App& app, int& threads,
                      const char* description = "Worker threads (0: the calling thread only; default: all)");

// Checks whose refusals read as plain sentences, e.g. "--max-value: got 0; a whole number from 1 to
// 65535 is needed", instead of the parser's own "Value 0 not in range 0.000000 to 1797693...".
CLI::Validator WholeNumberFrom(long lo, long hi);
CLI::Validator NumberFrom(double lo, double hi);
CLI::Validator NumberAbove(double bound);
CLI::Validator NumberAtLeast(double bound);
// Any finite number ("nan" and "inf" are refused by name).
CLI::Validator FiniteNumber();
// One of the texts in `allowed`, exactly; `needed` says which in the refusal ("1 or -1").
CLI::Validator OneOf(std::vector<std::string> allowed, const std::string& needed);

}  // namespace Quarn::Qphase

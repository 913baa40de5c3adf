// qphase demo: synthetic measurements with known truth through the library, and a table of how
// well and how fast each algorithm recovers the truth.
#include <CLI/CLI.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include "CommandRegistry.h"
#include "CommonOptions.h"
#include "Demo.h"
#include "ToolError.h"

namespace Quarn::Qphase {

namespace {

std::vector<DemoSection>& Sections() {
  static std::vector<DemoSection> sections;
  return sections;
}

void MakeDirectories(const std::string& path) {
  std::string partial;
  for (std::size_t i = 0; i <= path.size(); ++i) {
    if (i == path.size() || path[i] == '/') {
      if (!partial.empty() && mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) {
        throw UsageError(partial + ": " + std::strerror(errno));
      }
    }
    if (i < path.size()) partial += path[i];
  }
}

void PrintTable(const std::vector<DemoRow>& rows) {
  std::printf("\n%-28s %11s %10s %9s %14s %8s  %s\n", "algorithm", "image", "time ms", "MPix/s", "RMS error",
              "valid", "note");
  std::printf("%s\n", std::string(100, '-').c_str());
  for (const DemoRow& row : rows) {
    const std::string size = std::to_string(row.cols) + "x" + std::to_string(row.rows);
    const double megapixels = static_cast<double>(row.rows) * row.cols / 1e6;
    char error[32];
    if (std::isfinite(row.rmsError)) {
      std::snprintf(error, sizeof error, "%.4g %s", row.rmsError, row.errorUnit.c_str());
    } else {
      std::snprintf(error, sizeof error, "n/a %s", row.errorUnit.c_str());
    }
    std::printf("%-28s %11s %10.2f %9.1f %14s %7.1f%%  %s\n", row.algorithm.c_str(), size.c_str(),
                row.milliseconds, row.milliseconds > 0 ? megapixels / (row.milliseconds / 1e3) : 0.0, error,
                100.0 * row.validFraction, row.note.c_str());
  }
}

struct DemoOptions {
  std::string outDir = "demo-out";
  int size = 512;
  std::string only;
};

int RunDemo(const DemoOptions& options) {
  // The section is checked before the output folder is made: a misspelt name leaves nothing behind.
  const std::vector<DemoSection> sections = RegisteredDemoSections();
  if (!options.only.empty() && std::none_of(sections.begin(), sections.end(),
                                            [&](const DemoSection& s) { return s.name == options.only; })) {
    std::string names;
    for (const DemoSection& section : sections)
      names += (names.empty() ? "" : ", ") + section.name;
    throw UsageError("--only: no demo section is called '" + options.only + "'; the sections are " + names);
  }
  MakeDirectories(options.outDir);
  DemoContext context;
  context.outDir = options.outDir;
  context.size = options.size;
  int ran = 0;
  for (const DemoSection& section : sections) {
    if (!options.only.empty() && section.name != options.only) continue;
    std::printf("running %s ...\n", section.name.c_str());
    std::fflush(stdout);
    section.run(context);
    ++ran;
  }
  if (ran == 0) throw UsageError("no demo section is called '" + options.only + "'");
  PrintTable(context.rows);
  std::printf("\nmaps and previews written to %s/\n", options.outDir.c_str());
  return kExitSuccess;
}

std::function<int()> SetupDemo(CLI::App& app) {
  auto options = std::make_shared<DemoOptions>();
  app.add_option("--out", options->outDir, "Directory for the maps and previews")->capture_default_str();
  app.add_option("--size", options->size, "Side of the synthetic images in pixels")
      ->check(WholeNumberFrom(64, 4096))
      ->capture_default_str();
  std::string sectionNames;
  for (const DemoSection& section : RegisteredDemoSections())
    sectionNames += (sectionNames.empty() ? "" : ", ") + section.name;
  app.add_option("--only", options->only, "Run one section only: " + sectionNames);
  return [options] { return RunDemo(*options); };
}

[[maybe_unused]] const bool registered =
    RegisterCommand({"demo", "Synthetic measurements with known truth through every algorithm", SetupDemo});

}  // namespace

bool RegisterDemoSection(DemoSection section) {
  Sections().push_back(std::move(section));
  return true;
}

std::vector<DemoSection> RegisteredDemoSections() {
  std::vector<DemoSection> sections = Sections();
  std::stable_sort(sections.begin(), sections.end(),
                   [](const DemoSection& a, const DemoSection& b) { return a.order < b.order; });
  return sections;
}

}  // namespace Quarn::Qphase

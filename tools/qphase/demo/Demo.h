#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Quarn::Qphase {

// One row of the demo table: an algorithm run on a synthetic measurement whose truth is known.
struct DemoRow {
  std::string algorithm;
  int rows = 0;
  int cols = 0;
  double milliseconds = 0.0;
  // NaN when no error can be formed; errorUnit then gives the reason in parentheses ("(no model)").
  double rmsError = 0.0;
  std::string errorUnit;
  double validFraction = 0.0;
  std::string note;
};

struct DemoContext {
  std::string outDir;  // maps and previews are written here
  int size = 512;      // image side in pixels
  std::vector<DemoRow> rows;

  std::string OutPath(const std::string& file) const { return outDir + "/" + file; }
};

// A part of the demo (PSI, white light, carrier fringes, spots, ...). Each synthesises its
// measurements from a seeded random source, runs the library and appends its rows.
struct DemoSection {
  int order = 0;  // sections run in this order
  std::string name;
  std::function<void(DemoContext&)> run;
};

bool RegisterDemoSection(DemoSection section);
std::vector<DemoSection> RegisteredDemoSections();

}  // namespace Quarn::Qphase

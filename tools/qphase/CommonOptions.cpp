#include "CommonOptions.h"

namespace Quarn::Qphase {

void AddMaxValueOption(CLI::App& app, int& maxValue) {
  app.add_option("--max-value", maxValue,
                 "Saturation level (default: the sample type's maximum, e.g. 4095 for a 12-bit camera)")
      ->check(CLI::PositiveNumber);
}

void AddThreadsOption(CLI::App& app, int& threads, const char* description) {
  app.add_option("--threads", threads, description)->check(CLI::NonNegativeNumber);
}

}  // namespace Quarn::Qphase

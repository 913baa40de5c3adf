// qphase demo seen from a shell: every section runs and leaves its maps and previews.
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "CliTestFixture.h"

namespace Quarn::Qphase {
namespace {

namespace fs = std::filesystem;

class DemoCommandTest : public CliTestFixture {};

// Every section of the demo runs on small images: each row of its table carries finite numbers
// (an error may be "n/a" only with its reason), and each section leaves maps and previews.
TEST_F(DemoCommandTest, RunsEverySectionAndWritesItsMaps) {
  const RunResult result = Run("demo --size 64 --out " + Path("demo"));
  ASSERT_EQ(result.status, 0) << result.err;
  const auto finite = [](const std::string& text) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && std::isfinite(value);
  };
  std::istringstream table(result.out);
  int rows = 0;
  for (std::string line; std::getline(table, line);) {
    const std::size_t size = line.find(" 64x64 ");
    if (size == std::string::npos) continue;
    ++rows;
    std::istringstream fields(line.substr(size + 7));
    std::string milliseconds, rate, error, valid;
    fields >> milliseconds >> rate >> error;
    while (fields >> valid && valid.back() != '%') {
    }
    EXPECT_TRUE(finite(milliseconds) && finite(rate) && finite(valid.substr(0, valid.size() - 1))) << line;
    EXPECT_TRUE(finite(error) || line.find("n/a (") != std::string::npos) << line;
  }
  EXPECT_GE(rows, 5) << result.out;
  EXPECT_THAT(result.out, HasSubstr("PSI ConvertSliding13"));
  for (const std::string section : {"psi_", "psicheck_", "swli_", "carrier_", "spot_", "film_"}) {
    for (const std::string extension : {".tif", ".png"}) {
      int count = 0;
      for (const auto& entry : fs::directory_iterator(Path("demo"))) {
        const std::string name = entry.path().filename().string();
        count += name.starts_with(section) && name.ends_with(extension) && fs::file_size(entry.path()) > 0;
      }
      EXPECT_GT(count, 0) << section << "*" << extension;
    }
  }
}

}  // namespace
}  // namespace Quarn::Qphase

// A scratch folder per test and a way to run the qphase executable in it, for the tests that see
// the tool from a shell: exit status, standard output and error, and what is left on disk.
// A test target that runs the tool defines QPHASE_BINARY, the path of the executable under test;
// without it the fixture is the scratch folder alone.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Synthetic/SyntheticPsi.h"
#include "TiffIO.h"

namespace Quarn::Qphase {

using ::testing::HasSubstr;  // what the tool printed holds a text; on failure gmock shows all of it

struct RunResult {
  int status = -1;
  std::string out;
  std::string err;
};

// The whole file as bytes ("" when it cannot be read).
inline std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The number printed after `label` in the tool's output ("centre of mass x 652.464, y 518.873"), or
// NaN when the label is absent.
inline double NumberAfter(const std::string& text, const std::string& label) {
  const std::size_t at = text.find(label);
  return at == std::string::npos ? std::nan("") : std::strtod(text.c_str() + at + label.size(), nullptr);
}

class CliTestFixture : public ::testing::Test {
 protected:
  // `subcommand` (with its trailing blank, e.g. "psi-check ") goes before every Run's arguments.
  explicit CliTestFixture(std::string subcommand = "") : subcommand_(std::move(subcommand)) {}

  void SetUp() override {
    const ::testing::TestInfo& test = *::testing::UnitTest::GetInstance()->current_test_info();
    std::string name =
        std::string("qphase_") + test.test_suite_name() + "_" + test.name() + "_" + std::to_string(getpid());
    for (char& c : name)
      if (c == '/') c = '_';  // parameterised tests
    dir_ = std::filesystem::path(::testing::TempDir()) / name;
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string Path(const std::string& name) const { return (dir_ / name).string(); }

#ifdef QPHASE_BINARY
  // Runs `qphase <subcommand><arguments>` through the shell (so arguments are shell text).
  RunResult Run(const std::string& arguments) const {
    const std::string out = Path("stdout.txt"), err = Path("stderr.txt");
    const std::string command =
        std::string(QPHASE_BINARY) + " " + subcommand_ + arguments + " >" + out + " 2>" + err;
    const int raw = std::system(command.c_str());
    RunResult result;
    result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    result.out = Slurp(out);
    result.err = Slurp(err);
    std::filesystem::remove(out);
    std::filesystem::remove(err);
    return result;
  }

  // Runs `arguments` as Run does and expects exit status `status` and, where given, `text` in what
  // the run printed: standard output after a success, standard error after a failure.
  RunResult RunExpecting(int status, const std::string& arguments, const std::string& text = "") const {
    RunResult result = Run(arguments);
    EXPECT_EQ(result.status, status) << arguments << "\n" << result.err;
    if (!text.empty()) {
      EXPECT_THAT(status == 0 ? result.out : result.err, HasSubstr(text)) << arguments;
    }
    return result;
  }
#endif

  // Writes `name` in the work folder, a stack of `frames` 8-bit frames of tilted fringes (bias 120,
  // `amplitude` counts) shifted as the 7-, 20- or (any other count) sliding 13-frame model expects,
  // and returns its path.
  std::string WritePsiStack(const std::string& name, int frames, double amplitude = 80.0, int rows = 24,
                            int cols = 32) const {
    Core::FrameBuffer stack;
    stack.Allocate(Core::Window2D(0, 0, rows, cols), frames, Core::FrameBuffer::kRes8Bit);
    const std::vector<double> shifts = frames == 7    ? Testing::ShiftsFor7()
                                       : frames == 20 ? Testing::ShiftsFor20()
                                                      : Testing::ShiftsForSliding13(frames);
    Testing::FillPsiStack(stack, shifts, [amplitude](int r, int c) {
      return Testing::PixelFringe{120.0, amplitude, 0.2 * c - 0.1 * r};
    });
    WriteTiffStack(Path(name), stack);
    return Path(name);
  }

  // Writes `name` in the work folder, a float map of `value(row, column)`, and returns its path.
  std::string WriteMap(const std::string& name, int rows, int cols,
                       const std::function<double(int, int)>& value) const {
    Core::DoubleMatrix2D map(rows, cols);
    for (int r = 0; r < rows; ++r) {
      for (int c = 0; c < cols; ++c)
        map(r, c) = value(r, c);
    }
    WriteFloatTiff(Path(name), map);
    return Path(name);
  }

  // The names of the files in the work directory, sorted.
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_))
      names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  // The files in the work directory that are not `expected`: what a run left behind that it should
  // not have (a temporary, a half-written output, a result of a failed run).
  std::vector<std::string> Leftovers(std::initializer_list<std::string> expected) const {
    std::vector<std::string> extra;
    for (const std::string& name : Files())
      if (std::find(expected.begin(), expected.end(), name) == expected.end()) extra.push_back(name);
    return extra;
  }

  std::filesystem::path dir_;

 private:
  std::string subcommand_;
};

}  // namespace Quarn::Qphase
